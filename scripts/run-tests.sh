#!/usr/bin/env bash
# The whole test suite: an optimised build, then a build under
# AddressSanitizer and UndefinedBehaviorSanitizer, each with every test.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build
(cd build && ctest --output-on-failure -j"$(nproc)")
scripts/setup.sh build-sanitize -DANVL_SANITIZE=ON
(cd build-sanitize && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --output-on-failure -j"$(nproc)")
