#!/usr/bin/env bash
# Measures recording, export and a slow disk on an ext4 of its own, on a loop device, with the page cache emptied before
# each pass, and prints rows for the table. Needs root, ffmpeg, and 8 GiB of room in $TMPDIR. Called by fmgr_bench.
#   disk_bench.sh DIRECTORY_OF_PROGRAMS
set -u
BIN=$1
WORK=$(mktemp -d "${TMPDIR:-/tmp}/db.XXXX")
DEVICE=
CHANNELS=16

# shellcheck disable=SC2317  # called by the trap
clean_up() {
  unthrottle
  umount "$WORK/m" 2>/dev/null
  [ -z "$DEVICE" ] || losetup -d "$DEVICE"
  rm -rf "$WORK"
}
trap clean_up EXIT
fail() {
  printf '%s\n' "$0: $*" >&2
  exit 1
}
# row FIGURE UNIT OURS [AGAINST THEIRS] [GOAL LIMIT], as Report.h reads it; GOAL is "<" or ">".
row() {
  local against='' theirs=0 share=0
  if [ $# -ge 5 ] && [ "$4" != '<' ] && [ "$4" != '>' ]; then
    against=$4 theirs=$5 share=$(awk -v a="$3" -v b="$5" 'BEGIN { print a / b }')
    set -- "$1" "$2" "$3" "${6:-}" "${7:-}"
  fi
  printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$1" "$2" "$3" "$against" "$theirs" "$share" "${4:-}" "${5:-}"
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
empty_cache() {
  sync
  echo 3 >/proc/sys/vm/drop_caches
}
sectors_read() { awk '{ print $3 }' "/sys/block/${DEVICE#/dev/}/stat"; }
# Runs a command: WALL and CPU are its seconds, READ the bytes that the device gave.
measure() {
  local before
  before=$(sectors_read)
  { /usr/bin/env TIMEFORMAT='%R %U %S' bash -c 'time "$@" >/dev/null 2>'"$WORK/err" -- "$@"; } 2>"$WORK/time" ||
    { cat "$WORK/err" >&2; fail "failed: $*"; }
  read -r WALL USER SYSTEM <"$WORK/time"
  CPU=$(awk -v u="$USER" -v s="$SYSTEM" 'BEGIN { print u + s }')
  READ=$((($(sectors_read) - before) * 512))
}

# cgroup v2's io.max, or the throttle of v1's blkio, whichever is there.
throttle() {
  local number
  number=$(cat "/sys/block/${DEVICE#/dev/}/dev")
  if grep -qw io /sys/fs/cgroup/cgroup.controllers 2>/dev/null; then
    echo +io >/sys/fs/cgroup/cgroup.subtree_control
    mkdir -p /sys/fs/cgroup/disk_bench
    echo "$number riops=150 rbps=40000000 wbps=40000000" >/sys/fs/cgroup/disk_bench/io.max || return 1
    echo $$ >/sys/fs/cgroup/disk_bench/cgroup.procs
  elif [ -f /sys/fs/cgroup/blkio/blkio.throttle.read_iops_device ]; then
    # What is buffered is written by the kernel's own threads: they are in the root group.
    for limit in read_iops:150 read_bps:40000000 write_bps:40000000; do
      echo "$number ${limit#*:}" >"/sys/fs/cgroup/blkio/blkio.throttle.${limit%:*}_device" || return 1
    done
  else
    return 1
  fi
}
unthrottle() {
  local limit number
  [ -n "$DEVICE" ] || return 0
  number=$(cat "/sys/block/${DEVICE#/dev/}/dev")
  if [ -d /sys/fs/cgroup/disk_bench ]; then
    echo $$ >/sys/fs/cgroup/cgroup.procs
    rmdir /sys/fs/cgroup/disk_bench
  elif [ -f /sys/fs/cgroup/blkio/blkio.throttle.read_iops_device ]; then
    for limit in read_iops read_bps write_bps; do
      echo "$number 0" >"/sys/fs/cgroup/blkio/blkio.throttle.${limit}_device"
    done
  fi
}

fallocate -l 7G "$WORK/image" || fail "no room in $WORK"
DEVICE=$(losetup --direct-io=on -f --show "$WORK/image") || fail "no loop device"
mkdir "$WORK/m"
mkfs.ext4 -q -m 0 -T largefile "$DEVICE" || fail "no file system"
mount -o noatime "$DEVICE" "$WORK/m" || fail "no file system"

mkdir "$WORK/m/rb"
"$BIN/record_bench" "$WORK/m/rb" || exit 1
rm -r "$WORK/m/rb"

# 4 Mbit/s, 25 pictures a second, for 60 seconds; a picture of noise is what an encoder can do least with.
ffmpeg -v error -f lavfi -i 'nullsrc=size=640x480:rate=25,geq=random(1)*255:128:128' -t 10 -c:v libx264 \
  -preset ultrafast -b:v 4M -maxrate 4M -bufsize 4M -g 50 "$WORK/ten.mp4" || fail "no input"
ffmpeg -v error -stream_loop 6 -i "$WORK/ten.mp4" -c copy "$WORK/in.mp4" || fail "no input"
INPUTS=()
COPIES=()
for ((i = 0; i < CHANNELS; i++)); do
  INPUTS+=(--input "$WORK/in.mp4")
  COPIES+=(-map "$i" -c copy -f segment -segment_time 30 "$WORK/m/seg$i.%d.mkv")
done
ROOT=$WORK/m/r
mkdir -p "$ROOT/disk/a"
"$BIN/recorder" --root "$ROOT" prepare --disk a --size 256M --count 10 >/dev/null 2>&1 || fail "cannot prepare"
BYTES=$(stat -c %s "$WORK/in.mp4")
GIGABYTES=$(awk -v b="$BYTES" -v n="$CHANNELS" 'BEGIN { print b * n / 1e9 }')

OURS=()
THEIRS=()
for pass in 1 2 3 4 5; do # the first of them onto files that were never written
  empty_cache
  measure "$BIN/recorder" --root "$ROOT" record "${INPUTS[@]}" --clock stream --start "$((1700000000 + pass * 100))" --segment 30
  [ "$pass" = 1 ] || OURS+=("$CPU")
  empty_cache
  FROM=()
  for ((i = 0; i < CHANNELS; i++)); do FROM+=(-i "$WORK/in.mp4"); done
  measure ffmpeg -v error -y "${FROM[@]}" "${COPIES[@]}"
  [ "$pass" = 1 ] || THEIRS+=("$CPU")
done
least() { printf '%s\n' "$@" | sort -g | head -n 1; }
OUR=$(ratio "$(least "${OURS[@]}")" "$GIGABYTES")
THEIR=$(ratio "$(least "${THEIRS[@]}")" "$GIGABYTES")
row "recording 16 channels, a GB" s "$OUR" "ffmpeg -c copy -f segment" "$THEIR" '<' 0.7

# The last pass again: 60 seconds of one of 16 channels.
ffmpeg -v error -i "$WORK/in.mp4" -t 60 -c copy "$WORK/m/own.mp4" || fail "no copy"
CLIP=("$BIN/recorder" --root "$ROOT" export --since 1700000500 --until 1700000560 --channel 7 --force -o "$WORK/clip.mp4")
COPY=(ffmpeg -v error -y -i "$WORK/m/own.mp4" -c copy "$WORK/copy.mp4")
for state in cold warm; do
  OURS=()
  THEIRS=()
  for pass in 1 2 3 4 5; do
    [ $state = warm ] || empty_cache
    measure "${CLIP[@]}"
    OURS+=("$WALL")
    [ $state = warm ] || CLIP_READ=$READ
    [ $state = warm ] || empty_cache
    measure "${COPY[@]}"
    THEIRS+=("$WALL")
  done
  row "export of 1 of 16 channels, $state (time of day)" s "$(least "${OURS[@]}")" "ffmpeg -c copy of the same pictures" \
    "$(least "${THEIRS[@]}")" '<' 1.5
done
row "  read from the device, cold" bytes "$CLIP_READ" "the clip" "$(stat -c %s "$WORK/clip.mp4")" '<' 1.3

if ! throttle; then
  printf 'a disk held to 150 reads and 40 MB a second\t-\tno io controller\n'
  exit 0
fi
empty_cache
measure dd if="$DEVICE" of="$WORK/blocks" bs=4k count=300 iflag=direct status=none
row "a disk held to 40 MB and, by dd, reads a second" "" "$(ratio 300 "$WALL")"
"$BIN/recorder" --root "$ROOT" record "${INPUTS[@]}" --segment 30 >"$WORK/out" 2>"$WORK/err" &
RECORDER=$!
PEAK=0
for ((i = 0; i < 60; i++)); do
  sleep 1
  SIZE=$(awk '/VmRSS/ { print int($2 / 1024) }' "/proc/$RECORDER/status")
  [ "${SIZE:-0}" -le "$PEAK" ] || PEAK=$SIZE
done
BEGIN=$(date +%s.%N)
kill -INT "$RECORDER"
wait "$RECORDER"
row "  stopping (time of day)" s "$(awk -v a="$BEGIN" -v b="$(date +%s.%N)" 'BEGIN { printf "%.2f", b - a }')"
row "  memory at most" MiB "$PEAK"
row "  lines that it does not keep up" "" "$(grep -c 'keep up' "$WORK/err")" '<' 0
row "  packets dropped" "" "$(grep -o 'dropped [0-9]*' "$WORK/out" | tail -n 1 | cut -d' ' -f2)" '<' 0
row "  packets a second" "" "$(awk '/^recorded/ { for (i = 2; i <= NF; i++) if ($i == "packets;") print int($(i - 1) / 60) }' "$WORK/out")"
