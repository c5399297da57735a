#!/usr/bin/env bash
# Times the engine's exact Fisher test against R's fisher.test on fixed
# tables and prints the results as a markdown report (progress goes to
# standard error):
#
#   bench/fisher_vs_r.sh [--quick] > bench/results.md
#
# --quick leaves out the five hard tables (R needs minutes on some of them).
# BUILD_DIR names the build with -DANVL_BENCH=ON (default: build-bench
# beside this folder's parent).  R runs with workspace 2e8, and once more
# with 2e9 when it reports its workspace too small; every run, the engine's
# and R's, is capped at RUN_LIMIT seconds.  The runs are strictly one after
# another, so the two programs never share the cores with each other.
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
repo="$(dirname "$here")"
build="${BUILD_DIR:-$repo/build-bench}"
timer="$build/bench/fisher_time"
rhelper="$here/fisher_r.R"

# Largest distance of the two p-values that still counts as the same answer.
agreement=1e-6
# Cap of one run in seconds.
run_limit="${RUN_LIMIT:-600}"
# R's workspace: the first try and the one retry after a workspace error.
workspace_first=2e8
workspace_retry=2e9

quick=0
[[ "${1:-}" == "--quick" ]] && quick=1

if [[ ! -x "$timer" ]]; then
  echo "fisher_time not found at $timer: build with -DANVL_BENCH=ON first" >&2
  exit 2
fi
command -v Rscript > /dev/null || { echo "Rscript not found" >&2; exit 2; }

# name | table (rows separated by "/").  The job satisfaction table is the
# 4 x 4 example of R's fisher.test help page (p = 0.7826849); the 5 x 5
# tables were drawn once by make_tables.R (seed 20240613).
tables=(
  "job satisfaction 4x4|1 2 1 0 / 3 3 6 1 / 10 10 14 9 / 6 7 12 11"
  "small1 5x5|6 1 3 6 2 / 1 0 2 0 2 / 6 1 2 3 2 / 4 2 4 4 3 / 6 4 1 4 4"
  "small2 5x5|4 2 2 1 5 / 2 4 2 4 3 / 3 4 3 3 1 / 1 7 1 0 1 / 2 8 2 2 2"
  "small3 5x5|0 2 1 1 2 / 3 10 2 3 6 / 5 2 0 5 3 / 5 3 1 6 0 / 1 4 3 5 3"
  "small4 5x5|3 0 5 5 2 / 3 1 1 2 2 / 2 5 3 0 4 / 2 1 6 5 1 / 6 0 7 5 3"
  "small5 5x5|4 2 2 1 3 / 1 5 6 0 2 / 5 1 0 0 1 / 6 4 12 1 6 / 4 3 0 2 3"
)
hard_tables=(
  "hard1 5x5|6 7 2 7 5 / 4 12 6 2 9 / 8 4 4 4 3 / 7 17 2 7 4 / 6 5 1 4 10"
  "hard2 5x5|12 3 8 9 3 / 7 6 8 8 0 / 5 4 5 7 4 / 11 4 3 3 2 / 19 6 5 4 10"
  "hard3 5x5|0 6 2 4 1 / 4 3 2 2 2 / 3 15 3 3 9 / 8 12 1 9 4 / 2 13 4 3 6"
  "hard4 5x5|4 6 10 4 1 / 6 3 9 7 1 / 7 4 22 1 1 / 12 8 10 4 3 / 3 2 5 4 2"
  "hard5 5x5|10 3 12 5 6 / 12 3 11 4 3 / 5 7 9 1 1 / 2 5 10 4 4 / 4 4 14 4 5"
)
((quick)) || tables+=("${hard_tables[@]}")

# Field $2 of a "key value key value" line: value after key $1.
field() { awk -v k="$1" '{for (i = 1; i < NF; i++) if ($i == k) {print $(i + 1); exit}}'; }

# Seconds as a short text: milliseconds below one second.
fmt_time() { awk -v s="$1" 'BEGIN {if (s < 1) printf "%.0f ms", s * 1000; else printf "%.2f s", s}'; }

