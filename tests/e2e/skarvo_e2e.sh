#!/usr/bin/env bash
# End-to-end checks of `skarvo mount REMOTE MNT` with the ordinary tools.
# Usage: skarvo_e2e.sh PATH_TO_SKARVO [CASE...]
# E2E_REMOTE=local (default) mounts local:DIR; E2E_REMOTE=webdav mounts a
# share of a private Apache server (tests/webdav/apache_fixture.sh) whose
# folder on disk stands in as DIR, and adds the cases of webdav_cases.sh.
# Both run the cases of fault_cases.sh, through the fault: remote; local
# runs those of cli_cases.sh (background mode, mount -t, named remotes...).
# Needs root and /dev/fuse; exits 77 (skipped) without them.
set -u

SKARVO=$(realpath "$1")
shift
ONLY=("$@")

if [ "$(id -u)" -ne 0 ] || ! [ -c /dev/fuse ]; then
  echo "skipped: the end-to-end checks need root and /dev/fuse"
  exit 77
fi
for tool in git rsync sqlite3 tar sha256sum; do
  command -v "$tool" >/dev/null || { echo "skipped: $tool is missing"; exit 77; }
done

HERE=$(dirname "$(realpath "$0")")
WORK=$(mktemp -d /tmp/skarvo-e2e-XXXXXX)
REMOTE=$WORK/remote
MNT=$WORK/mnt
CACHE=$WORK/cache
PID=
passed=0
failed=0
CASES=(copies edits git tar rsync sqlite cache_limit huge_length full_cache fsync remote_changes realtime)

cleanup() {
  [ -n "$PID" ] && kill -TERM "$PID" 2>/dev/null && sleep 1
  grep -q " $MNT " /proc/mounts && umount -l "$MNT"
  grep -q " $CACHE " /proc/mounts && umount -l "$CACHE"
  [ "$(type -t dav_stop)" = function ] && dav_stop
  # A case that restarted the server did so in its own subshell, whose
  # process number the line above does not know.
  pkill -f "apache2 -f $WORK/apache/httpd.conf" 2>/dev/null
  [ -n "${KEEP:-}" ] || rm -rf "$WORK"
}
trap cleanup EXIT

case "${E2E_REMOTE:-local}" in
  local)
    REMOTE_ARG=local:$REMOTE
    # shellcheck source=cli_cases.sh
    . "$HERE/cli_cases.sh"
    CASES+=("${CLI_CASES[@]}")
    ;;
  webdav)
    for tool in apache2 openssl curl htpasswd; do
      command -v "$tool" >/dev/null || [ -x "/usr/sbin/$tool" ] || { echo "skipped: $tool is missing"; exit 77; }
    done
    # shellcheck source=../webdav/apache_fixture.sh
    . "$HERE/../webdav/apache_fixture.sh"
    # shellcheck source=webdav_cases.sh
    . "$HERE/webdav_cases.sh"
    DAV_ROOT=$WORK/dav
    dav_start "$WORK/apache" || exit 1
    REMOTE=$DAV_ROOT/dav
    # The server owns what it stores; git run as root checks the share's copy.
    export GIT_CONFIG_COUNT=1 GIT_CONFIG_KEY_0=safe.directory GIT_CONFIG_VALUE_0='*'
    REMOTE_ARG=webdav://127.0.0.1:$DAV_PORT/dav
    CASES=(copies edits git tar rsync remote_changes "${WEBDAV_CASES[@]}")
    ;;
  *) echo "unknown E2E_REMOTE '$E2E_REMOTE'"; exit 2 ;;
esac
# shellcheck source=fault_cases.sh
. "$HERE/fault_cases.sh"
CASES+=("${FAULT_CASES[@]}")
# shellcheck source=crash_cases.sh
. "$HERE/crash_cases.sh"
CASES+=("${CRASH_CASES[@]}")

fail() { echo "FAIL: $*"; return 1; }

# Waits up to $1 tenths of a second for the command that follows to succeed.
wait_for() {
  local tenths=$1
  shift
  for _ in $(seq 1 "$tenths"); do
    "$@" && return 0
    sleep 0.1
  done
  return 1
}

