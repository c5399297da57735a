// wilcoxon_time - one timed run of the Wilcoxon rank-sum test (procedure 2)
// through TQCALLER on a two-row table of counts by level, or of the signed
// rank test on a one-row table of counts of paired differences.
//
//   wilcoxon_time [--method 1|2|3] [--memory KB] a1 a2 ... / b1 b2 ...
//   wilcoxon_time [--method 1|2|3] [--memory KB] --differences d1,d2,... n1 n2 ...
//
// Prints the exact (or Monte Carlo, or asymptotic) two-sided p-value, the
// one-sided one, the wall and processor time of the call in seconds and
// field 48.
#include <algorithm>
#include <chrono>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "anvlwtq.h"

int main(int argc, char** argv) {
  int64_t method = TQ_METHOD_EXACT, memory = -1;
  std::vector<int64_t> rows[2];
  std::vector<double> differences;
  int row = 0;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--method") == 0 && i + 1 < argc) {
      method = std::atoll(argv[++i]);
    } else if (std::strcmp(argv[i], "--memory") == 0 && i + 1 < argc) {
      memory = std::atoll(argv[++i]);
    } else if (std::strcmp(argv[i], "--differences") == 0 && i + 1 < argc) {
      std::string list = argv[++i];
      for (size_t at = 0; at <= list.size();) {
        const size_t comma = std::min(list.find(',', at), list.size());
        differences.push_back(std::atof(list.substr(at, comma - at).c_str()));
        at = comma + 1;
      }
    } else if (std::strcmp(argv[i], "/") == 0) {
      row = 1;
    } else {
      rows[row].push_back(std::atoll(argv[i]));
    }
  }
  const bool paired = !differences.empty();
  if (paired ? (row != 0 || rows[0].size() != differences.size())
             : (rows[0].size() != rows[1].size() || rows[0].empty())) {
    std::fprintf(stderr,
                 "usage: wilcoxon_time [--method m] [--memory KB] a1 .. aK / b1 .. bK\n"
                 "       wilcoxon_time [--method m] [--memory KB] --differences d1,..,dK n1 .. nK\n");
    return 2;
  }
  const int64_t K = static_cast<int64_t>(rows[0].size());
  std::vector<int64_t> cells = rows[0];
  if (!paired) {
    cells.assign(2 * K, 0);
    for (int64_t j = 0; j < K; ++j) {
      cells[2 * j] = rows[0][j];
      cells[2 * j + 1] = rows[1][j];
    }
  }
  int64_t ip[TQ_INT_COUNT] = {TQ_PROC_WILCOXON, method, 1, 12345, 100000, 0, 0, 0, 0, memory};
  double rp[TQ_REAL_COUNT] = {};
  rp[TQ_REAL_MC_LEVEL] = 0.99;
  rp[TQ_REAL_MISSING] = -4242.0;
  double record[TQ_RECORD_LENGTH];
  const std::clock_t cpu_start = std::clock();
  const auto start = std::chrono::steady_clock::now();
  TQCALLER(nullptr, nullptr, ip, rp, cells.data(), paired ? 1 : 2, K, nullptr,
           paired ? differences.data() : nullptr, nullptr, 0, 0, nullptr, record, "");
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double cpu = static_cast<double>(std::clock() - cpu_start) / CLOCKS_PER_SEC;
  const int two = method == 1 ? TQ_REC_EXACT_TWO : method == 2 ? TQ_REC_MC_TWO : 14;
  const int one = method == 1 ? TQ_REC_EXACT_ONE : method == 2 ? TQ_REC_MC_ONE : 13;
  std::printf("p2 %.15g p1 %.15g seconds %.3f cpu %.3f field48 %g\n", record[two], record[one],
              seconds, cpu, record[TQ_REC_FAILURE]);
  return record[TQ_REC_FAILURE] == 0.0 ? 0 : 1;
}
