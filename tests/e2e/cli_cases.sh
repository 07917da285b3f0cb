# Cases of skarvo as people run it: a quiet terminal, the background mode,
# mount(8) and /etc/fstab through mount.fuse, named remotes, and an installed
# skarvo. Sourced by skarvo_e2e.sh (local remotes only); they use its helpers.
CLI_CASES=(quiet_session lifecycle named_remotes install)

# Polls up to 10 s for FILE to hold TEXT.
holds() {
  local file=$1 text=$2
  wait_for 100 eval '[ "$(cat "$file" 2>/dev/null)" = "$text" ]' || fail "$file does not hold '$text'"
}

# Waits up to 10 s for process $1 to end and the volume to be gone.
gone() {
  local pid=$1
  wait_for 100 eval '! kill -0 "$pid" 2>/dev/null && ! mounted' ||
    fail "skarvo $1 still runs or the volume is still mounted"
}

# Stops the daemon whose message ("skarvo: mounted in the background (pid N);
# log: FILE") is in $1 with skarvo unmount; its log must not hold a sanitizer's
# report (a daemon's exit status reaches no one).
stop_daemon() {
  local pid log
  pid=$(sed -n 's/.*(pid \([0-9]*\)).*/\1/p' "$1")
  log=$(sed -n 's/.*; log: //p' "$1")
  "$SKARVO" unmount "$MNT" 2> "$WORK/unmount.txt" || fail "skarvo unmount: $(cat "$WORK/unmount.txt")"
  tail -1 "$WORK/unmount.txt" | grep -qx "skarvo: unmounted" || fail "$(cat "$WORK/unmount.txt")"
  gone "$pid"
  ! grep -q "Sanitizer" "$log" || fail "$(grep -m3 Sanitizer "$log")"
}

# Runs a session in the foreground with its standard output and error in
# $WORK/out.txt and $WORK/err.txt: a tree made and copied in, 10,000 files
# removed, and one upload to a remote that refuses every upload.
quiet_run() {
  rm -rf "$WORK/faulty" "$CACHE" && mkdir -p "$WORK/faulty/bad" "$REMOTE/many" "$MNT"
  (cd "$REMOTE/many" && seq 1 "$1" | xargs touch)
  shift
  "$SKARVO" mount --cache-dir "$CACHE" --upload-retries 0 "$@" local:"$REMOTE" \
    fault:upload=1:local:"$WORK/faulty" "$MNT" > "$WORK/out.txt" 2> "$WORK/err.txt" &
  PID=$!
  wait_for 100 mounted || fail "not mounted: $(cat "$WORK/err.txt")"
  mkdir -p "$MNT/a/b/c"
  cp -r "$HERE/../../host" "$MNT/a/b/c/"
  rm -r "$MNT/many"
  echo lost > "$MNT/bad/x.txt"
  holds "$CACHE/recovered/bad/x.txt" lost
  down
}

# At the default level the terminal shows the mount and one line for the
# failed upload, nothing for the rest; at debug level the routine lines too.
case_quiet_session() {
  quiet_run 10000
  diff -r --exclude='.ql_disable*' "$HERE/../../host" "$REMOTE/a/b/c/host" || fail "the copy differs"
  [ ! -e "$REMOTE/many" ] || fail "the removed folder is still on the remote"
  [ ! -s "$WORK/out.txt" ] || fail "standard output: $(head -3 "$WORK/out.txt")"
  grep -v '^skarvo: mounted ' "$WORK/err.txt" > "$WORK/shown.txt" || true
  [ "$(wc -l < "$WORK/shown.txt")" -eq 1 ] || fail "the terminal shows: $(head -5 "$WORK/shown.txt")"
  grep -q "upload of $MNT/bad/x.txt failed (SOCK_REMOTE_HOST_CLOSED).*saving its data to $CACHE/recovered/bad/x.txt" \
    "$WORK/shown.txt" || fail "the failure line: $(cat "$WORK/shown.txt")"
  rm -rf "$REMOTE/a"
  quiet_run 10 --log-level debug
  [ ! -s "$WORK/out.txt" ] || fail "standard output at debug level"
  for line in "GetAttr => FILE_NOT_FOUND : /a/b/c" "FUSE_unlink: 0" "User choose save"; do
    grep -q "$line" "$WORK/err.txt" || fail "debug level does not show '$line'"
  done
}

