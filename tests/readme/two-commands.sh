#!/usr/bin/env bash
# Clones SOURCE's HEAD into WORK and runs the README's two commands there, in
# order: `./run.sh sim`, then `./run.sh test`, which must find and run the
# plain tests whatever the first left configured in build/.
#   two-commands.sh SOURCE WORK
# Exits 77 (skipped) unless ULONAT_LONG=1, and inside a run of itself.
set -euo pipefail
source_dir=$1 work=$2
if [[ "${ULONAT_LONG:-0}" != 1 || "${ULONAT_IN_FRESH_CLONE:-0}" == 1 ]]; then
  echo "skipped: set ULONAT_LONG=1 to build a fresh clone and run the README's commands"
  exit 77
fi
rm -rf "$work"
git clone -q "$source_dir" "$work"
cd "$work"
export ULONAT_IN_FRESH_CLONE=1 ULONAT_SKIP_SANITIZERS=1 ULONAT_LONG=0
./run.sh sim > sim.log 2>&1 || { cat sim.log; echo "./run.sh sim failed"; exit 1; }
echo "./run.sh sim: exit 0"
./run.sh test > test.log 2>&1 || { cat test.log; echo "./run.sh test failed"; exit 1; }
# ctest's summary: "100% tests passed, 0 tests failed out of N".
n=$(sed -n 's/.*tests passed, 0 tests failed out of \([0-9][0-9]*\).*/\1/p' test.log | head -1)
if [[ -z "$n" || "$n" -lt 100 ]]; then
  cat test.log
  echo "./run.sh test did not run the plain tests (found: ${n:-none})"
  exit 1
fi
echo "./run.sh test: $n plain tests passed"
