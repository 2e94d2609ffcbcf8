#!/usr/bin/env bash
# A real one-node Slurm cluster on this machine (munged, slurmctld and slurmd from Debian's
# packages, configured in a scratch folder of their own, on free ports of 127.0.0.1) runs
# a cohort of six phantom subjects as a job array, two tasks at a time. Checks:
#   - the array's outputs equal a serial run's byte for byte (group tables included);
#   - an array cancelled part-way, then resubmitted, runs only the missing subjects;
#   - a subject given too little memory is reported failed and leaves no _done.json.
# Usage: slurm_cluster_test.sh QUORIX_BATCH
# Exits 77 (skipped) only when the daemons cannot start here, saying why.
set -u
QB=$(readlink -f "$1")
SKIP=77
fail() { echo "FAIL: $*" >&2; exit 1; }
skip() { echo "SKIP: $*" >&2; exit $SKIP; }

for tool in munged slurmctld slurmd sbatch squeue scancel scontrol; do
  command -v $tool >/dev/null || skip "$tool is not installed (tools/setup.sh installs slurm-wlm and munge)"
done
[ "$(id -u)" -eq 0 ] || skip "the test cluster runs its daemons as root (SlurmUser root)"

scratch=$(mktemp -d /tmp/quorix-slurm.XXXXXX)
daemon_pids=()
stop_daemons() {
  # by PID only, each daemon we started, then wait for it to go
  for pidfile in "$scratch"/run/slurmd.pid "$scratch"/run/slurmctld.pid "$scratch"/run/munged.pid; do
    [ -s "$pidfile" ] && kill "$(cat "$pidfile")" 2>/dev/null
  done
  for pid in "${daemon_pids[@]}"; do kill "$pid" 2>/dev/null; done
  for _ in $(seq 50); do
    alive=0
    for pidfile in "$scratch"/run/*.pid; do
      [ -s "$pidfile" ] && kill -0 "$(cat "$pidfile")" 2>/dev/null && alive=1
    done
    [ $alive -eq 0 ] && break
    sleep 0.1
  done
}
cleanup() {
  stop_daemons
  if [ "${KEEP_SCRATCH:-0}" = 1 ]; then echo "scratch kept: $scratch" >&2; else rm -rf "$scratch"; fi
}
trap cleanup EXIT
trap 'exit 1' INT TERM

mkdir -p "$scratch"/{munge,run,log,state,spool,data}
chmod 700 "$scratch/munge"

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
ctld_port=$(free_port)
slurmd_port=$(free_port)
[ "$ctld_port" != "$slurmd_port" ] || slurmd_port=$(free_port)
node=$(hostname -s)

# munge with a key of its own and its own socket
dd if=/dev/urandom of="$scratch/munge/munge.key" bs=1024 count=1 status=none
chmod 400 "$scratch/munge/munge.key"
munged --force --key-file="$scratch/munge/munge.key" --socket="$scratch/munge/socket" \
  --pid-file="$scratch/run/munged.pid" --log-file="$scratch/log/munged.log" \
  --seed-file="$scratch/munge/seed" 2>"$scratch/log/munged.err" ||
  skip "munged does not start here: $(tail -1 "$scratch/log/munged.err")"

# Memory enforcement, first choice: the memory control group (v1 where its controller is
# mounted, v2 where the unified hierarchy offers it), in which the kernel kills the task
# that goes over --mem and Slurm marks the job OUT_OF_MEMORY. Fallback when slurmd cannot
# use the control groups here: the accounting poller's over-memory kill (every second).
# QUORIX_SLURM_MEMORY=cgroup|poller forces one.
write_conf() {  # MODE
  local task_plugin proctrack acct_params
  if [ "$1" = poller ]; then
    task_plugin=task/none proctrack=proctrack/linuxproc acct_params=OverMemoryKill
    : > "$scratch/cgroup.conf"
  else
    task_plugin=task/cgroup proctrack=proctrack/cgroup acct_params=NoOverMemoryKill
    if [ -d /sys/fs/cgroup/memory ]; then
      printf 'CgroupPlugin=cgroup/v1\nCgroupMountpoint=/sys/fs/cgroup\n' > "$scratch/cgroup.conf"
    else
      printf 'CgroupPlugin=cgroup/v2\nIgnoreSystemd=yes\n' > "$scratch/cgroup.conf"
    fi
    printf 'ConstrainRAMSpace=yes\nConstrainSwapSpace=yes\nAllowedSwapSpace=0\n' >> "$scratch/cgroup.conf"
  fi
  cat > "$scratch/slurm.conf" <<CONF
ClusterName=quorixtest
SlurmctldHost=$node(127.0.0.1)
SlurmctldPort=$ctld_port
SlurmdPort=$slurmd_port
SlurmUser=root
SlurmdUser=root
AuthType=auth/munge
AuthInfo=socket=$scratch/munge/socket
CredType=cred/munge
StateSaveLocation=$scratch/state
SlurmdSpoolDir=$scratch/spool
SlurmctldPidFile=$scratch/run/slurmctld.pid
SlurmdPidFile=$scratch/run/slurmd.pid
SlurmctldLogFile=$scratch/log/slurmctld.log
SlurmdLogFile=$scratch/log/slurmd.log
SlurmdDebug=info
ProctrackType=$proctrack
TaskPlugin=$task_plugin
JobAcctGatherType=jobacct_gather/linux
JobAcctGatherFrequency=1
JobAcctGatherParams=$acct_params
AccountingStorageType=accounting_storage/none
SelectType=select/cons_tres
SelectTypeParameters=CR_CPU_Memory
SchedulerType=sched/backfill
MpiDefault=none
ReturnToService=2
MinJobAge=600
NodeName=$node NodeAddr=127.0.0.1 CPUs=2 RealMemory=2000 State=UNKNOWN
PartitionName=test Nodes=$node Default=YES MaxTime=INFINITE State=UP
CONF
}
export SLURM_CONF="$scratch/slurm.conf"

# starts slurmctld and slurmd in a mode; true once the node is idle
start_cluster() {  # MODE
  write_conf "$1"
  rm -rf "$scratch/state" "$scratch/spool"; mkdir -p "$scratch/state" "$scratch/spool"
  slurmctld -i -f "$SLURM_CONF" 2>>"$scratch/log/slurmctld.err" || return 1
  slurmd -f "$SLURM_CONF" -N "$node" 2>>"$scratch/log/slurmd.err" || return 1
  for _ in $(seq 100); do
    case "$(sinfo -h -N -o %t 2>/dev/null | head -1)" in idle*|mix*|alloc*) return 0 ;; esac
    sleep 0.2
  done
  return 1
}
memory_mode=
for mode in ${QUORIX_SLURM_MEMORY:-cgroup poller}; do
  if start_cluster "$mode"; then memory_mode=$mode; break; fi
  echo "note: the cluster does not start with memory enforcement by $mode: $(grep -h -E 'fatal|error' "$scratch"/log/slurm*.log 2>/dev/null | tail -1)" >&2
  # stop whatever of this attempt is running, by PID, before the next one
  for pidfile in "$scratch"/run/slurmd.pid "$scratch"/run/slurmctld.pid; do
    [ -s "$pidfile" ] && kill "$(cat "$pidfile")" 2>/dev/null
  done
  for _ in $(seq 50); do
    pgrep -F "$scratch/run/slurmd.pid" >/dev/null 2>&1 || pgrep -F "$scratch/run/slurmctld.pid" >/dev/null 2>&1 || break
    sleep 0.1
  done
  rm -f "$scratch"/run/slurmd.pid "$scratch"/run/slurmctld.pid
done
[ -n "$memory_mode" ] || skip "slurmctld/slurmd do not start here: $(tail -n 3 "$scratch"/log/slurmd.log "$scratch"/log/slurmctld.log 2>/dev/null)"
echo "cluster up: node $node, ports $ctld_port/$slurmd_port, memory enforcement by $memory_mode" >&2

# ---- the cohort: six tiny phantom subjects, an atlas of five slabs, one large subject ----
bids="$scratch/data/bids"
for i in 1 2 3 4 5 6; do
  mkdir -p "$bids/sub-0$i/dwi"
  "$QB" phantom -o "$bids/sub-0$i/dwi/sub-0${i}_dwi" --size 24,24,12 --directions 12 --noise 0.03 \
    --seed $i --format nii --no-truth 2>/dev/null || fail "phantom $i"
done
# the atlas, a NIfTI-1 image of int16 labels built byte by byte (independent of our writer)
python3 - "$scratch/data/atlas.nii.gz" <<'PY'
import gzip, struct, sys
nx, ny, nz = 24, 24, 12
hdr = bytearray(348)
struct.pack_into('<i', hdr, 0, 348)
struct.pack_into('<8h', hdr, 40, 3, nx, ny, nz, 1, 1, 1, 1)
struct.pack_into('<hh', hdr, 70, 4, 16)            # DT_INT16
struct.pack_into('<8f', hdr, 76, 1, 2, 2, 2, 1, 1, 1, 1)
struct.pack_into('<f', hdr, 108, 352.0)
hdr[344:348] = b'n+1\0'
data = bytearray()
for z in range(nz):
    for y in range(ny):
        for x in range(nx):
            label = 1 + x * 3 // nx if z < nz // 2 else 4 + y * 2 // ny
            data += struct.pack('<h', label)
with gzip.open(sys.argv[1], 'wb') as f:
    f.write(bytes(hdr) + b'\0\0\0\0' + bytes(data))
PY
[ -s "$scratch/data/atlas.nii.gz" ] || fail "atlas"
atlas="$scratch/data/atlas.nii.gz"

# waits until a job has left the queue (at most 3 minutes)
wait_job() {
  for _ in $(seq 900); do
    [ -z "$(squeue -h -j "$1" 2>/dev/null)" ] && return 0
    sleep 0.2
  done
  fail "job $1 still in the queue after 3 minutes"
}
job_id() { sed -n 's/^Submitted job array \([0-9]*\):.*/\1/p' "$1"; }
# the outputs that must not depend on how the subjects were run
compare_outputs() {
  for dir in "$1"/quorix/sub-* "$1"/quorix/group; do
    diff -r "$dir" "$2/quorix/$(basename "$dir")" >/dev/null || fail "$dir differs from $2"
  done
  [ "$(ls -d "$1"/quorix/sub-* | wc -l)" = "$(ls -d "$2"/quorix/sub-* | wc -l)" ] || fail "subject counts differ"
}

# serial reference
"$QB" bids "$bids" "$scratch/serial" participant --atlas "$atlas" --threads 1 >/dev/null 2>&1 ||
  fail "serial participant run"
"$QB" bids "$bids" "$scratch/serial" group >/dev/null || fail "serial group run"

# 1. the whole cohort as an array, two tasks at a time
"$QB" bids "$bids" "$scratch/array" participant --atlas "$atlas" --threads 1 --slurm \
  --slurm-array-limit 2 --slurm-mem 400 --slurm-time 10 > "$scratch/submit1.txt" || fail "submission"
id=$(job_id "$scratch/submit1.txt")
[ -n "$id" ] || fail "no job id in: $(cat "$scratch/submit1.txt")"
grep -q "6 subjects" "$scratch/submit1.txt" || fail "the array does not hold six subjects"
grep -q -- "--array=0-5%2" "$scratch/array/quorix/logs/quorix_array.sh" || fail "array limit missing from the script"
wait_job "$id"
"$QB" bids "$bids" "$scratch/array" group >/dev/null || fail "group level after the array"
compare_outputs "$scratch/serial" "$scratch/array"
for i in 1 2 3 4 5 6; do
  grep -q "^0$i	n/a	done" "$scratch/array/quorix/status.tsv" || fail "sub-0$i not done in the array's status"
done
echo "ok: the array's outputs equal the serial run's" >&2

# 2. cancel part of an array, then resubmit: only the missing subjects run
"$QB" bids "$bids" "$scratch/cancel" participant --atlas "$atlas" --threads 1 --slurm \
  --slurm-array-limit 1 --slurm-mem 400 > "$scratch/submit2.txt" || fail "second submission"
id=$(job_id "$scratch/submit2.txt")
scancel "${id}_[3-5]" || fail "scancel"
wait_job "$id"
done_before=$(ls "$scratch"/cancel/quorix/sub-*/sub-*_done.json 2>/dev/null | wc -l)
[ "$done_before" -ge 1 ] && [ "$done_before" -le 5 ] || fail "$done_before subjects done after cancelling part of the array"
"$QB" bids "$bids" "$scratch/cancel" participant --atlas "$atlas" --threads 1 --slurm \
  --slurm-mem 400 > "$scratch/submit3.txt" || fail "resubmission"
grep -q ": $((6 - done_before)) subjects" "$scratch/submit3.txt" ||
  fail "the resubmission should hold $((6 - done_before)) subjects: $(cat "$scratch/submit3.txt")"
wait_job "$(job_id "$scratch/submit3.txt")"
"$QB" bids "$bids" "$scratch/cancel" group >/dev/null || fail "group level after the resubmission"
compare_outputs "$scratch/serial" "$scratch/cancel"
echo "ok: after cancelling, $done_before subjects were kept and $((6 - done_before)) resubmitted" >&2

# 3. too little memory: the subject fails, says why, and leaves no marker
big="$scratch/data/bigbids"
mkdir -p "$big/sub-big/dwi"
"$QB" phantom -o "$big/sub-big/dwi/sub-big_dwi" --size 128,128,60 --directions 30 --format nii --no-truth 2>/dev/null ||
  fail "large phantom"
"$QB" bids "$big" "$scratch/oom" participant --threads 1 --slurm --slurm-mem 40 > "$scratch/submit4.txt" ||
  fail "submission with too little memory"
id=$(job_id "$scratch/submit4.txt")
wait_job "$id"
"$QB" bids "$big" "$scratch/oom" group >/dev/null 2>&1
status_row=$(grep "^big	" "$scratch/oom/quorix/status.tsv")
state=$(scontrol -o show job "$id" 2>/dev/null | sed -n 's/.*JobState=\([A-Z_]*\).*/\1/p' | head -1)
if [ -e "$scratch/oom/quorix/sub-big/sub-big_done.json" ]; then
  fail "memory is not enforced on this machine ($memory_mode): the subject ran to the end within 40 MB (job state $state)"
fi
case "$status_row" in
  *failed*"out of memory"*) ;;
  *) fail "the subject killed for memory is not reported failed for memory: '$status_row' (job state $state)" ;;
esac
echo "ok: too little memory: status '$status_row', Slurm job state $state" >&2
echo "PASS" >&2
