#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The sweep tool on a real single-node Slurm cluster (make test-slurm):
#  1. an 8-point sweep runs locally, for reference;
#  2. the same sweep runs as a job array, with one point made to fail: the
#     summary must show it, and the 7 other JSONs must equal the local ones;
#  3. the failed point alone runs again with --resubmit-failed, and then all
#     8 JSONs equal the local ones.
# JSONs are compared without their wall_clock section, the only one that may
# differ between two runs of a point. Every wait is bounded; the daemons stop
# by process id whatever happens, and the scratch folder stays on failure.
#
# usage: test-slurm.sh BUILD_DIR
set -euo pipefail

build=$(cd "${1:?usage: test-slurm.sh BUILD_DIR}" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
tool=$build/apps/sweep/zelsim-sweep
zelsim=$build/apps/zelsim/zelsim
[ -x "$tool" ] && [ -x "$zelsim" ] || { echo "test-slurm: build first ($tool, $zelsim)" >&2; exit 1; }

started=$SECONDS
"$here/cluster.sh" install

scratch=$(mktemp -d /tmp/zelsim-test-slurm.XXXXXX)
chmod 755 "$scratch"   # munged's socket lies below it
cluster=$scratch/cluster
finish() {
  local status=$?
  "$here/cluster.sh" stop "$cluster" || status=1
  if [ $status -eq 0 ]; then
    rm -rf "$scratch"
  else
    echo "test-slurm: FAILED; scratch folder kept: $scratch" >&2
    for log in "$cluster"/slurmctld.log "$cluster"/slurmd.log; do
      [ -f "$log" ] && { echo "--- last lines of $log" >&2; tail -n 15 "$log" >&2; }
    done
  fi
  exit $status
}
trap finish EXIT
trap 'exit 130' INT TERM

"$here/cluster.sh" start "$cluster"
export SLURM_CONF=$cluster/slurm.conf

cd "$scratch"
cat >sweep.toml <<'EOF'
title = "Slurm check"
run_length_ns = 5000
seeds = [1, 2]
[settings]
NUM_REQUESTS = 1000000
[axes]
request_rate = [20, "max"]
PERCENTAGE_READ = [100, 50]
EOF
# zelsim, except that one point fails while the marker file exists. The
# version is zelsim's own, so the points keep the keys of the local run.
cat >flaky-zelsim <<EOF
#!/bin/sh
args=" \$* "
if [ -e "$scratch/fail-marker" ]; then
  case "\$args" in *" PERCENTAGE_READ=50 "*) case "\$args" in *" REQUEST_SPACING=0 "*)
    case "\$args" in *" --seed 2 "*) echo "ERROR: failing on purpose"; exit 3 ;; esac ;; esac ;;
  esac
fi
exec "$zelsim" "\$@"
EOF
chmod +x flaky-zelsim
touch fail-marker

passed=0
check() { # check WHAT COMMAND...: the command must succeed
  local what=$1; shift
  if ! "$@"; then
    echo "test-slurm: FAILED: $what" >&2
    echo "test-slurm: $passed passed, 1 failed"
    exit 1
  fi
  passed=$((passed + 1))
}
slurm_run() { # the sweep through Slurm; prints the tool's output to out.txt
  local status=0
  timeout 150 "$tool" run sweep.toml -o on-slurm --zelsim "$scratch/flaky-zelsim" --slurm --partition debug \
    --time-limit 5 --throttle 2 --poll 1 --wait-timeout 120 "$@" >out.txt 2>&1 || status=$?
  cat out.txt
  return $status
}

echo "== local run"
check "local run" timeout 120 "$tool" run sweep.toml -o local --zelsim "$zelsim" --jobs 2 --quiet

echo "== Slurm run with one point failing on purpose"
status=0
slurm_run || status=$?
check "the Slurm run reports its failed point (status $status, expected 1)" [ $status -eq 1 ]
check "8 tasks submitted" grep -q "Submitted job [0-9]*: 8 tasks" out.txt
check "the summary counts the failure" grep -q "^7 done, 1 failed, 0 not run" on-slurm/summary.txt
check "the summary shows the failed point" \
  grep -q "^FAILED point 7 (request_rate=max, PERCENTAGE_READ=50, seed 2)" on-slurm/summary.txt
check "the summary shows the point's output" grep -q "ERROR: failing on purpose" on-slurm/summary.txt
check "the summary names the task's log" grep -q "task log: .*/slurm/[0-9]*_7.out" on-slurm/summary.txt
check "results.csv marks the failure" grep -q "^7,[0-9a-f]*,max,50,2,failed,1," on-slurm/results.csv
timeout 60 "$tool" compare local on-slurm | tee compare.txt || true
check "the 7 good points equal the local ones" grep -q "^7 points in both, 0 differ" compare.txt

echo "== --resubmit-failed"
rm fail-marker
check "the resubmitted point runs" slurm_run --resubmit-failed
check "one task resubmitted" grep -q "Submitted job [0-9]*: 1 tasks" out.txt
check "nothing failed any more" grep -q "^8 done, 0 failed, 0 not run" on-slurm/summary.txt
timeout 60 "$tool" compare local on-slurm | tee compare.txt || true
check "all 8 points equal the local ones" grep -q "^8 points in both, 0 differ" compare.txt

echo "test-slurm: the sweep on Slurm checked in $((SECONDS - started)) s"
echo "test-slurm: $passed passed, 0 failed"
