#!/usr/bin/env bash
# Runs difftest through `skarvo mount local:REMOTE MNT`, then checks that the
# volume, the remote folder after a clean stop, and the volume mounted again
# from the same cache all hold what the reference folder holds.
# Usage: difftest.sh SKARVO DIFFTEST [--seeds "1 2"] [--ops N] [--sync]
#                    [--replay "FILE..."] [--stress WORKERS --seconds S]
#                    [--save-dir DIR] [--avoid LIST] [--faults LIST]
# --sync mounts with --no-async-upload; --avoid is handed to difftest;
# --faults mounts fault:LIST:local:REMOTE while the tester runs (uploads are
# retried without end); the faults are switched off before the checks, which
# start once skarvo status says that everything is on the remote;
# --save-dir keeps each shrunk failing sequence there; DIFFTEST_SHRINK_SECONDS
# bounds the shrinking of each failure (default 120). A stress run whose
# volume stops answering prints where skarvo's threads wait (through gdb,
# when it is installed), so that a hang seen once can be read. Needs root and
# /dev/fuse; exits 77 (skipped) without them.
set -u

SKARVO=$(realpath "$1")
DIFFTEST=$(realpath "$2")
shift 2
SEEDS="1 2" OPS=2000 SYNC=() AVOID=() MODE=seeds REPLAY="" WORKERS=0 SECONDS_=20 SAVE_DIR=""
FAULTS=""
while [ $# -gt 0 ]; do
  case "$1" in
    --seeds) SEEDS=$2; shift 2 ;;
    --ops) OPS=$2; shift 2 ;;
    --sync) SYNC=(--no-async-upload); shift ;;
    --replay) MODE=replay REPLAY=$2; shift 2 ;;
    --stress) MODE=stress WORKERS=$2; shift 2 ;;
    --seconds) SECONDS_=$2; shift 2 ;;
    --save-dir) SAVE_DIR=$(realpath "$2"); shift 2 ;;
    --avoid) AVOID=(--avoid "$2"); shift 2 ;;
    --faults) FAULTS=$2; shift 2 ;;
    *) echo "difftest.sh: unknown argument $1" >&2; exit 2 ;;
  esac
done

if [ "$(id -u)" -ne 0 ] || ! [ -c /dev/fuse ]; then
  echo "skipped: difftest through skarvo needs root and /dev/fuse"
  exit 77
fi

WORK=$(mktemp -d /tmp/difftest-XXXXXX)
# A small tmpfs bounds what a faulty volume could write.
mount -t tmpfs -o size="${DIFFTEST_TMPFS_SIZE:-3g}" difftest "$WORK" || exit 1
REMOTE=$WORK/remote MNT=$WORK/mnt CACHE=$WORK/cache REF=$WORK/reference
SWITCH=$WORK/faults-on
PID=
failures=0

cleanup() {
  # DIFFTEST_KEEP_LOG=FILE keeps skarvo's log for a look at a failure.
  [ -n "${DIFFTEST_KEEP_LOG:-}" ] && cp "$WORK/skarvo.log" "$DIFFTEST_KEEP_LOG" 2>/dev/null
  [ -n "$PID" ] && kill -KILL "$PID" 2>/dev/null
  grep -q " $MNT " /proc/mounts && umount -l "$MNT"
  umount -l "$WORK" 2>/dev/null
  rm -rf "$WORK"
}
trap cleanup EXIT

fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# Mounts REMOTE at MNT, through the faults when there are any; waits until
# the volume serves.
up() {
  mkdir -p "$REMOTE" "$MNT"
  local remote=local:$REMOTE options=()
  if [ -n "$FAULTS" ]; then
    remote=fault:$FAULTS,switch=$SWITCH:$remote
    options=(--upload-retries 100)
  fi
  "$SKARVO" mount --cache-dir "$CACHE" --log-file "$WORK/skarvo.log" \
    --log-level "${DIFFTEST_LOG_LEVEL:-warning}" "${SYNC[@]}" "${options[@]}" \
    "$remote" "$MNT" >>"$WORK/skarvo.out" 2>&1 &
  PID=$!
  for _ in $(seq 1 100); do
    grep -q " $MNT fuse.skfs " /proc/mounts && return 0
    kill -0 "$PID" 2>/dev/null || { fail "skarvo exited at start"; PID=; return 1; }
    sleep 0.1
  done
  fail "the volume did not come up"
  return 1
}