mounted() { grep -q " $MNT fuse.skfs " /proc/mounts; }
# The volume serves, or skarvo ($PID) has exited.
mounted_or_gone() { mounted || ! kill -0 "$PID" 2>/dev/null; }

# Mounts REMOTE at MNT with extra options; waits until the volume serves.
up() {
  mkdir -p "$REMOTE" "$MNT"
  "$SKARVO" mount --cache-dir "$CACHE" --log-file "$WORK/skarvo.log" --log-level "${E2E_LOG_LEVEL:-info}" \
    "$@" "$REMOTE_ARG" "$MNT" &
  PID=$!
  wait_for 100 mounted_or_gone || { fail "the volume did not come up"; return 1; }
  mounted || fail "skarvo exited at start"
}

# Stops skarvo as a user would (Ctrl-C) and checks it exits 0 once uploads end.
down() {
  kill -INT "$PID"
  local status=0
  wait "$PID" || status=$?
  PID=
  [ "$status" -eq 0 ] || fail "skarvo exited with $status"
  ! grep -q " $MNT " /proc/mounts || fail "the volume is still mounted"
}

# What the remote folder must never hold.
no_leftovers() {
  local found
  found=$(find "$REMOTE" \( -name '.ql_disable*' -o -name '.skarvo-upload-*' -o -name '*.skarvo-part' -o -name '.davfs.tmp*' \) | head -5)
  [ -z "$found" ] || fail "left in the remote: $found"
}

same_file() { [ "$(sha256sum < "$1")" = "$(sha256sum < "$2")" ] || fail "$1 and $2 differ"; }

run_case() {
  local name=$1
  if [ "${#ONLY[@]}" -gt 0 ] && [[ ! " ${ONLY[*]} " =~ " $name " ]]; then return; fi
  grep -q " $CACHE " /proc/mounts && umount -l "$CACHE"
  rm -rf "$REMOTE" "$CACHE"
  mkdir -p "$REMOTE"
  echo "== $name"
  # A statement of its own: set -e is ignored in conditions and lists.
  ( set -eE
    trap 'echo "FAIL: line $LINENO: $BASH_COMMAND"' ERR
    "case_$name" )
  local status=$?
  if [ "$status" -eq 0 ]; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    [ -n "$PID" ] && kill -TERM "$PID" 2>/dev/null
    grep -q " $MNT " /proc/mounts && umount -l "$MNT"
    grep -q " $CACHE " /proc/mounts && umount -l "$CACHE"
    tail -20 "$WORK/skarvo.log" 2>/dev/null
  fi
  PID=
}

case_copies() {
  head -c 0 /dev/urandom > "$WORK/empty.bin"
  head -c 1 /dev/urandom > "$WORK/one.bin"
  head -c $((1024 * 1024 + 1)) /dev/urandom > "$WORK/mib.bin"
  head -c $((64 * 1024 * 1024)) /dev/urandom > "$WORK/big.bin"
  up
  cp "$WORK"/{empty,one,mib,big}.bin "$MNT/"
  down
  for f in empty one mib big; do same_file "$WORK/$f.bin" "$REMOTE/$f.bin"; done
  # Read back through a fresh mount with an empty cache.
  rm -rf "$CACHE"
  up
  for f in empty one mib big; do same_file "$WORK/$f.bin" "$MNT/$f.bin"; done
  down
  no_leftovers
}

