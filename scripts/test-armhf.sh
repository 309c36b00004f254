#!/usr/bin/env bash
# The ARMv7 gate: cross-compiles the project for Debian armhf, runs the whole
# test suite under qemu-arm user-mode emulation, then reports the program's
# size and the resident memory of the demo configuration.
#
# The armhf libraries come from Debian packages fetched with `apt-get
# download` and unpacked with `dpkg -x` into <build>/sysroot: a multiarch
# install refuses whenever the machine's own packages carry updates newer than
# the armhf index. Fetching needs the armhf architecture known to dpkg (added
# here once) and its index (read here when a download finds none).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
build=${ARMHF_BUILD:-build-armhf}
jobs=${JOBS:-2}
sysroot="$root/$build/sysroot"
sudo=""
[[ $(id -u) -eq 0 ]] || sudo="sudo"

missing=()
command -v arm-linux-gnueabihf-g++ >/dev/null || missing+=(g++-arm-linux-gnueabihf)
qemu=$(command -v qemu-arm || command -v qemu-arm-static || true)
[[ -n $qemu ]] || missing+=(qemu-user-static)
command -v apt-get >/dev/null && command -v dpkg >/dev/null || missing+=(apt dpkg)
if [[ ${#missing[@]} -gt 0 ]]; then
  echo "test-armhf: cannot run here, missing ${missing[*]} (scripts/setup.sh armhf installs them)" >&2
  exit 1
fi

# Architecture-dependent packages are fetched for armhf, the others as they are.
armhf_packages=(
  libboost1.74-dev
  libboost-program-options1.74-dev libboost-program-options1.74.0
  libboost-filesystem1.74-dev libboost-filesystem1.74.0
  libboost-system1.74-dev libboost-system1.74.0
  libboost-thread1.74-dev libboost-thread1.74.0
  libboost-atomic1.74-dev libboost-atomic1.74.0
  libboost-chrono1.74-dev libboost-chrono1.74.0
  libboost-date-time1.74-dev libboost-date-time1.74.0
  libfmt-dev libfmt9
  libpugixml-dev libpugixml1v5
  libfuse3-dev libfuse3-3
  libsodium-dev libsodium23
  libssl-dev libssl3
  libgtest-dev libgmock-dev
)
common_packages=(nlohmann-json3-dev)

fetch_sysroot() {
  local debs="$root/$build/debs"
  if ! dpkg --print-foreign-architectures | grep -qx armhf; then
    echo "test-armhf: adding the armhf architecture to dpkg"
    $sudo dpkg --add-architecture armhf
  fi
  rm -rf "$debs" "$sysroot"
  mkdir -p "$debs" "$sysroot"
  local names=("${armhf_packages[@]/%/:armhf}" "${common_packages[@]}")
  if ! (cd "$debs" && apt-get download -q -o APT::Sandbox::User=root "${names[@]}"); then
    echo "test-armhf: no armhf index yet or a stale one; reading the package index once"
    # A mirror in mid-sync fails some index; the download below tells whether
    # what is needed came through.
    $sudo apt-get update -qq || echo "test-armhf: the package index was read only in part"
    (cd "$debs" && apt-get download -q -o APT::Sandbox::User=root "${names[@]}")
  fi
  for deb in "$debs"/*.deb; do dpkg -x "$deb" "$sysroot"; done
  # Absolute links ("libfuse3.so -> /lib/...") would leave the folder.
  find "$sysroot" -type l -lname '/*' | while read -r link; do
    ln -sfnr "$sysroot$(readlink "$link")" "$link"
  done
  echo "${armhf_packages[*]} ${common_packages[*]}" >"$sysroot/.packages"
}

if [[ ! -f $sysroot/.packages || "$(cat "$sysroot/.packages")" != "${armhf_packages[*]} ${common_packages[*]}" ]]; then
  fetch_sysroot
fi

cmake -S . -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/armhf.cmake" \
  -DZEL_ARMHF_SYSROOT="$sysroot" >/dev/null
cmake --build "$build" -j "$jobs"
(cd "$build" && ctest --output-on-failure -j "$jobs" --timeout 900)

scripts/armhf-footprint.sh "$build"
