// ks2_time - one timed run of the two-sample Kolmogorov-Smirnov test (procedure 18)
// through TQCALLER on a two-row table of counts by level.
//
//   ks2_time [--method 1|2|3] [--memory KB] a1 a2 ... / b1 b2 ...
//
// Prints the statistic D, the exact (or Monte Carlo) two-sided p-value,
// the wall and processor time of the call in seconds and field 48.  The
// record holds no asymptotic p-value of this procedure.
#include <chrono>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "anvlwtq.h"

int main(int argc, char** argv) {
  int64_t method = TQ_METHOD_EXACT, memory = -1;
  std::vector<int64_t> rows[2];
  int row = 0;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--method") == 0 && i + 1 < argc) {
      method = std::atoll(argv[++i]);
    } else if (std::strcmp(argv[i], "--memory") == 0 && i + 1 < argc) {
      memory = std::atoll(argv[++i]);
    } else if (std::strcmp(argv[i], "/") == 0) {
      row = 1;
    } else {
      rows[row].push_back(std::atoll(argv[i]));
    }
  }
  if (rows[0].size() != rows[1].size() || rows[0].empty()) {
    std::fprintf(stderr, "usage: ks2_time [--method m] [--memory KB] a1 .. aK / b1 .. bK\n");
    return 2;
  }
  const int64_t K = static_cast<int64_t>(rows[0].size());
  std::vector<int64_t> cells(2 * K);
  for (int64_t j = 0; j < K; ++j) {
    cells[2 * j] = rows[0][j];
    cells[2 * j + 1] = rows[1][j];
  }
  int64_t ip[TQ_INT_COUNT] = {TQ_PROC_KS_TWO_SAMPLE, method, 1, 12345, 100000, 0, 0, 0, 0, memory};
  double rp[TQ_REAL_COUNT] = {};
  rp[TQ_REAL_MC_LEVEL] = 0.99;
  rp[TQ_REAL_MISSING] = -4242.0;
  double record[TQ_RECORD_LENGTH];
  const std::clock_t cpu_start = std::clock();
  const auto start = std::chrono::steady_clock::now();
  TQCALLER(nullptr, nullptr, ip, rp, cells.data(), 2, K, nullptr, nullptr, nullptr, 0, 0, nullptr,
           record, "");
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double cpu = static_cast<double>(std::clock() - cpu_start) / CLOCKS_PER_SEC;
  const int two = method == 2 ? TQ_REC_MC_TWO : TQ_REC_EXACT_TWO;
  std::printf("d %.9g p2 %.15g seconds %.3f cpu %.3f field48 %g\n", record[TQ_REC_STATISTIC],
              record[two], seconds, cpu, record[TQ_REC_FAILURE]);
  return record[TQ_REC_FAILURE] == 0.0 ? 0 : 1;
}