load_start=$(cut -d' ' -f1-3 /proc/loadavg)
rows=()
faster=0
same=0
count=0
both=0
engine_failed=0
r_failed=0
for entry in "${tables[@]}"; do
  name="${entry%%|*}"
  table="${entry#*|}"
  n=$(tr -d '/' <<< "$table" | awk '{for (i = 1; i <= NF; i++) s += $i} END {print s}')
  count=$((count + 1))
  echo "[$count/${#tables[@]}] $name (N = $n): engine ..." >&2

  # shellcheck disable=SC2086  # the table is a list of words on purpose
  eline=$(timeout "$run_limit" "$timer" $table 2>&1) && erc=0 || erc=$?
  e_ok=0
  if ((erc == 0)); then
    ep=$(field p <<< "$eline"); es=$(field seconds <<< "$eline")
    etime=$(fmt_time "$es"); eptext=$ep; e_ok=1
  elif ((erc == 124)); then
    etime="over ${run_limit} s"; eptext="-"
    engine_failed=$((engine_failed + 1))
  else
    failure=$(field failure <<< "$eline")
    es=$(field seconds <<< "$eline")
    after=""
    [[ -n "$es" ]] && after=" after $(fmt_time "$es")"
    case "$failure" in
      -1001.0) etime="failed$after: -1001.0 (memory budget)" ;;
      "") etime="failed: ${eline:-exit $erc}" ;;
      *) etime="failed$after: $failure" ;;
    esac
    engine_failed=$((engine_failed + 1))
    eptext="-"
  fi
  echo "    engine: ${eline:-timeout}" >&2

  r_ok=0; rtime="-"; rptext="-"; rnote=""
  for ws in "$workspace_first" "$workspace_retry"; do
    echo "    R (workspace $ws) ..." >&2
    # shellcheck disable=SC2086
    rline=$(timeout "$run_limit" Rscript "$rhelper" "$ws" $table 2>&1) && rrc=0 || rrc=$?
    echo "    R: ${rline:-timeout}" >&2
    if ((rrc == 0)); then
      rp=$(field p <<< "$rline"); rs=$(field seconds <<< "$rline")
      rtime=$(fmt_time "$rs"); rptext=$rp; r_ok=1
      [[ "$ws" == "$workspace_retry" ]] && rnote=" (workspace 2e9)"
      break
    elif ((rrc == 124)); then
      rtime="over ${run_limit} s"; r_failed=$((r_failed + 1)); break
    elif grep -qiE 'workspace|LDKEY|LDSTP' <<< "$rline" && [[ "$ws" == "$workspace_first" ]]; then
      continue
    else
      rtime="failed: $(cut -c1-60 <<< "$rline")"; r_failed=$((r_failed + 1)); break
    fi
  done
  rtime="$rtime$rnote"

  diff="-"; check="-"
  if ((e_ok && r_ok)); then
    both=$((both + 1))
    diff=$(awk -v a="$ep" -v b="$rp" 'BEGIN {d = a - b; if (d < 0) d = -d; printf "%.1e", d}')
    same_p=$(awk -v d="$diff" -v t="$agreement" 'BEGIN {print (d <= t) ? 1 : 0}')
    quicker=$(awk -v a="$es" -v b="$rs" 'BEGIN {print (a < b) ? 1 : 0}')
    ((same_p)) && same=$((same + 1))
    ((quicker)) && faster=$((faster + 1))
    check=$( ((quicker)) && echo -n "faster" || echo -n "SLOWER")
    check+=$( ((same_p)) && echo -n ", same p" || echo -n ", P DIFFERS")
    ratio=$(awk -v a="$es" -v b="$rs" 'BEGIN {if (a > 0) printf "%.2fx", b / a; else print "-"}')
    check+=" ($ratio)"
  elif ((r_ok)); then
    check="engine failed"
  elif ((e_ok)); then
    check="R failed"
  fi
  rows+=("| $name | $n | $etime | $rtime | $eptext | $rptext | $diff | $check |")
done

cpu=$(awk -F': ' '/model name/ {print $2; exit}' /proc/cpuinfo)
rversion=$(Rscript -e 'cat(R.version.string)' 2>/dev/null)
cat <<EOF
## Fisher's exact test: engine against R's fisher.test

- Measured $(date -u '+%Y-%m-%d %H:%M UTC') on $(nproc) cores ($cpu); load average
  $load_start at the start, $(cut -d' ' -f1-3 /proc/loadavg) at the end; $rversion.
- Engine: one TQCALLER call (procedure 32, exact, memory field -1), timed around the call by
  \`fisher_time\`.  R: \`fisher.test(m, workspace = 2e8)\` (2e9 after a workspace error), timed
  inside R.  The runs go one after another; each is capped at ${run_limit} s.
- "same p": |difference| <= ${agreement}.  The ratio is R's time over the engine's.

| table | N | engine time | R time | engine p | R p | \|difference\| | check |
| --- | ---: | ---: | ---: | ---: | ---: | ---: | --- |
EOF
printf '%s\n' "${rows[@]}"
echo
echo "$count tables: both finished on $both, the engine faster on $faster of those and with the same"
echo "p-value on $same; the engine failed on $engine_failed; R failed or ran over the cap on $r_failed."
