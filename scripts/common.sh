# What the scripts share.  Source it; it moves to the root of the checkout.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# say TEXT...: a headline.
say() { printf '\n== %s\n' "$*"; }

# fail TEXT...: ends the script.
fail() {
  printf 'error: %s\n' "$*" >&2
  exit 1
}

# need PACKAGE...: installs what is missing of these Debian packages.
need() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  say "Installing ${missing[*]}"
  local root=()
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || fail "not root and no sudo here; install these packages yourself: ${missing[*]}"
    root=(sudo)
  fi
  "${root[@]}" apt-get update -q
  "${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}" ||
    fail "apt-get could not install: ${missing[*]}"
}

BUILD_PACKAGES=(g++ cmake ninja-build libmnl-dev libcli11-dev nlohmann-json3-dev libpcap0.8-dev)
TEST_PACKAGES=(libgtest-dev iproute2 binutils python3 tshark abigail-tools)

# build PRESET [ARGUMENT...]: configures and builds, with the arguments for the build, such as: --target pegeir
# What it prints is shown only when it fails, or on a terminal.
build() {
  local log preset=$1
  shift
  log=$(mktemp)
  if [ -t 1 ]; then
    cmake --preset "$preset" >"$log" && cmake --build --preset "$preset" "$@" || {
      cat "$log"
      fail "the $preset build failed"
    }
  else
    { cmake --preset "$preset" && cmake --build --preset "$preset" "$@"; } >"$log" 2>&1 || {
      tail -n 60 "$log"
      fail "the $preset build failed"
    }
  fi
  rm -f "$log"
}
