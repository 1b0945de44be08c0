#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# A single-node Slurm cluster in a scratch folder, for testing the sweep
# tool's --slurm path on one machine, as root and without systemd.
#
#   cluster.sh install      installs Debian's Slurm and munge packages when missing
#   cluster.sh start DIR    starts munged, slurmctld and slurmd with everything in DIR
#   cluster.sh stop DIR     stops them by their process ids
#
# After start, Slurm's commands need SLURM_CONF=DIR/slurm.conf. The cluster
# uses Slurm's default ports (6817, 6818): one such cluster per machine.
set -euo pipefail

PACKAGES=(slurmctld slurmd slurm-client munge)
READY_SECONDS=30   # the node is usually idle 1 to 2 s after the start
STOP_SECONDS=15

die() { echo "cluster.sh: $*" >&2; exit 1; }

install_packages() {
  local missing=() p
  for p in "${PACKAGES[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  [ "$(id -u)" -eq 0 ] || die "installing ${missing[*]} needs root"
  echo "Installing: ${missing[*]}"
  # The packages' scripts would start the daemons as services; a policy
  # that refuses every start keeps them off while they install.
  local policy=/usr/sbin/policy-rc.d made_policy=""
  if [ ! -e "$policy" ]; then
    printf '#!/bin/sh\nexit 101\n' >"$policy" && chmod 755 "$policy" && made_policy=1
  fi
  local status=0
  { timeout 300 apt-get update -qq &&
    DEBIAN_FRONTEND=noninteractive timeout 300 apt-get install -y -qq --no-install-recommends "${missing[@]}"; } ||
    status=$?
  [ -n "$made_policy" ] && rm -f "$policy"
  [ $status -eq 0 ] || die "installing ${missing[*]} failed (status $status)"
}

# Waits up to $2 seconds for the command in the remaining arguments to succeed.
wait_for() {
  local what=$1 seconds=$2; shift 2
  local end=$((SECONDS + seconds))
  until "$@" >/dev/null 2>&1; do
    [ $SECONDS -lt $end ] || die "$what not ready after $seconds s"
    sleep 0.5
  done
}

node_idle() { [ "$(timeout 5 sinfo -h -n localhost -o %t 2>/dev/null)" = idle ]; }

write_conf() {
  local dir=$1
  # The node's hardware as slurmd sees it: a larger RealMemory than the
  # real one would drain the node.
  local hardware
  hardware=$(timeout 30 slurmd -C | head -n 1 | tr ' ' '\n' |
    grep -E '^(CPUs|Boards|SocketsPerBoard|CoresPerSocket|ThreadsPerCore|RealMemory)=' | tr '\n' ' ')
  [ -n "$hardware" ] || die "slurmd -C printed no hardware"
  cat >"$dir/slurm.conf" <<EOF
ClusterName=zelsweep
SlurmctldHost=localhost(127.0.0.1)
SlurmUser=root
SlurmdUser=root
AuthType=auth/munge
CredType=cred/munge
AuthInfo=socket=$dir/munge/munge.socket
MailProg=/bin/true
# Without systemd the cgroup plugins leave every job failing.
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
# Cores only: with memory as a resource every task takes the whole node.
SelectType=select/cons_tres
SelectTypeParameters=CR_Core
# Array tasks start at once rather than in waves seconds apart.
SchedulerParameters=batch_sched_delay=0
AccountingStorageType=accounting_storage/none
JobAcctGatherType=jobacct_gather/none
JobCompType=jobcomp/none
ReturnToService=2
StateSaveLocation=$dir/state
SlurmdSpoolDir=$dir/spool
SlurmctldPidFile=$dir/slurmctld.pid
SlurmdPidFile=$dir/slurmd.pid
SlurmctldLogFile=$dir/slurmctld.log
SlurmdLogFile=$dir/slurmd.log
NodeName=localhost NodeAddr=127.0.0.1 $hardware
PartitionName=debug Nodes=localhost Default=YES MaxTime=INFINITE State=UP
EOF
}

# Starts "$@" in the background with its output in log $1 (after shift) and
# keeps its process id in DIR/pids, in starting order.
start_daemon() {
  local dir=$1 name=$2; shift 2
  "$@" >"$dir/$name.out" 2>&1 &
  echo "$name $!" >>"$dir/pids"
}

start() {
  local dir=$1
  [ "$(id -u)" -eq 0 ] || die "the daemons run as root"
  [ ! -e "$dir/pids" ] || die "$dir holds a cluster already (stop it first)"
  mkdir -p "$dir/munge" "$dir/state" "$dir/spool"
  dir=$(cd "$dir" && pwd)
  # munged refuses a socket that others can't reach: every folder above it
  # must let them through.
  chmod 755 "$dir" "$dir/munge"
  local up=$dir
  while [ "$up" != / ]; do
    up=$(dirname "$up")
  done
  local socket=$dir/munge/munge.socket
  timeout 30 mungekey -c -k "$dir/munge/munge.key" >/dev/null 2>&1 || die "mungekey failed"
  start_daemon "$dir" munged munged -F --socket="$socket" --key-file="$dir/munge/munge.key" \
    --pid-file="$dir/munge/munged.pid" --seed-file="$dir/munge/munged.seed"
  wait_for munged 15 sh -c "timeout 5 munge -S '$socket' -n | timeout 5 unmunge -S '$socket'"

  write_conf "$dir"
  export SLURM_CONF=$dir/slurm.conf
  start_daemon "$dir" slurmctld slurmctld -D -i
  start_daemon "$dir" slurmd slurmd -D -N localhost
  wait_for "the Slurm node" $READY_SECONDS node_idle
  echo "Slurm cluster up in $dir: export SLURM_CONF=$dir/slurm.conf"
}

# Stops the daemons by process id, the Slurm daemons before munged, each
# with SIGTERM and, after STOP_SECONDS, SIGKILL.
stop() {
  local dir=$1
  [ -e "$dir/pids" ] || return 0
  local name pid end
  for name in slurmd slurmctld munged; do
    pid=$(awk -v n="$name" '$1 == n { print $2 }' "$dir/pids")
    [ -n "$pid" ] || continue
    kill -TERM "$pid" 2>/dev/null || continue
    end=$((SECONDS + STOP_SECONDS))
    while kill -0 "$pid" 2>/dev/null && [ $SECONDS -lt $end ]; do sleep 0.2; done
    if kill -0 "$pid" 2>/dev/null; then
      echo "cluster.sh: $name ($pid) still running after $STOP_SECONDS s, killing it" >&2
      kill -KILL "$pid" 2>/dev/null || true
    fi
  done
  rm -f "$dir/pids"
}

case "${1:-}" in
  install) install_packages ;;
  start) [ $# -eq 2 ] || die "usage: cluster.sh start DIR"; start "$2" ;;
  stop) [ $# -eq 2 ] || die "usage: cluster.sh stop DIR"; stop "$2" ;;
  *) die "usage: cluster.sh install | start DIR | stop DIR" ;;
esac
