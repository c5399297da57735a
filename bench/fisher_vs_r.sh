#!/usr/bin/env bash
# Times the engine's exact Fisher test against R's fisher.test on fixed
# tables, side by side in one run, and prints a markdown report (progress
# goes to standard error):
#
#   bench/fisher_vs_r.sh [--quick] > bench/results.md
#
# --quick leaves out the hard tables (R needs a minute or more on some).
# For each table: R's fisher.test; the engine's Fisher test (fisher_time,
# null host routines, with ANVLWTQ_MEMORY_CEILING=$CEILING mebibytes); the
# engine's Pearson chi-square (procedure 7) on the same table with its peak
# memory; and, when OLD_LIB names a folder with an earlier libanvlwtq.so,
# that library's Fisher test too (the "before" column).
#
# BUILD_DIR names the build with -DANVL_BENCH=ON (default build-bench).  R
# runs with workspace 2e8, and once more with 2e9 after a workspace error.
# Every run is capped at RUN_LIMIT seconds (default 600).  The runs go
# strictly one after another, so no two share the cores.
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
repo="$(dirname "$here")"
build="${BUILD_DIR:-$repo/build-bench}"
timer="$build/bench/fisher_time"
rhelper="$here/fisher_r.R"
ceiling="${CEILING:-1024}"
old_lib="${OLD_LIB:-}"
# Largest distance of the two p-values that still counts as the same answer.
agreement=1e-6
run_limit="${RUN_LIMIT:-600}"

quick=0
[[ "${1:-}" == "--quick" ]] && quick=1
[[ -x "$timer" ]] || { echo "fisher_time not found at $timer: build with -DANVL_BENCH=ON" >&2; exit 2; }
command -v Rscript > /dev/null || { echo "Rscript not found" >&2; exit 2; }

# name | table (rows separated by "/").  The job satisfaction table is the
# 4 x 4 example of R's fisher.test help page; the random tables were drawn
# once by make_tables.R (multinomial draws, uneven margins, mild association).
tables=(
  "job satisfaction 4x4|1 2 1 0 / 3 3 6 1 / 10 10 14 9 / 6 7 12 11"
  "pearson5x5 5x5|1 3 2 4 2 / 2 0 3 3 2 / 2 3 9 6 4 / 1 0 2 1 2 / 1 1 3 1 2"
  "pearson3x10 3x10|0 0 1 1 4 2 4 2 2 1 / 6 3 1 8 8 1 4 2 1 6 / 6 2 4 4 8 3 6 3 3 4"
  "pearson3x10b 3x10|7 5 5 4 3 3 2 2 1 0 / 3 4 4 4 4 4 4 3 3 3 / 1 1 1 2 3 3 4 5 6 6"
  "small1 5x5|6 1 3 6 2 / 1 0 2 0 2 / 6 1 2 3 2 / 4 2 4 4 3 / 6 4 1 4 4"
  "small2 5x5|4 2 2 1 5 / 2 4 2 4 3 / 3 4 3 3 1 / 1 7 1 0 1 / 2 8 2 2 2"
  "small3 5x5|0 2 1 1 2 / 3 10 2 3 6 / 5 2 0 5 3 / 5 3 1 6 0 / 1 4 3 5 3"
  "small4 5x5|3 0 5 5 2 / 3 1 1 2 2 / 2 5 3 0 4 / 2 1 6 5 1 / 6 0 7 5 3"
  "small5 5x5|4 2 2 1 3 / 1 5 6 0 2 / 5 1 0 0 1 / 6 4 12 1 6 / 4 3 0 2 3"
  "wide1 5x6|1 0 3 4 4 8 / 0 3 2 1 3 5 / 2 4 2 1 1 1 / 2 0 1 3 0 2 / 0 0 1 0 1 3"
  "wide2 5x6|2 1 1 4 0 3 / 2 1 3 1 1 4 / 0 1 2 2 2 1 / 2 3 0 4 4 0 / 3 3 6 1 0 4"
  "wide3 5x6|0 1 5 0 2 2 / 1 3 2 1 6 1 / 1 0 6 2 3 2 / 0 2 7 0 2 3 / 1 2 1 0 2 2"
  "square1 6x6|3 1 0 3 3 2 / 1 3 1 0 3 2 / 0 1 1 1 3 0 / 2 0 1 2 4 0 / 1 2 1 2 0 1 / 3 3 1 1 0 1"
  "square2 6x6|1 0 1 1 0 2 / 2 2 3 0 0 0 / 0 3 6 4 3 2 / 5 6 4 0 3 3 / 0 2 3 1 5 2 / 2 2 1 2 0 1"
  "square3 6x6|1 0 2 4 1 1 / 3 2 1 2 1 3 / 2 1 1 2 0 2 / 1 1 3 4 4 3 / 1 3 1 1 1 2 / 3 2 2 3 3 5"
  "square4 6x6|2 4 2 1 1 2 / 3 3 3 3 0 1 / 3 0 5 3 1 0 / 1 4 4 1 2 2 / 1 0 2 1 4 2 / 5 1 4 2 2 1"
)
hard_tables=(
  "hard3 5x5|0 6 2 4 1 / 4 3 2 2 2 / 3 15 3 3 9 / 8 12 1 9 4 / 2 13 4 3 6"
  "hard5 5x5|10 3 12 5 6 / 12 3 11 4 3 / 5 7 9 1 1 / 2 5 10 4 4 / 4 4 14 4 5"
  "hard6 5x5|6 2 8 3 2 / 1 7 9 6 4 / 3 3 7 4 4 / 4 3 4 5 3 / 1 3 10 7 4"
  "hard7 5x5|7 2 4 2 5 / 2 5 3 5 6 / 6 5 5 0 5 / 9 5 4 6 7 / 6 2 5 3 9"
  "flat 5x5|7 6 7 6 7 / 6 7 6 7 6 / 7 6 8 6 7 / 6 7 6 7 6 / 7 6 7 6 7"
  "expected 5x5|2 3 3 3 4 / 3 4 5 6 7 / 4 6 7 8 10 / 5 7 8 9 11 / 6 8 10 11 14"
)
((quick)) || tables+=("${hard_tables[@]}")

