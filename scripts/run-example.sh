#!/usr/bin/env bash
# The main job: build everything, then run tq on the bundled example data:
# Fisher's exact test and Pearson's chi-square on the 4 x 4 job
# satisfaction table, and the binomial test on case data.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build >/dev/null
set -x
build/tq fisher --table-file examples/job_satisfaction.txt
build/tq chisq --table-file examples/job_satisfaction.txt
build/tq binomial --values "1 0" --weights "7 5" --p0 0.3
