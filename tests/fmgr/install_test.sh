#!/usr/bin/env bash
# Installs into a scratch directory and builds and runs the README's program against it, as a newcomer would.
#   install_test.sh BUILD_DIRECTORY README.md CXX [CXXFLAG ...]
set -eu
build=$1
readme=$2
compiler=$3
shift 3
scratch=$(mktemp -d /tmp/fi.XXXXXX)
trap 'rm -rf "$scratch"' EXIT

DESTDIR=$scratch/stage cmake --install "$build" >/dev/null
[ -x "$scratch/stage/opt/app/filedb" ] || { echo "the rebuild tool is not at /opt/app/filedb"; exit 1; }
pc=$(find "$scratch/stage" -name filemanager-host.pc)
prefix=$(sed -n 's/^prefix=//p' "$pc")
export PKG_CONFIG_PATH=${pc%/*}
# shellcheck disable=SC2016
sed -n '/^```cpp$/,/^```$/p' "$readme" | sed '1d;$d' >"$scratch/example.cpp"
[ -s "$scratch/example.cpp" ] || { echo "the README has no program"; exit 1; }
# shellcheck disable=SC2046
"$compiler" -std=c++17 -Wall -Wextra -Werror "$@" "$scratch/example.cpp" -o "$scratch/example" \
  $(pkg-config --define-variable=prefix="$scratch/stage$prefix" --cflags --libs filemanager-host)
libraries=$(dirname "$(find "$scratch/stage" -name libfilemanager.so)")
found=$(LD_LIBRARY_PATH=$libraries "$scratch/example" "$scratch/r" 2>"$scratch/log")
want=$scratch/r/disk/a/data_00000002/5f5e10b4_5f5e10ef_cm1.imf
[ "$found" = "$want" ] || { echo "expected $want, got $found"; cat "$scratch/log"; exit 1; }