# Value after key $1 in a "key value key value" line.
field() { awk -v k="$1" '{for (i = 1; i < NF; i++) if ($i == k) {print $(i + 1); exit}}'; }
# Seconds as a short text: milliseconds below one second.
fmt_time() { awk -v s="$1" 'BEGIN {if (s == "") print "-"; else if (s < 1) printf "%.0f ms", s * 1000; else printf "%.2f s", s}'; }

# One engine run: "seconds p failure peak_kb", or "- - timeout -".
engine() {
  local out rc peak
  out=$( { /usr/bin/time -f "peak %M" timeout "$run_limit" "$@" ; } 2>&1 ) && rc=0 || rc=$?
  peak=$(field peak <<< "$out")
  if ((rc == 124)); then echo "- - timeout ${peak:--}"; return; fi
  echo "$(field seconds <<< "$out") $(field p <<< "$out") $(field failure <<< "$out") ${peak:--}"
}
show_run() {  # seconds failure -> text
  if [[ "$2" == "0.0" ]]; then fmt_time "$1"
  elif [[ "$2" == "timeout" ]]; then echo "over ${run_limit} s"
  elif [[ "$2" == "-1001.0" ]]; then echo "$(fmt_time "$1"), -1001.0 (memory)"
  else echo "failed ($2)"; fi
}

load_start=$(cut -d' ' -f1-3 /proc/loadavg)
rows=()
for entry in "${tables[@]}"; do
  name="${entry%%|*}"; table="${entry#*|}"
  n=$(tr -d '/' <<< "$table" | awk '{for (i = 1; i <= NF; i++) s += $i} END {print s}')
  echo "$name (N = $n) ..." >&2
  # shellcheck disable=SC2086  # the table is a list of words on purpose
  read -r es ep ef _ <<< "$(ANVLWTQ_MEMORY_CEILING=$ceiling engine "$timer" $table)"
  # shellcheck disable=SC2086
  read -r ps _ pf pm <<< "$(ANVLWTQ_MEMORY_CEILING=$ceiling engine "$timer" --pearson $table)"
  before="-"
  if [[ -n "$old_lib" ]]; then
    # shellcheck disable=SC2086
    read -r os _ of _ <<< "$(LD_LIBRARY_PATH=$old_lib engine "$timer" $table)"
    before=$(show_run "$os" "$of")
  fi
  rs=""; rp="-"; rtext="-"
  for ws in 2e8 2e9; do
    # shellcheck disable=SC2086
    rline=$(timeout "$run_limit" Rscript "$rhelper" "$ws" $table 2>&1) && rrc=0 || rrc=$?
    if ((rrc == 0)); then
      rs=$(field seconds <<< "$rline"); rp=$(field p <<< "$rline"); rtext=$(fmt_time "$rs"); break
    elif ((rrc == 124)); then rtext="over ${run_limit} s"; break
    elif ! grep -qiE 'workspace|LDKEY|LDSTP' <<< "$rline"; then rtext="failed"; break
    fi
  done
  ratio="-"; diff="-"
  if [[ "$ef" == "0.0" && -n "$rs" ]]; then
    ratio=$(awk -v a="$es" -v b="$rs" 'BEGIN {printf "%.2f", a / b}')
    diff=$(awk -v a="$ep" -v b="$rp" -v t="$agreement" \
      'BEGIN {d = a - b; if (d < 0) d = -d; printf "%.1e%s", d, (d > t) ? " (differs)" : ""}')
  fi
  peak="-"; [[ "$pm" != "-" ]] && peak="$((pm / 1024)) MiB"
  rows+=("| $name | $n | $rtext | $before | $(show_run "$es" "$ef") | $ratio | ${ep:--} | $rp | $diff | $(show_run "$ps" "$pf") | $peak |")
done

cpu=$(awk -F': ' '/model name/ {print $2; exit}' /proc/cpuinfo)
cat <<EOF
## Fisher's exact test against R's fisher.test, and Pearson's exact test

- Measured $(date -u '+%Y-%m-%d %H:%M UTC') on $(nproc) cores ($cpu); load average
  $load_start at the start, $(cut -d' ' -f1-3 /proc/loadavg) at the end;
  $(Rscript -e 'cat(R.version.string)' 2>/dev/null).
- Engine: one TQCALLER call with null host routines, timed around the call (\`fisher_time\`),
  ANVLWTQ_MEMORY_CEILING=$ceiling.  R: \`fisher.test(m, workspace = 2e8)\` (2e9 after a workspace
  error), timed inside R.  "before": the library named by OLD_LIB, at its 16 MiB budget.
- after / R: the engine's time over R's (the target is at most 0.5).  Pearson: procedure 7,
  exact, on the same table, with the peak resident memory of its process.

| table | N | R | before | after | after / R | engine p | R p | \|difference\| | Pearson | Pearson peak |
| --- | ---: | ---: | ---: | ---: | ---: | ---: | ---: | ---: | ---: | ---: |
EOF
printf '%s\n' "${rows[@]}"
