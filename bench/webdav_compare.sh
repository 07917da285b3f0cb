#!/usr/bin/env bash
# Compares `skarvo mount webdav://` with rclone's mount of the same Apache
# share (WebDAV backend, --vfs-cache-mode full) and with davfs2 where it can
# be mounted: sequential write and read of 256 MiB, listing and stat of 2,000
# entries, creating 500 small files. Prints seconds per client and the ratio
# to skarvo (above 1: slower than skarvo). Run as root.
# Usage: webdav_compare.sh PATH_TO_SKARVO
set -uo pipefail
SKARVO=$(realpath "$1")
HERE=$(dirname "$(realpath "$0")")
# shellcheck source=../tests/webdav/apache_fixture.sh
. "$HERE/../tests/webdav/apache_fixture.sh"
WORK=$(mktemp -d /var/tmp/skarvo-davbench-XXXXXX)
MNT=$WORK/mnt
PID=
trap 'down_client 2>/dev/null; dav_stop; rm -rf "$WORK"' EXIT
DAV_ROOT=$WORK/dav
dav_start "$WORK/apache" >/dev/null || exit 1
SHARE=$DAV_ROOT/dav
URL=http://127.0.0.1:$DAV_PORT/dav/
mkdir -p "$MNT"
head -c $((256 * 1024 * 1024)) /dev/urandom > "$WORK/seq.bin"

now() { date +%s.%N; }
mounted() { grep -q " $MNT " /proc/mounts; }
wait_mounted() {
  for _ in $(seq 1 100); do mounted && return 0; sleep 0.1; done
  return 1
}

up_client() {
  rm -rf "$WORK/cache"
  case $1 in
    skarvo) "$SKARVO" mount --cache-dir "$WORK/cache" --log-file "$WORK/skarvo.log" \
              "webdav://127.0.0.1:$DAV_PORT/dav" "$MNT" >/dev/null 2>&1 & PID=$! ;;
    rclone) rclone mount ":webdav,url='$URL',vendor=other:" "$MNT" --vfs-cache-mode full \
              --cache-dir "$WORK/cache" --dir-cache-time 5s >/dev/null 2>&1 & PID=$! ;;
    davfs2) mkdir -p "$WORK/cache"
            printf 'use_locks 0\ncache_dir %s\n' "$WORK/cache" > "$WORK/davfs2.conf"
            printf '\n\n' | timeout 20 mount -t davfs -o "conf=$WORK/davfs2.conf" "$URL" "$MNT" \
              >/dev/null 2>&1 || return 1 ;;
  esac
  wait_mounted
}

down_client() {
  if [ -n "$PID" ]; then
    kill -INT "$PID" 2>/dev/null; wait "$PID" 2>/dev/null; PID=
  elif mounted; then
    umount "$MNT"
  fi
  for _ in $(seq 1 300); do mounted || return 0; sleep 0.1; done
}

# Waits until the file $1 on the share holds $2 bytes.
wait_share() {
  for _ in $(seq 1 1200); do
    [ "$(stat -c %s "$1" 2>/dev/null || echo 0)" -ge "$2" ] && return 0
    sleep 0.05
  done
}

measure() {  # client -> prints "write read list small" seconds
  local client=$1 t0 t1 w r l s
  rm -rf "${SHARE:?}"/* && mkdir -p "$SHARE/many"
  for i in $(seq 1 2000); do echo "$i" > "$SHARE/many/e$i.txt"; done
  up_client "$client" || { echo "not mounted"; return 1; }
  if ! err=$(ls "$MNT" 2>&1 >/dev/null); then
    down_client
    echo "mounted, but listing it fails: ${err##*: }"
    return 1
  fi
  t0=$(now); cp "$WORK/seq.bin" "$MNT/seq.bin"; wait_share "$SHARE/seq.bin" $((256 * 1024 * 1024)); t1=$(now)
  w=$(echo "$t1 - $t0" | bc)
  mkdir "$MNT/small"
  t0=$(now); for i in $(seq 1 500); do echo "$i" > "$MNT/small/s$i.txt"; done
  for _ in $(seq 1 1200); do
    [ "$(find "$SHARE/small" -name 's*.txt' 2>/dev/null | wc -l)" -ge 500 ] && break
    sleep 0.05
  done
  t1=$(now); s=$(echo "$t1 - $t0" | bc)
  down_client
  up_client "$client" || return 1
  t0=$(now); cat "$MNT/seq.bin" > /dev/null; t1=$(now); r=$(echo "$t1 - $t0" | bc)
  t0=$(now); ls -l "$MNT/many" > /dev/null; t1=$(now); l=$(echo "$t1 - $t0" | bc)
  down_client
  echo "$w $r $l $s"
}

printf '%-8s %12s %12s %14s %14s\n' client "write 256M" "read 256M" "ls -l 2000" "500 creates"
declare -A result
for client in skarvo rclone davfs2; do
  if [ "$client" != skarvo ] && ! command -v "${client/davfs2/mount.davfs}" >/dev/null; then
    echo "$client: not installed"; continue
  fi
  if ! values=$(measure "$client"); then echo "$client: could not be set up ($values)"; continue; fi
  result[$client]=$values
  read -r w r l s <<< "$values"
  printf '%-8s %11.2fs %11.2fs %13.2fs %13.2fs\n' "$client" "$w" "$r" "$l" "$s"
done
echo "ratio to skarvo (time of the client / time of skarvo):"
read -r sw sr sl ss <<< "${result[skarvo]}"
for client in rclone davfs2; do
  [ -n "${result[$client]:-}" ] || continue
  read -r w r l s <<< "${result[$client]}"
  printf '%-8s %12.2f %12.2f %14.2f %14.2f\n' "$client" "$(echo "$w / $sw" | bc -l)" \
    "$(echo "$r / $sr" | bc -l)" "$(echo "$l / $sl" | bc -l)" "$(echo "$s / $ss" | bc -l)"
done
