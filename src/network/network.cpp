#include <algorithm>
#include <thread>

#include "frame/spill.h"
#include "network/passes.h"

namespace anvl::net {

void Network::SetMargins(std::vector<int64_t> key_margins, std::vector<int64_t> stage_margins,
                         const double* table, bool canonical) {
  A = std::move(key_margins);
  B = std::move(stage_margins);
  K = static_cast<int>(A.size());
  S = static_cast<int>(B.size());
  lf = table;
  T.assign(S + 1, 0);
  for (int s = 0; s < S; ++s) T[s + 1] = T[s] + B[s];
  N = T[S];
  rest.assign(S, 0);
  for (int s = S - 2; s >= 0; --s) rest[s] = rest[s + 1] + B[s + 1];
  L0 = LogFactorial(N, lf);
  for (int64_t a : A) L0 -= LogFactorial(a, lf);
  std::vector<int64_t> radix(std::max(K - 1, 0));
  const int64_t below_root = S > 0 ? N - B[S - 1] : 0;
  for (int i = 0; i < K - 1; ++i)
    radix[i] = canonical ? A[i] + 1 : std::min(A[i], below_root) + 1;
  codec.Build(K, radix);
}

void Network::SetCapacity(int64_t limit) {
  stage_node_limit = limit;
  Z = 2 * limit;
  prime = LargestPrimeBelow(Z);
}

int ForwardThreads() {
  // ANVLWTQ_THREADS, read at every call, sets the count (1: the caller's
  // thread alone); unset, empty or not a whole number from 1 on means the
  // machine's cores.  Never more than kMaxThreads.
  constexpr int kMaxThreads = 8;
  const int64_t asked = EnvironmentWholeNumber("ANVLWTQ_THREADS", kMaxThreads);
  const int n = asked >= 1 ? static_cast<int>(asked)
                           : static_cast<int>(std::thread::hardware_concurrency());
  return std::clamp(n, 1, kMaxThreads);
}

}  // namespace anvl::net
