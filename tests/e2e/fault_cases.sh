# Cases that mount REMOTE_ARG through the fault: remote, sourced by
# skarvo_e2e.sh; they use its helpers.
FAULT_CASES=(upload_faults empty_upload_fault hang_list hang_stop cache_kept)

# Milliseconds since an arbitrary start.
now_ms() { echo $(($(date +%s%N) / 1000000)); }

# Waits up to $1 seconds for skarvo to exit; fails when it does not, or when
# it exits with anything but 0.
exits_within() {
  local seconds=$1 status=0
  wait_for $((seconds * 10)) eval '! kill -0 "$PID" 2>/dev/null' || { fail "skarvo still runs ${seconds} s after the stop signal"; return 1; }
  wait "$PID" || status=$?
  PID=
  [ "$status" -eq 0 ] || fail "skarvo exited with $status"
}

# 200 files of random sizes from 1 byte to 8 MiB (most far smaller: the size
# is drawn below a random power of two; empty files are empty_upload_fault's)
# go to a remote that fails 30% of uploads, at once or part-way. With one
# retry each, every file must end up either on the remote or in the recovery
# folder, with the bytes written, and the log must name every file that was
# saved.
case_upload_faults() {
  local src=$WORK/src recovery=$WORK/recovered
  rm -rf "$src" "$recovery"
  mkdir -p "$src"
  RANDOM=7
  head -c $((8 * 1024 * 1024)) /dev/urandom > "$src/f000.bin"
  for i in $(seq -w 1 199); do
    head -c $((1 + (RANDOM << 15 | RANDOM) % (1 << (RANDOM % 24)))) /dev/urandom > "$src/f$i.bin"
  done
  REMOTE_ARG=fault:upload=0.3,seed=7:$REMOTE_ARG
  up --upload-retries 1 --recovery-dir "$recovery"
  mkdir "$MNT/batch"
  cp "$src"/*.bin "$MNT/batch/"
  down
  local uploaded=0 saved=0 name
  for file in "$src"/*.bin; do
    name=$(basename "$file")
    if [ -e "$REMOTE/batch/$name" ]; then
      same_file "$file" "$REMOTE/batch/$name"
      uploaded=$((uploaded + 1))
    else
      [ -e "$recovery/batch/$name" ] || fail "$name is neither on the remote nor saved"
      same_file "$file" "$recovery/batch/$name"
      grep -q "upload of $MNT/batch/$name failed .*saving its data to $recovery/batch/$name\$" \
        "$WORK/skarvo.log" || fail "the log does not say that $name was saved"
      saved=$((saved + 1))
    fi
  done
  echo "   $uploaded uploaded, $saved saved to the recovery folder"
  [ "$saved" -gt 0 ] || fail "no upload failed twice: the faults did not take"
  grep -q "injected fault: upload of /batch/f[0-9]*.bin failed after" "$WORK/skarvo.log" || fail "no upload failed part-way"
  no_leftovers
}

# Mounts REMOTE_ARG with hang=list, while $WORK/hang-on exists, beside a
# plain local remote that holds fast/f.txt, with a time-out of 2 s.
up_beside_hanging() {
  mkdir -p "$REMOTE/slow" "$WORK/plain/fast"
  echo fast > "$WORK/plain/fast/f.txt"
  local hanging=fault:hang=list,switch=$WORK/hang-on:$REMOTE_ARG
  REMOTE_ARG=local:$WORK/plain
  up --timeout 2 "$hanging"
}

# hang=list on the first remote, beside a plain one, once the volume's root
# is listed: while a lookup waits for the hanging remote to list a folder,
# the plain remote's file and folder answer throughout; a listing of that
# folder fails after --timeout; and SIGTERM stops skarvo while another
# listing hangs.
case_hang_list() {
  rm -f "$WORK/hang-on"
  up_beside_hanging
  ls "$MNT" "$MNT/fast" > /dev/null
  touch "$WORK/hang-on"
  stat "$MNT/slow/never-listed" > /dev/null 2>&1 &
  local looker=$!
  sleep 0.3
  for _ in $(seq 1 6); do
    [ "$(timeout 1 cat "$MNT/fast/f.txt")" = fast ] || fail "the plain remote's file does not read"
    timeout 1 ls "$MNT/fast" | grep -qx f.txt || fail "the plain remote's folder does not list"
    sleep 0.2
  done
  wait "$looker" && fail "the lookup in the hanging remote succeeded"
  local start status=0
  start=$(now_ms)
  ls "$MNT/slow" > /dev/null 2> "$WORK/ls.err" || status=$?
  local took=$(($(now_ms) - start))
  [ "$status" -ne 0 ] || fail "the listing of the hanging remote succeeded"
  grep -q "timed out" "$WORK/ls.err" || fail "ls: $(cat "$WORK/ls.err")"
  [ "$took" -ge 1900 ] && [ "$took" -le 6000 ] || fail "the hung listing ended after $took ms"
  ls "$MNT/slow" > /dev/null 2>&1 &
  sleep 0.5
  kill -TERM "$PID"
  exits_within 10
}

# A time-out far longer than the test: only the stop can end the hung
# listing, and skarvo must still stop within a few seconds.
case_hang_stop() {
  REMOTE_ARG=fault:hang=list:$REMOTE_ARG
  up --timeout 600
  ls "$MNT" > /dev/null 2>&1 &
  local lister=$!
  sleep 1
  kill -0 "$lister" 2>/dev/null || fail "the listing did not hang"
  kill -TERM "$PID"
  exits_within 5
  wait "$lister" && fail "the hung listing succeeded"
  true
}

# An empty file is uploaded at once when its last writer closes it; when
# that upload fails, the file must still end up on the remote or saved.
case_empty_upload_fault() {
  REMOTE_ARG=fault:upload=1:$REMOTE_ARG
  up --on-upload-failure save --recovery-dir "$WORK/recovered"
  : > "$MNT/empty.txt"
  down
  [ -e "$REMOTE/empty.txt" ] || [ -e "$WORK/recovered/empty.txt" ] || fail "the empty file was lost"
}

# What the cache held at an unmount, written or read, is read from it after
# the next mount without a download (every download fails there), as long
# as the remote keeps that version; a file changed while unmounted is
# downloaded afresh.
case_cache_kept() {
  local plain=$REMOTE_ARG
  head -c 3000000 /dev/urandom > "$WORK/written"
  echo "remote data" > "$REMOTE/fetched.txt"
  up
  cp "$WORK/written" "$MNT/written"
  [ "$(cat "$MNT/fetched.txt")" = "remote data" ]
  down
  REMOTE_ARG=fault:download=1:$plain
  up
  same_file "$WORK/written" "$MNT/written"
  [ "$(cat "$MNT/fetched.txt")" = "remote data" ] || fail "fetched.txt was not read from the cache"
  down
  echo "changed remotely" > "$REMOTE/fetched.txt"
  up
  ! cat "$MNT/fetched.txt" > /dev/null 2>&1 || fail "a file changed remotely was read from the cache"
  down
  REMOTE_ARG=$plain
  up
  [ "$(cat "$MNT/fetched.txt")" = "changed remotely" ] || fail "the remote change was not read"
  down
}
