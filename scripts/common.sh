# Shared by the scripts in this folder; sourced, not run.
# shellcheck shell=bash disable=SC2034

TOP=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
JOBS=$(nproc 2>/dev/null || echo 2)

# What a build of everything needs, and what the demo and the tests run.
BUILD_PACKAGES=(build-essential cmake ninja-build pkg-config
  libavformat-dev libavcodec-dev libavutil-dev libcli11-dev nlohmann-json3-dev libcairo2-dev
  libsqlite3-dev libsystemd-dev libdeflate-dev)
DEMO_PACKAGES=(ffmpeg jq)
TEST_PACKAGES=(libgtest-dev ffmpeg sqlite3 e2fsprogs shellcheck
  python3-gi gir1.2-gst-rtsp-server-1.0 gstreamer1.0-plugins-base gstreamer1.0-plugins-good
  gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly)

# With the time since the start, so that one sees how long a step is taking.
say() { printf "== %d:%02d %s\n" $((SECONDS / 60)) $((SECONDS % 60)) "$*"; }
fail() {
  printf '%s\n' "$0: $*" >&2
  exit 1
}

as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  elif command -v sudo >/dev/null 2>&1; then
    sudo "$@"
  else
    fail "needs root or sudo to run: $*"
  fi
}

# Installs those of the packages that are missing.
need_packages() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  command -v apt-get >/dev/null 2>&1 || fail "please install: ${missing[*]}"
  say "Asking the package servers for their lists (apt-get update)"
  as_root apt-get update -q || fail "apt-get update failed"
  say "Installing ${#missing[@]} packages and what they need: ${missing[*]}"
  as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}" ||
    fail "could not install: ${missing[*]}"
}

# Configures and builds a preset in build/PRESET; further arguments go to cmake --build.
build_preset() {
  local preset=$1
  shift
  say "Configuring the $preset build in build/$preset"
  (cd "$TOP" && cmake --preset "$preset" >/dev/null) || fail "the $preset build cannot be configured"
  say "Compiling with $JOBS jobs; [done/all] counts the steps"
  (cd "$TOP" && cmake --build --preset "$preset" -j "$JOBS" "$@") || fail "the $preset build failed"
}
