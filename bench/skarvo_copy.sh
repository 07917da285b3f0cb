#!/usr/bin/env bash
# Copies a 1 GiB file into and out of a volume mounted with
# `skarvo mount local:DIR MNT`, beside the same copies on a plain folder of
# the local disk, and prints MB/s and the ratio. "In" ends when skarvo has
# stopped cleanly, so the upload to DIR is counted; "out" reads through a
# fresh mount with an empty cache, so every byte comes from DIR.
# Usage: bench/skarvo_copy.sh PATH_TO_SKARVO
set -euo pipefail
SKARVO=$(realpath "$1")
WORK=$(mktemp -d /var/tmp/skarvo-bench-XXXXXX)
trap 'grep -q " $WORK/mnt " /proc/mounts && umount -l "$WORK/mnt"; rm -rf "$WORK"' EXIT
mkdir -p "$WORK/remote" "$WORK/mnt" "$WORK/plain"
head -c $((1024 * 1024 * 1024)) /dev/urandom > "$WORK/source.bin"
sync

now() { date +%s.%N; }
rate() { awk -v s="$1" 'BEGIN { printf "%.0f", 1073.741824 / s }'; }

up() {
  "$SKARVO" mount --cache-dir "$WORK/cache" --cache-max-size 4G "local:$WORK/remote" "$WORK/mnt" 2>/dev/null &
  PID=$!
  until grep -q " $WORK/mnt fuse.skfs " /proc/mounts; do sleep 0.1; done
}
down() { kill -INT "$PID"; wait "$PID"; }

up
start=$(now)
cp "$WORK/source.bin" "$WORK/mnt/copy.bin"
down
in_volume=$(awk -v a="$start" -v b="$(now)" 'BEGIN { print b - a }')
rm -rf "$WORK/cache"
sync && echo 3 > /proc/sys/vm/drop_caches 2>/dev/null || true
up
start=$(now)
cp "$WORK/mnt/copy.bin" "$WORK/out.bin"
out_volume=$(awk -v a="$start" -v b="$(now)" 'BEGIN { print b - a }')
down
cmp "$WORK/source.bin" "$WORK/out.bin"

start=$(now)
cp "$WORK/source.bin" "$WORK/plain/copy.bin" && sync
in_plain=$(awk -v a="$start" -v b="$(now)" 'BEGIN { print b - a }')
sync && echo 3 > /proc/sys/vm/drop_caches 2>/dev/null || true
start=$(now)
cp "$WORK/plain/copy.bin" "$WORK/plain/out.bin"
out_plain=$(awk -v a="$start" -v b="$(now)" 'BEGIN { print b - a }')

echo "1 GiB into the volume (until uploaded): $(rate "$in_volume") MB/s, plain folder $(rate "$in_plain") MB/s (ratio $(awk -v a="$in_plain" -v b="$in_volume" 'BEGIN { printf "%.2f", a / b }'))"
echo "1 GiB out of the volume (empty cache):  $(rate "$out_volume") MB/s, plain folder $(rate "$out_plain") MB/s (ratio $(awk -v a="$out_plain" -v b="$out_volume" 'BEGIN { printf "%.2f", a / b }'))"