case_edits() {
  printf '0123456789' > "$REMOTE/middle.txt"
  printf 'ABCDEFGHIJ' > "$REMOTE/regrown.txt"
  up
  # Made shorter, then longer again: the new bytes are zeros, never the
  # remote's old ones.
  truncate -s 4 "$MNT/regrown.txt"
  truncate -s 8 "$MNT/regrown.txt"
  [ "$(od -An -c "$MNT/regrown.txt")" = "$(printf 'ABCD\0\0\0\0' | od -An -c)" ] \
    || fail "regrown.txt reads $(od -An -c "$MNT/regrown.txt")"
  echo first > "$MNT/f.txt"
  echo second >> "$MNT/f.txt"
  truncate -s 3 "$MNT/f.txt"
  truncate -s 5 "$MNT/f.txt"
  printf XY | dd of="$MNT/middle.txt" bs=1 seek=4 conv=notrunc status=none
  mkdir -p "$MNT/a/b/c"
  echo deep > "$MNT/a/b/c/deep.txt"
  echo moving > "$MNT/m.txt"
  mv "$MNT/m.txt" "$MNT/m2.txt"
  mv "$MNT/m2.txt" "$MNT/a/m3.txt"
  mkdir "$MNT/folder" && echo in > "$MNT/folder/in.txt"
  mv "$MNT/folder" "$MNT/a/b/folder"
  echo case > "$MNT/case.txt"
  mv "$MNT/case.txt" "$MNT/CASE.TXT"
  echo gone > "$MNT/gone.txt" && rm "$MNT/gone.txt"
  mkdir -p "$MNT/tree/x" && echo t > "$MNT/tree/x/t.txt" && rm -r "$MNT/tree"
  mkdir "$MNT/empty" && rmdir "$MNT/empty"
  mkdir "$MNT/full" && echo keep > "$MNT/full/keep.txt"
  if rmdir "$MNT/full" 2>/dev/null; then fail "rmdir removed a folder holding a file"; fi
  # Save by rename, as editors and rsync do.
  echo "old" > "$MNT/doc.txt"
  echo "new" > "$MNT/.doc.txt.tmp" && mv "$MNT/.doc.txt.tmp" "$MNT/doc.txt"
  down
  [ "$(cat "$REMOTE/f.txt" | od -An -c | tr -s ' ')" = "$(printf 'fir\0\0' | od -An -c | tr -s ' ')" ] \
    || fail "f.txt holds $(od -An -c "$REMOTE/f.txt")"
  [ "$(cat "$REMOTE/middle.txt")" = "0123XY6789" ] || fail "middle.txt"
  [ "$(od -An -c "$REMOTE/regrown.txt")" = "$(printf 'ABCD\0\0\0\0' | od -An -c)" ] || fail "regrown.txt"
  [ "$(cat "$REMOTE/a/b/c/deep.txt")" = "deep" ] || fail "deep.txt"
  [ "$(cat "$REMOTE/a/m3.txt")" = "moving" ] || fail "moved file"
  [ "$(cat "$REMOTE/a/b/folder/in.txt")" = "in" ] || fail "moved folder"
  [ -f "$REMOTE/CASE.TXT" ] && [ ! -e "$REMOTE/case.txt" ] || fail "case-only rename"
  [ ! -e "$REMOTE/gone.txt" ] && [ ! -e "$REMOTE/tree" ] && [ ! -e "$REMOTE/empty" ] || fail "deletes"
  [ "$(cat "$REMOTE/full/keep.txt")" = "keep" ] || fail "rmdir deleted a file"
  [ "$(cat "$REMOTE/doc.txt")" = "new" ] || fail "save by rename"
  [ "$(find "$REMOTE" -name 'doc*' -o -name '.doc*' | wc -l)" -eq 1 ] || fail "save by rename left files"
  [ ! -e "$REMOTE/m.txt" ] && [ ! -e "$REMOTE/m2.txt" ] && [ ! -e "$REMOTE/folder" ] || fail "renames left files"
  no_leftovers
}

case_git() {
  local repo=$WORK/repo
  rm -rf "$repo" && mkdir -p "$repo"
  for d in $(seq 1 20); do
    mkdir -p "$repo/dir$d"
    for f in $(seq 1 15); do echo "line $d $f" > "$repo/dir$d/file$f.txt"; done
  done
  git -C "$repo" init -q && git -C "$repo" add -A &&
    git -C "$repo" -c user.email=e2e@example.com -c user.name=e2e commit -qm initial
  up
  git clone -q "$repo" "$MNT/clone"
  # Every folder of the volume shows two empty marker files that exist only
  # there; git is told to ignore them, as the README advises.
  echo '.ql_disable*' >> "$MNT/clone/.git/info/exclude"
  [ -z "$(git -C "$MNT/clone" status --porcelain)" ] ||
    fail "git status is not clean: $(git -C "$MNT/clone" status --porcelain | head -3)"
  down
  diff -r --exclude=.git "$repo" "$REMOTE/clone" || fail "the clone differs"
  [ -z "$(git -C "$REMOTE/clone" status --porcelain)" ] || fail "git status on the remote"
  no_leftovers
}

