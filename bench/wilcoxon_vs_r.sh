#!/usr/bin/env bash
# Times the engine's exact Wilcoxon rank-sum test (procedure 2) against
# coin::wilcox_test(distribution = "exact") on two samples with heavy ties
# (values on 10 levels) and prints a markdown report (progress goes to
# standard error):
#
#   bench/wilcoxon_vs_r.sh > /tmp/wilcoxon.md
#
# BUILD_DIR names the build with -DANVL_BENCH=ON (default: build-bench);
# every run is capped at RUN_LIMIT seconds (default 300).  The runs are one
# after another.  The tables were drawn once (uniform levels; "shift" cases
# move a share of the second sample one level up) and are written here.
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
repo="$(dirname "$here")"
build="${BUILD_DIR:-$repo/build-bench}"
timer="$build/bench/wilcoxon_time"
rhelper="$here/wilcoxon_r.R"
run_limit="${RUN_LIMIT:-300}"

[[ -x "$timer" ]] || { echo "wilcoxon_time not found at $timer: build with -DANVL_BENCH=ON" >&2; exit 2; }
command -v Rscript > /dev/null || { echo "Rscript not found" >&2; exit 2; }

tables=(
  "100 + 100 null|12 7 14 11 10 13 8 9 6 10 / 8 8 15 3 15 14 8 12 10 7"
  "150 + 150 null|11 8 18 10 17 19 18 16 14 19 / 15 17 17 10 20 10 13 17 14 17"
  "300 + 300 null|26 37 32 29 20 32 28 34 28 34 / 31 35 30 33 37 24 26 27 36 21"
  "300 + 300 shift|34 38 26 34 26 21 28 36 21 36 / 12 33 29 35 27 41 30 22 34 37"
  "500 + 500 null|58 49 54 53 52 48 51 44 41 50 / 50 66 46 51 48 47 48 44 48 52"
  "1000 + 1000 null|101 94 103 102 94 117 93 86 100 110 / 92 109 104 102 95 100 111 106 87 94"
)

field() { awk -v k="$1" '{for (i = 1; i < NF; i++) if ($i == k) {print $(i + 1); exit}}'; }

echo "| data | engine wall s | engine cpu s | engine p | field 48 | coin wall s | coin cpu s | coin p |"
echo "|---|---|---|---|---|---|---|---|"
for entry in "${tables[@]}"; do
  name="${entry%%|*}"
  cells="${entry#*|}"
  echo "running $name" >&2
  # shellcheck disable=SC2086
  engine="$(timeout "$run_limit" "$timer" $cells || true)"
  e_s="$(field seconds <<< "$engine")"; e_c="$(field cpu <<< "$engine")"
  e_p="$(field p2 <<< "$engine")"; e_f="$(field field48 <<< "$engine")"
  [[ -z "$engine" ]] && e_s=">$run_limit" && e_c="-" && e_p="-" && e_f="-"
  # shellcheck disable=SC2086
  r="$(timeout "$run_limit" Rscript "$rhelper" $cells 2>/dev/null || true)"
  if [[ "$r" == p* ]]; then
    r_s="$(field seconds <<< "$r")"; r_c="$(field cpu <<< "$r")"; r_p="$(field p <<< "$r")"
  elif [[ "$r" == error* ]]; then
    r_s="failed"; r_c="-"; r_p="${r#error }"
  else
    r_s=">$run_limit"; r_c="-"; r_p="-"
  fi
  echo "| $name | $e_s | $e_c | $e_p | $e_f | $r_s | $r_c | $r_p |"
done