# --daemon, stopped with SIGTERM; then mount -t fuse.skarvo with an fstab
# option list through mount.fuse, and umount. mount(8) runs helpers with a
# fixed PATH, so a private mount namespace puts skarvo in /usr/local/sbin.
case_lifecycle() {
  mkdir -p "$MNT"
  "$SKARVO" mount --daemon --cache-dir "$CACHE" local:"$REMOTE" "$MNT" 2> "$WORK/daemon.txt"
  mounted || fail "--daemon returned before the volume was mounted"
  grep -q "log: $CACHE/volumes/remote-.*/skarvo.log" "$WORK/daemon.txt" || fail "$(cat "$WORK/daemon.txt")"
  echo first > "$MNT/first.txt"
  holds "$REMOTE/first.txt" first
  # A failing background mount says what the foreground says, with its code.
  local fg=0 bg=0
  "$SKARVO" mount --cache-dir "$CACHE" local:"$REMOTE" "$MNT" 2> "$WORK/fg.txt" || fg=$?
  "$SKARVO" mount --daemon --cache-dir "$CACHE" local:"$REMOTE" "$MNT" 2> "$WORK/bg.txt" || bg=$?
  [ "$fg" -eq 1 ] && [ "$bg" -eq 1 ] && diff "$WORK/fg.txt" "$WORK/bg.txt" || fail "foreground $fg, background $bg"
  stop_daemon "$WORK/daemon.txt"
  local status=0
  "$SKARVO" unmount "$MNT" 2> "$WORK/none.txt" || status=$?
  [ "$status" -eq 1 ] && grep -q "nothing of skarvo's is mounted at $MNT" "$WORK/none.txt" ||
    fail "unmount of nothing: $status $(cat "$WORK/none.txt")"
  mkdir -p "$WORK/helpers" && ln -sf "$SKARVO" "$WORK/helpers/skarvo"
  unshare -m --propagation private bash -eu -c '
    mount --bind "$1" /usr/local/sbin
    mount -t fuse.skarvo "local:$2" "$3" -o "defaults,_netdev,cache-dir=$4,cache-max-size=2G"
    [ "$(cat "$3/first.txt")" = first ]
    echo second > "$3/second.txt"
    for _ in $(seq 1 100); do [ -e "$2/second.txt" ] && break; sleep 0.1; done
    umount "$3"' _ "$WORK/helpers" "$REMOTE" "$MNT" "$CACHE" || fail "mount -t fuse.skarvo"
  holds "$REMOTE/second.txt" second
  local pid
  pid=$(pgrep -f "skarvo local:$REMOTE $MNT" || true)
  [ -z "$pid" ] || gone "$pid"
}

case_named_remotes() {
  export XDG_CONFIG_HOME=$WORK/config
  mkdir -p "$XDG_CONFIG_HOME/skarvo" "$MNT"
  local file=$XDG_CONFIG_HOME/skarvo/remotes.conf
  printf '# test\n[data]\ntype = local\npath = %s\ncache-dir = %s\n' "$REMOTE" "$CACHE" > "$file"
  [ "$("$SKARVO" remotes)" = "$(printf 'data:\tlocal:%s' "$REMOTE")" ] || fail "skarvo remotes"
  "$SKARVO" mount --daemon data: "$MNT" 2> "$WORK/daemon.txt"
  echo named > "$MNT/named.txt"
  holds "$REMOTE/named.txt" named
  stop_daemon "$WORK/daemon.txt"
  printf '[dav]\ntype = webdav\nurl = http://127.0.0.1:9/x\nuser = u\npassword = hunter2\n' >> "$file"
  chmod 644 "$file"
  local status=0
  "$SKARVO" mount data: "$MNT" 2> "$WORK/refused.txt" || status=$?
  [ "$status" -eq 2 ] && grep -q "chmod 600 $file" "$WORK/refused.txt" || fail "$(cat "$WORK/refused.txt")"
  ! mounted || fail "mounted from a file that others may read"
  "$SKARVO" remotes 2> /dev/null | grep -q '^dav:.*(password in the file)$' || fail "remotes with a password"
  ! "$SKARVO" remotes 2>&1 | grep -q hunter2 || fail "skarvo remotes shows the password"
}

case_install() {
  local prefix=$WORK/prefix
  cmake --install "${SKARVO_BUILD_DIR:-$(dirname "$SKARVO")/..}" --prefix "$prefix" > /dev/null
  MANPATH=$prefix/share/man MANPAGER=cat man skarvo 2>/dev/null | grep -q "NAMED REMOTES" || fail "man skarvo"
  bash -c '. "$1" && COMP_WORDS=(skarvo mount --daemo) COMP_CWORD=2 && _skarvo && echo "${COMPREPLY[*]}"' \
    _ "$prefix/share/bash-completion/completions/skarvo" | grep -qx -- --daemon || fail "bash completion"
  [ -f "$prefix/include/libfilesystem/libfilesystem.h" ] || fail "no public header"
  ldd "$prefix/bin/skarvo" | grep -q "$prefix/bin/../lib.*/libfilesystem.so.0 " || fail "$(ldd "$prefix/bin/skarvo" | grep filesystem)"
  mkdir -p "$MNT"
  "$prefix/bin/skarvo" mount --daemon --cache-dir "$CACHE" local:"$REMOTE" "$MNT" 2> "$WORK/daemon.txt"
  echo installed > "$MNT/i.txt"
  holds "$REMOTE/i.txt" installed
  stop_daemon "$WORK/daemon.txt"
}