# A tree of a thousand files extracted into the volume, archived again from
# it, and compared both ways.
case_tar() {
  local src=$WORK/src
  rm -rf "$src" && mkdir -p "$src"
  for d in $(seq 1 25); do
    mkdir -p "$src/pkg$d/sub"
    for f in $(seq 1 40); do
      head -c $(( (d * 37 + f * 101) % 9000 )) /dev/urandom > "$src/pkg$d/sub/f$f.c"
    done
  done
  tar -C "$WORK" -cf "$WORK/src.tar" src
  up
  tar -C "$MNT" -xf "$WORK/src.tar"
  tar -C "$MNT" -cf "$WORK/back.tar" src
  rm -rf "$WORK/back" && mkdir -p "$WORK/back" && tar -C "$WORK/back" -xf "$WORK/back.tar"
  diff -r --exclude='.ql_disable*' "$src" "$WORK/back/src" || fail "tar c from the volume differs"
  down
  diff -r "$src" "$REMOTE/src" || fail "the remote differs"
  no_leftovers
}

case_rsync() {
  local src=$WORK/rsrc
  rm -rf "$src" "$WORK/rback" && mkdir -p "$src/nested"
  for f in $(seq 1 200); do head -c $((f * 50)) /dev/urandom > "$src/nested/r$f.dat"; done
  up
  rsync -a "$src/" "$MNT/rsync/"
  rsync -a "$MNT/rsync/" "$WORK/rback/"
  diff -r --exclude='.ql_disable*' "$src" "$WORK/rback" || fail "rsync out differs"
  # A second run over the same tree changes nothing and loses nothing.
  rsync -a "$src/" "$MNT/rsync/"
  down
  diff -r "$src" "$REMOTE/rsync" || fail "rsync in differs"
  no_leftovers
}

case_sqlite() {
  up
  {
    echo "CREATE TABLE t (id INTEGER PRIMARY KEY, name TEXT, value REAL);"
    for batch in $(seq 0 9); do
      echo "BEGIN;"
      for i in $(seq 1 1000); do echo "INSERT INTO t (name, value) VALUES ('row$((batch * 1000 + i))', $i.5);"; done
      echo "COMMIT;"
    done
  } | sqlite3 "$MNT/data.db"
  down
  up
  [ "$(sqlite3 "$MNT/data.db" 'SELECT count(*), sum(value) FROM t;')" = "10000|5010000.0" ] \
    || fail "the database read back: $(sqlite3 "$MNT/data.db" 'SELECT count(*), sum(value) FROM t;' 2>&1)"
  [ "$(sqlite3 "$MNT/data.db" 'PRAGMA integrity_check;')" = "ok" ] || fail "integrity"
  down
  no_leftovers
}

case_cache_limit() {
  for f in $(seq 1 6); do head -c $((8 * 1024 * 1024)) /dev/urandom > "$REMOTE/r$f.bin"; done
  up --cache-max-size 16M
  for f in $(seq 1 6); do cat "$MNT/r$f.bin" > /dev/null; done
  local used
  used=$(du -sk "$CACHE" | cut -f1)
  # The limit, and room for the cache's own records.
  [ "$used" -le $((16 * 1024 + 1024)) ] || fail "the cache holds ${used} KiB over a 16 MiB limit"
  # Written data not uploaded yet is never evicted, even past the limit.
  head -c $((24 * 1024 * 1024)) /dev/urandom > "$WORK/unsent.bin"
  cp "$WORK/unsent.bin" "$MNT/unsent.bin"
  for f in $(seq 1 6); do cat "$MNT/r$f.bin" > /dev/null; done
  down
  same_file "$WORK/unsent.bin" "$REMOTE/unsent.bin"
}

