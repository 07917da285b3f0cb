# Cases that kill skarvo with SIGKILL, as the OOM killer would, and mount
# again from the same cache; and `skarvo status`. Sourced by skarvo_e2e.sh;
# they use its helpers, and each runs in a subshell of its own, so that what
# it sets (REMOTE_ARG through the fault: remote) ends with it.
CRASH_CASES=(crash_pending crash_after_fsync crash_after_close status)
# Known to differ on WebDAV: a forced stop there still waits for a PUT that
# is already sending, so --now does not leave it unsent.
[ "${E2E_REMOTE:-local}" = local ] && CRASH_CASES+=(unmount_waits)

# Kills skarvo at once, unless it is dead already, and lets go of its dead
# mount.
crash() {
  kill -KILL "$PID" 2>/dev/null || true
  wait "$PID" 2>/dev/null || true
  PID=
  umount -l "$MNT" 2>/dev/null || true
}

# Waits up to $2 seconds until `skarvo status` prints a line matching $1.
status_shows() {
  local pattern=$1
  wait_for $(($2 * 10)) eval '"$SKARVO" status "$MNT" 2>&1 | grep -q "$pattern"' ||
    fail "skarvo status never showed '$1': $("$SKARVO" status "$MNT" 2>&1)"
}

# Checks `skarvo status --json` with a Python expression over its document d.
status_json() {
  "$SKARVO" status --json "$MNT" | python3 -c "import json, sys; d = json.load(sys.stdin); sys.exit(0 if ($1) else 1)" ||
    fail "skarvo status --json is not as expected ($1): $("$SKARVO" status --json "$MNT")"
}

# SIGKILL while 50 MiB and more wait to upload, slowly: nothing stored under
# a real name is partial, and the next mount uploads every byte, except
# the file that someone else changed on the remote meanwhile, which goes to
# the recovery folder.
case_crash_pending() {
  head -c $((50 << 20)) /dev/urandom > "$WORK/big.bin"
  head -c $((3 << 20)) /dev/urandom > "$REMOTE/edited.bin"
  cp "$REMOTE/edited.bin" "$WORK/edited.old"
  head -c $((3 << 20)) /dev/urandom > "$WORK/edited.new"
  head -c $((8 << 20)) /dev/urandom > "$WORK/mine.bin"
  echo base > "$REMOTE/theirs.txt"
  touch "$WORK/slow"
  REMOTE_ARG=fault:rate=1m,switch=$WORK/slow:$REMOTE_ARG
  up
  mkdir "$MNT/Dir"
  cp "$WORK/big.bin" "$MNT/Dir/Big.bin"
  cp "$WORK/edited.new" "$MNT/edited.bin"
  cp "$WORK/mine.bin" "$MNT/theirs.txt"
  status_shows "^uploading  $MNT/Dir/Big.bin" 20
  crash
  [ ! -e "$REMOTE/Dir/Big.bin" ] || fail "a partial Big.bin is on the remote"
  cmp -s "$REMOTE/edited.bin" "$WORK/edited.old" || cmp -s "$REMOTE/edited.bin" "$WORK/edited.new" ||
    fail "edited.bin on the remote is neither the old nor the new version"
  echo "someone else's" > "$REMOTE/theirs.txt"
  rm "$WORK/slow"
  up
  grep -q "recovered [0-9]* files that were not uploaded when skarvo last stopped" "$WORK/skarvo.log" ||
    fail "no line says what was recovered"
  same_file "$WORK/big.bin" "$REMOTE/Dir/Big.bin"
  same_file "$WORK/edited.new" "$REMOTE/edited.bin"
  same_file "$WORK/big.bin" "$MNT/Dir/Big.bin"
  [ "$(cat "$REMOTE/theirs.txt")" = "someone else's" ] || fail "the other change was overwritten"
  same_file "$WORK/mine.bin" "$CACHE/recovered/theirs.txt"
  grep -q "recovered $MNT/theirs.txt: the remote file changed .*saved to $CACHE/recovered/theirs.txt" \
    "$WORK/skarvo.log" || fail "the log does not say where theirs.txt went"
  status_json "d['uploads'] == [] and d['recoveryFiles'] == ['$CACHE/recovered/theirs.txt']"
  down
  no_leftovers
}

# SIGKILL right after fsync returned, the file still open: its data is
# recovered, though it was never closed.
case_crash_after_fsync() {
  cat > "$WORK/fsync_writer.py" <<'EOF'
import os, sys, time
data = os.urandom(3 << 20)
with open(sys.argv[2], "wb") as copy:
    copy.write(data)
fd = os.open(sys.argv[1], os.O_WRONLY | os.O_CREAT, 0o644)
view = memoryview(data)
while view:
    view = view[os.write(fd, view):]
os.fsync(fd)
print("synced", flush=True)
time.sleep(120)
EOF
  up
  python3 "$WORK/fsync_writer.py" "$MNT/synced.bin" "$WORK/synced.bin" > "$WORK/writer.out" 2>&1 &
  local writer=$!
  wait_for 100 grep -q synced "$WORK/writer.out" || fail "the writer did not get through fsync"
  crash
  kill "$writer" 2>/dev/null
  wait "$writer" 2>/dev/null || true
  up
  same_file "$WORK/synced.bin" "$REMOTE/synced.bin"
  down
}