# Stops skarvo with Ctrl-C; it must exit 0 once its uploads end.
down() {
  kill -INT "$PID"
  for _ in $(seq 1 1200); do kill -0 "$PID" 2>/dev/null || break; sleep 0.1; done
  if kill -0 "$PID" 2>/dev/null; then
    fail "skarvo did not stop within 120 s of SIGINT"
    kill -KILL "$PID"
  fi
  local status=0
  wait "$PID" || status=$?
  PID=
  if [ "$status" -ne 0 ]; then
    fail "skarvo exited with $status"
    tail -${DIFFTEST_OUT_LINES:-40} "$WORK/skarvo.out"
  fi
  grep -q " $MNT " /proc/mounts && { fail "the volume is still mounted"; umount -l "$MNT"; }
  return 0
}

# Compares two trees (the first may be the volume, the second is checked for
# marker files); prints the start of the differences.
same_trees() {
  local what=$1 out
  out=$("$DIFFTEST" --compare "$2" "$3") || { fail "$what"; echo "$out" | head -20; }
}

fresh() {
  rm -rf "$REMOTE" "$CACHE" "$REF" "$MNT"
  mkdir -p "$REMOTE" "$REF"
}

# Switches the faults off and waits until every upload has reached the
# remote: a stop while an upload waits for its next try would save its data
# to the recovery folder instead.
faults_off() {
  [ -n "$FAULTS" ] || return 0
  rm -f "$SWITCH"
  for _ in $(seq 1 1200); do
    "$SKARVO" status "$MNT" | grep -qx "everything is on the remote" && return 0
    sleep 0.1
  done
  fail "uploads still wait 120 s after the faults ended: $("$SKARVO" status "$MNT")"
}

# After the tester: the volume, the remote once stopped, the volume again.
check_after() {
  same_trees "$1: the volume differs from the reference" "$MNT" "$REF"
  faults_off
  down
  same_trees "$1: the remote folder differs from the reference" "$REF" "$REMOTE"
  up || return
  same_trees "$1: the volume mounted again differs from the reference" "$MNT" "$REF"
  down
}

tester() {
  local what=$1
  shift
  echo "== $what (${SYNC[*]:-async uploads})"
  "$DIFFTEST" --volume "$MNT" --reference "$REF" --shrink-seconds "${DIFFTEST_SHRINK_SECONDS:-120}" \
    "$@" || fail "$what: the tester found differences"
}

run_seed() {
  fresh
  [ -n "$FAULTS" ] && touch "$SWITCH"
  up || return
  local save=()
  [ -n "$SAVE_DIR" ] && save=(--save "$SAVE_DIR/seed-$1${SYNC[*]:+-sync}.seq")
  tester "seed $1" --seed "$1" --ops "$OPS" "${AVOID[@]}" "${save[@]}"
  check_after "seed $1"
}

# Each sequence on a mount of its own, so that one that stops skarvo cannot
# hide what the others do.
run_replays() {
  for file in $REPLAY; do
    fresh
    up || continue
    tester "replay of $(basename "$file")" --replay "$file"
    check_after "$(basename "$file")"
  done
}

# Prints where every thread of a hung skarvo waits, then kills it.
hung_stacks() {
  if command -v gdb >/dev/null; then
    timeout 60 gdb -p "$PID" -batch -ex "thread apply all bt" 2>/dev/null |
      grep -E '^(Thread|#)' | head -${DIFFTEST_STACK_LINES:-400}
  fi
  kill -KILL "$PID"
  PID=
}

run_stress() {
  fresh
  up || return
  mkdir -p "$MNT/shared"
  tester "stress, $WORKERS workers, $SECONDS_ s" --stress "$WORKERS" --seconds "$SECONDS_" \
    --shared "$MNT/shared" --seed "${SEEDS%% *}" "${AVOID[@]}"
  # The volume's last state, without the marker files, against the remote.
  timeout -s KILL 120 cp -a "$MNT" "$WORK/snapshot"
  case $? in
    0) ;;
    137) fail "stress: the volume does not answer"; hung_stacks; return ;;
    *) fail "stress: the volume cannot be copied" ;;
  esac
  find "$WORK/snapshot" -name '.ql_disable*' -delete
  down
  same_trees "stress: the remote folder differs from the volume's last state" \
    "$WORK/snapshot" "$REMOTE"
}

case $MODE in
  stress) run_stress ;;
  replay) run_replays ;;
  *) for seed in $SEEDS; do run_seed "$seed"; done ;;
esac
[ "$failures" -eq 0 ] || { tail -5 "$WORK/skarvo.log"; echo "difftest.sh: $failures failures"; exit 1; }
echo "difftest.sh: no difference"