# A length typed by mistake neither grows memory nor fills the cache disk.
# The cache sits on a 64 MiB tmpfs, so that a regression cannot fill the
# machine's disk either.
case_huge_length() {
  mkdir -p "$CACHE"
  mount -t tmpfs -o size=64m skarvo-e2e "$CACHE"
  up
  local status=0
  truncate -s 999999999999999 "$MNT/huge" 2> "$WORK/truncate.err" || status=$?
  if [ "$status" -ne 0 ]; then
    grep -q "File too large" "$WORK/truncate.err" || fail "truncate: $(cat "$WORK/truncate.err")"
  fi
  sleep 1
  local rss
  rss=$(awk '/^VmRSS/ {print $2}' "/proc/$PID/status")
  [ "$rss" -lt $((100 * 1024)) ] || fail "skarvo holds ${rss} KiB"
  [ "$(du -sk "$CACHE" | cut -f1)" -lt $((64 * 1024)) ] || fail "the cache grew"
  echo still > "$MNT/other.txt"
  down
  umount "$CACHE"
  [ "$(cat "$REMOTE/other.txt")" = "still" ] || fail "the volume stopped working"
}

# The cache on a 64 MiB tmpfs (so the machine's own disk can never fill):
# writing 100 MiB fails with ENOSPC once it is full, and the log says so once,
# naming the folder. What was written before stays whole and is uploaded: a
# file closed earlier (its cached copy may be evicted to make room), one kept
# open meanwhile, and the part of the big file that fitted.
case_full_cache() {
  mkdir -p "$CACHE"
  mount -t tmpfs -o size=64m skarvo-e2e "$CACHE"
  head -c $((4 * 1024 * 1024)) /dev/urandom > "$WORK/early.bin"
  head -c $((100 * 1024 * 1024)) /dev/urandom > "$WORK/huge.bin"
  up
  cp "$WORK/early.bin" "$MNT/early.bin"
  exec 3> "$MNT/open.bin"
  head -c $((1024 * 1024)) "$WORK/early.bin" >&3
  local status=0 kept
  dd if="$WORK/huge.bin" of="$MNT/huge.bin" bs=1M status=none 2> "$WORK/dd.err" || status=$?
  [ "$status" -ne 0 ] && grep -q "No space left on device" "$WORK/dd.err" \
    || fail "dd into a full cache: status $status, $(cat "$WORK/dd.err")"
  exec 3>&-
  kept=$(stat -c %s "$MNT/huge.bin")
  [ "$kept" -gt $((32 * 1024 * 1024)) ] || fail "only $kept bytes fitted"
  down
  [ "$(grep -c "the cache folder $CACHE/.* is full" "$WORK/skarvo.log")" -eq 1 ] \
    || fail "the log does not say once that the cache is full"
  same_file "$WORK/early.bin" "$REMOTE/early.bin"
  cmp -s <(head -c $((1024 * 1024)) "$WORK/early.bin") "$REMOTE/open.bin" || fail "open.bin differs"
  [ "$(stat -c %s "$REMOTE/huge.bin")" -eq "$kept" ] || fail "huge.bin on the remote is not $kept bytes"
  cmp -s <(head -c "$kept" "$WORK/huge.bin") "$REMOTE/huge.bin" || fail "huge.bin differs"
  # Read back through the full cache: uploaded copies make room.
  up
  same_file "$WORK/early.bin" "$MNT/early.bin"
  down
  umount "$CACHE"
}