# SIGKILL right after close(2) returned for 400 small files: the kernel
# does not wait for the releases, so the last of them are not yet served.
# Every file reaches the remote with what was written, and none goes to the
# recovery folder, not even one whose upload ended just before the crash
# could note it.
case_crash_after_close() {
  cat > "$WORK/close_writer.py" <<'EOF'
import os, signal, sys
folder, pid = sys.argv[1], int(sys.argv[2])
os.mkdir(folder)
for i in range(400):
    with open(os.path.join(folder, "f%03d" % i), "wb") as out:
        out.write(b"%03d." % i * 1024)
os.kill(pid, signal.SIGKILL)
EOF
  up
  python3 "$WORK/close_writer.py" "$MNT/closed" "$PID" || fail "the writer failed"
  crash
  up
  status_shows "^everything" 60
  python3 - "$REMOTE/closed" <<'EOF' || fail "files closed before the crash are not on the remote"
import os, sys
lost = []
for i in range(400):
    path, want = os.path.join(sys.argv[1], "f%03d" % i), b"%03d." % i * 1024
    if not (os.path.exists(path) and open(path, "rb").read() == want):
        lost.append(os.path.basename(path))
if lost:
    sys.exit("not on the remote: " + " ".join(lost))
EOF
  [ ! -e "$CACHE/recovered/closed" ] || fail "went to the recovery folder: $(ls "$CACHE/recovered/closed")"
  down
  no_leftovers
}

# skarvo status while uploads fail, once they stop failing, and after a crash.
case_status() {
  touch "$WORK/failing"
  REMOTE_ARG=fault:upload=1:SOCK_CONNECTION_REFUSED,switch=$WORK/failing:$REMOTE_ARG
  up --upload-retries 100
  status_shows "^everything is on the remote$" 5
  head -c $((1 << 20)) /dev/urandom > "$WORK/report.bin"
  cp "$WORK/report.bin" "$MNT/report.bin"
  status_shows "^failing  $MNT/report.bin  1.0 MiB, [0-9]* failed attempts, last: SOCK_CONNECTION_REFUSED" 10
  status_json "d['allOnRemote'] is False and d['uploads'][0]['file'] == '$MNT/report.bin' and d['uploads'][0]['state'] == 'failing' and d['uploads'][0]['attempts'] >= 1 and d['uploads'][0]['lastError'] == 'SOCK_CONNECTION_REFUSED'"
  "$SKARVO" status "$MNT" | grep -qx "1 files written to $MNT are not on the remote yet" ||
    fail "the last line does not say what is missing"
  rm "$WORK/failing"
  status_shows "^everything is on the remote$" 30
  status_json "d['allOnRemote'] is True and d['uploads'] == [] and d['recoveryFiles'] == []"
  same_file "$WORK/report.bin" "$REMOTE/report.bin"
  # Failing again, then a crash: after the restart the file is still
  # reported as not on the remote, now from the recovery folder.
  touch "$WORK/failing"
  cp "$WORK/report.bin" "$MNT/second.bin"
  status_shows "^failing  $MNT/second.bin" 10
  crash
  up
  status_json "d['allOnRemote'] is False and d['recoveryFiles'] == ['$CACHE/recovered/second.bin']"
  same_file "$WORK/report.bin" "$CACHE/recovered/second.bin"
  down
  "$SKARVO" status "$MNT" 2>&1 | grep -q "nothing of skarvo's is mounted at $MNT" ||
    fail "status of an unmounted folder does not say so"
}

# skarvo unmount waits for slow uploads and says how many are left; with
# --now it stops at once, and the next mount uploads what was left.
case_unmount_waits() {
  head -c $((3 << 20)) /dev/urandom > "$WORK/a.bin"
  head -c $((8 << 20)) /dev/urandom > "$WORK/b.bin"
  touch "$WORK/slow"
  REMOTE_ARG=fault:rate=1m,switch=$WORK/slow:$REMOTE_ARG
  up
  cp "$WORK/a.bin" "$MNT/a.bin"
  # The kernel releases the file just after cp returns; its upload is
  # counted from then on.
  status_shows a.bin 10
  "$SKARVO" unmount "$MNT" 2> "$WORK/unmount.txt" || fail "skarvo unmount: $(cat "$WORK/unmount.txt")"
  grep -q "waiting for 1 files (3.0 MiB) to reach the remote" "$WORK/unmount.txt" ||
    fail "no progress: $(cat "$WORK/unmount.txt")"
  wait "$PID" || fail "skarvo exited with $?"
  PID=
  same_file "$WORK/a.bin" "$REMOTE/a.bin"
  up
  cp "$WORK/b.bin" "$MNT/b.bin"
  status_shows b.bin 10
  "$SKARVO" unmount --now "$MNT" 2> "$WORK/unmount.txt" || fail "skarvo unmount --now: $(cat "$WORK/unmount.txt")"
  grep -q "1 files (8.0 MiB) not uploaded stay in the cache" "$WORK/unmount.txt" ||
    fail "--now does not say what stays: $(cat "$WORK/unmount.txt")"
  wait "$PID" || true
  PID=
  [ ! -e "$REMOTE/b.bin" ] || fail "b.bin reached the remote before the stop"
  rm "$WORK/slow"
  up
  same_file "$WORK/b.bin" "$REMOTE/b.bin"
  down
  no_leftovers
}
