#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need; quick when all are present.
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config ccache
  libboost-dev libboost-program-options-dev libboost-filesystem-dev
  libboost-system-dev libboost-thread-dev
  nlohmann-json3-dev libpugixml-dev libfmt-dev
  libfuse3-dev fuse3
  libsodium-dev  # password hashes of the users file
  libssl-dev  # HTTPS and WSS (OpenSSL), and the self-signed pair
  libgtest-dev libgmock-dev libbenchmark-dev
  python3-numpy  # the independent reference of the calibration fit test
  chromium nodejs npm  # the browser tests
  libca4.13.5 python3-pyepics  # the Channel Access tests drive the server with the EPICS client library
)
# The quality gates' own tools, installed when a gate asks by name
# (scripts/setup.sh fuzz, scripts/setup.sh armhf); other arguments are package names.
gate_fuzz=(clang-14 libclang-rt-14-dev)
gate_armhf=(g++-arm-linux-gnueabihf qemu-user-static)
for arg in "$@"; do
  case "$arg" in
    fuzz) packages+=("${gate_fuzz[@]}") ;;
    armhf) packages+=("${gate_armhf[@]}") ;;
    *) packages+=("$arg") ;;
  esac
done

missing=()
for p in "${packages[@]}"; do
  # Node.js from other sources brings its own npm; the command is what counts.
  [[ "$p" == npm ]] && command -v npm >/dev/null && continue
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done
if [[ ${#missing[@]} -eq 0 ]]; then
  "$(dirname "$0")/web-libraries.sh"
  exit 0
fi

echo "setup: installing ${missing[*]}"
sudo=""
[[ $(id -u) -eq 0 ]] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
# The page's libraries (npm), served by the instrument itself.
"$(dirname "$0")/web-libraries.sh"
