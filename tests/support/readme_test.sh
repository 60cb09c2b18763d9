#!/usr/bin/env bash
# readme_test.sh BUILD_DIRECTORY README.md CXX [CXXFLAG ...]: runs the README's commands as printed and in their
# order, as a newcomer would, and its program; but scratch directories stand in for /srv and /usr/local, this build
# for its own, video files for cameras, a folder for what ldconfig does. The scripts, which run all this, are not run.
# shellcheck disable=SC2016  # the fences of the README are no substitutions
set -eu
build=$1 readme=$2 compiler=$3
shift 3
flags=("$@")
scratch=$(mktemp -d /tmp/rm.XXXXXX)
recording=
finish() {
  [ -z "$recording" ] || kill -9 "$recording" 2>/dev/null || true
  rm -rf "$scratch"
}
trap finish EXIT
fail() {
  printf '%s\n' "$*" >&2
  tail -n 20 "$scratch/log" >&2
  exit 1
}

mkdir -p "$scratch/clone/build" "$scratch/srv"
ln -s "$build" "$scratch/clone/build/release"
cd "$scratch/clone"
sed -n '/^```cpp$/,/^```$/p' "$readme" | sed '1d;$d' >example.cpp
[ -s example.cpp ] || fail "the README has no program"
for camera in camera1 camera2; do
  ffmpeg -nostdin -loglevel error -f lavfi -i testsrc=size=160x120:rate=10 -t 60 -g 10 -c:v libx264 \
    -preset ultrafast -pix_fmt yuv420p "$scratch/$camera.mp4"
done

export PKG_CONFIG_PATH=$scratch/local/lib/pkgconfig LD_LIBRARY_PATH=$scratch/cache
ldconfig() { ln -sfn "$scratch/local/lib" "$scratch/cache"; }
g++() { "$compiler" -Wall -Wextra -Werror "${flags[@]}" "$@"; }

# Until the disk has more pictures than would be missing in a clip of the last ten seconds.
wait_for_recording() {
  local i
  for ((i = 0; i < 200; i++)); do
    kill -0 "$recording" 2>/dev/null || fail "the recorder has ended"
    [ -n "$(find "$scratch/srv" -path '*/data_*/*_00000000.imf' 2>/dev/null)" ] && sleep 8 && return
    sleep 0.1
  done
  fail "nothing was recorded in 20 s"
}

commands=0
while IFS= read -r line; do
  [[ $line != scripts/* && $line != 'cmake --preset '* ]] || continue
  line=${line//\/srv/$scratch/srv}
  line=${line//\/usr\/local/$scratch/local}
  line=$(sed -E "s|rtsp://(camera[12])/stream|$scratch/\1.mp4|g" <<<"$line")
  echo "\$ $line"
  commands=$((commands + 1))
  case $line in
    *' record '*)
      (eval "exec $line") >>"$scratch/log" 2>&1 &
      recording=$!
      wait_for_recording
      ;;
    *) eval "$line" >"$scratch/out" 2>>"$scratch/log" || fail "status $? of: $line" ;;
  esac
done < <(sed -n '/^```/,/^```/!s/^    //p' "$readme")
[ "$commands" -ge 10 ] || fail "only $commands commands found in the README"

kill -INT "$recording"
wait "$recording" || fail "the recorder ended with status $?"
recording=
codec=$(ffprobe -v error -show_entries stream=codec_name -of csv=p=0 timeline.png)
[ "$codec" = png ] || fail "the timeline is no picture"
ffmpeg -nostdin -v error -xerror -i clip.mp4 -f null - || fail "the clip does not play"

# The program has run once by now, and again it finds what it has recorded.
want=$scratch/srv/example/disk/a/data_00000002/5f5e10b4_5f5e10ef_cm1.imf
[ "$(cat "$scratch/out")" = "$want" ] || fail "expected $want, got $(cat "$scratch/out")"
again=$(./example "$scratch/srv/example" 2>>"$scratch/log") || fail "the program fails when it is run again"
[ -f "$again" ] || fail "run again, the program found $again"
[ ! -e "$scratch/srv/example/disk/a/imf_prealloc" ] || fail "the program has left files in imf_prealloc"

# A program links that needs nothing of the host's components itself.
printf '#include "fmgr/FmgrFileManager.h"\nint main() { FmgrFileManager::ReleaseInstance(); }\n' >least.cpp
eval "g++ -std=c++17 -Wl,--as-needed least.cpp $(pkg-config --cflags --libs filemanager-host) -o least" ||
  fail "the least program does not link"

# An installation for the whole system also puts the rebuild tool where the library calls it.
DESTDIR=$scratch/stage cmake --install "$build" >/dev/null
[ -x "$scratch/stage/opt/app/filedb" ] || fail "the rebuild tool is not at /opt/app/filedb"
