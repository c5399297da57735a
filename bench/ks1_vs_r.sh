#!/bin/sh
# The exact one-sample Kolmogorov-Smirnov test against the standard normal:
# the engine (ks1_time, through TQCALLER) beside R's ks.test(exact = TRUE)
# on the same samples (rnorm, seed 20261123), as a markdown table.  The
# time is the mean of REPEATS calls on each side.
#   bench/ks1_vs_r.sh > /tmp/ks1.md
set -eu
BUILD_DIR=${BUILD_DIR:-build-bench}
REPEATS=${REPEATS:-200}
here=$(dirname "$0")
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
echo "| n | D | engine p | R p | relative difference | engine s | R s |"
echo "|---|---|---|---|---|---|---|"
for n in 100 1000 2000 5000; do
  Rscript -e "set.seed(20261123); writeLines(sprintf('%.17g', rnorm($n)), '$tmp/x.txt')"
  e=$("$BUILD_DIR/bench/ks1_time" "$REPEATS" < "$tmp/x.txt")
  r=$(Rscript "$here/ks1_r.R" "$tmp/x.txt" "$REPEATS")
  echo "$e $r" | awk -v n="$n" '{
    ep = $6; rp = $14; d = ep - rp; if (d < 0) d = -d
    printf "| %d | %.6f | %.12g | %.12g | %.1e | %.5f | %.5f |\n", n, $4, ep, rp, d / rp, $8, $16 }'
done