# fsync and fdatasync succeed, and once fsync returned the entry's row in
# the cache's index already holds the size and the written blocks.
case_fsync() {
  head -c $((300 * 1024)) /dev/urandom > "$WORK/synced.bin"
  up
  dd if="$WORK/synced.bin" of="$MNT/dd.bin" bs=64k conv=fsync status=none
  python3 - "$WORK/synced.bin" "$MNT/synced.bin" "$CACHE" <<'EOF'
import glob, os, sqlite3, sys
data = open(sys.argv[1], "rb").read()
fd = os.open(sys.argv[2], os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
assert os.write(fd, data) == len(data)
os.fsync(fd)
db = sqlite3.connect(glob.glob(sys.argv[3] + "/volumes/*/index.db")[0])
mine = db.execute("SELECT size, unsent FROM entries WHERE key LIKE '%synced.bin'").fetchall()
db.close()
assert mine == [(len(data), len(data))], mine
os.pwrite(fd, b"again", 10)
os.fdatasync(fd)
os.close(fd)
EOF
  down
  same_file "$WORK/synced.bin" "$REMOTE/dd.bin"
  cmp -s <(head -c 10 "$WORK/synced.bin"; printf again; tail -c +16 "$WORK/synced.bin") \
    "$REMOTE/synced.bin" || fail "synced.bin differs"
}

case_remote_changes() {
  echo before > "$REMOTE/old.txt"
  echo '{"fs": {"changes": "1000"}}' > "$WORK/config.json"
  up --config "$WORK/config.json"
  ls "$MNT" > /dev/null
  echo added > "$REMOTE/new.txt"
  rm "$REMOTE/old.txt"
  mkdir "$REMOTE/dir" && echo x > "$REMOTE/dir/x.txt" && mv "$REMOTE/dir/x.txt" "$REMOTE/dir/y.txt"
  # Shown after the next poll (once a second here); the bound leaves room
  # for a loaded machine.
  wait_for 100 eval '[ "$(cat "$MNT/new.txt" 2>/dev/null)" = added ]' || fail "a new file does not show"
  wait_for 100 eval '[ ! -e "$MNT/old.txt" ]' || fail "a deleted file still shows"
  wait_for 100 eval '[ -e "$MNT/dir/y.txt" ] && [ ! -e "$MNT/dir/x.txt" ]' ||
    fail "a rename does not show"
  down
}

# Real-time upload, for bash and python3 (--realtime-process, through -o):
# what a writer keeping a file open has written is on the remote before the
# close, in the local remote's temporary file and never as a partial file
# under its name; the close completes the file without a second upload. A
# write out of order gives the stream up, and the close uploads the whole
# file from the cache. Other processes' files are uploaded at close.
case_realtime() {
  up -o realtime-process=bash,realtime-process=python3 --log-level debug
  exec 3> "$MNT/live.txt"
  printf 'first part\n' >&3
  local temp=
  for _ in $(seq 1 50); do
    temp=$(find "$REMOTE" -maxdepth 1 -name '.skarvo-upload-*' | head -1)
    [ -n "$temp" ] && [ "$(cat "$temp" 2>/dev/null)" = "first part" ] && break
    sleep 0.1
  done
  [ "$(cat "$temp" 2>/dev/null)" = "first part" ] || fail "the first part is not on the remote before the close"
  [ ! -e "$REMOTE/live.txt" ] || fail "the remote shows a partial live.txt"
  printf 'second part\n' >&3
  exec 3>&-
  printf unlisted > "$WORK/unlisted.txt"
  cp "$WORK/unlisted.txt" "$MNT/unlisted.txt"  # cp is not a real-time process
  python3 - "$MNT/seek.bin" "$WORK/seek.bin" <<'EOF'
import os, sys
first, patch, rest = os.urandom(3 << 20), os.urandom(4096), os.urandom(1 << 20)
fd = os.open(sys.argv[1], os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
os.write(fd, first)
os.pwrite(fd, patch, 1000)
os.write(fd, rest)
os.close(fd)
open(sys.argv[2], "wb").write(first[:1000] + patch + first[1000 + len(patch):] + rest)
EOF
  down
  [ "$(cat "$REMOTE/live.txt")" = "$(printf 'first part\nsecond part')" ] \
    || fail "live.txt on the remote: $(cat "$REMOTE/live.txt")"
  same_file "$WORK/seek.bin" "$REMOTE/seek.bin"
  same_file "$WORK/unlisted.txt" "$REMOTE/unlisted.txt"
  grep -q 'Streaming upload - live.txt done(Success)' "$WORK/skarvo.log" || fail "live.txt was not streamed"
  ! grep -q 'Upload - live.txt$' "$WORK/skarvo.log" || fail "live.txt was uploaded a second time"
  grep -q 'Streaming upload - seek.bin done(UPLOAD_CANCELED)' "$WORK/skarvo.log" \
    || fail "the stream of seek.bin was not given up"
  grep -q 'AsyncJobUpload - seek.bin.*done(Success)' "$WORK/skarvo.log" || fail "seek.bin was not uploaded"
  ! grep -q 'Streaming upload - unlisted.txt' "$WORK/skarvo.log" || fail "cp's writes were streamed"
  no_leftovers
}

for name in "${CASES[@]}"; do
  run_case "$name"
done
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
