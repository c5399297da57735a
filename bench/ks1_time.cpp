// ks1_time - timed exact runs of the one-sample Kolmogorov-Smirnov test
// against the standard normal on values read from standard input.
//
//   ks1_time REPEATS < values.txt
//
// Makes REPEATS TQCALLER calls (procedure 6, exact) and prints one line:
//
//   n <n> D <statistic> p <exact two-sided p> seconds <mean per call> failure <field 48>
// Exit status: 0 success, 1 the engine reported a failure, 2 usage error.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <vector>

#include "ks1_call.h"

int main(int argc, char** argv) {
  const int repeats = argc > 1 ? std::atoi(argv[1]) : 0;
  if (repeats < 1) {
    std::fprintf(stderr, "usage: ks1_time REPEATS < values\n");
    return 2;
  }
  std::vector<double> x;
  for (double v; std::cin >> v;) x.push_back(v);
  double f[TQ_RECORD_LENGTH];
  const auto t0 = std::chrono::steady_clock::now();
  for (int r = 0; r < repeats; ++r) anvl::bench::RunKsOne(x, 4, 0.0, 1.0, TQ_METHOD_EXACT, 0, f);
  const std::chrono::duration<double> dt = std::chrono::steady_clock::now() - t0;
  const double best = dt.count() / repeats;
  std::printf("n %zu D %.10g p %.17g seconds %.6f failure %.1f\n", x.size(), f[0], f[16], best,
              f[48]);
  return f[48] == 0.0 ? 0 : 1;
}
