#!/usr/bin/env bash
# Size of the armhf program and resident memory of the demo instrument
# (examples/demo.xml) running under qemu-arm with no mount and no fixed port.
#   scripts/armhf-footprint.sh [build folder, default build-armhf]
#
# The qemu process's VmRSS holds the emulator's own memory (its translated
# code above all) besides the program's. qemu places the 32-bit guest at a
# fixed base here (-B), so the pages inside that 4 GiB window are the
# program's own: their sum is what the program would hold on a board.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-armhf}
binary="$build/zel"
qemu=$(command -v qemu-arm || command -v qemu-arm-static)
guest_base=0x100000000000

stripped="$build/zel.stripped"
arm-linux-gnueabihf-strip -o "$stripped" "$binary"
echo "armhf program: $(stat -c %s "$binary") bytes with debug information, $(stat -c %s "$stripped") bytes stripped"
arm-linux-gnueabihf-size "$stripped" | sed 's/^/  /'

data=$(mktemp -d)
trap 'rm -rf "$data"' EXIT
"$qemu" -L /usr/arm-linux-gnueabihf -B "$guest_base" "$binary" --config "$PWD/examples/demo.xml" \
  --data-root "$data" --pid-file "$data/zel.pid" --io-mount none --port 0 >"$data/log" 2>&1 &
pid=$!
for _ in $(seq 300); do
  grep -q "Initialized" "$data/log" && break
  kill -0 "$pid" 2>/dev/null || break
  sleep 0.1
done
if ! grep -q "Initialized" "$data/log"; then
  kill "$pid" 2>/dev/null || true
  echo "armhf demo did not start:" >&2
  cat "$data/log" >&2
  exit 1
fi
sleep 3  # let the pulse and the contexts settle
vmrss=$(awk '/^VmRSS/ {print $2}' "/proc/$pid/status")
guest=$(awk -v base="$guest_base" '
  function hex(s,   i, v, c) { v = 0; s = tolower(s); sub(/^0x/, "", s)
    for (i = 1; i <= length(s); i++) { c = index("0123456789abcdef", substr(s, i, 1)) - 1; v = v * 16 + c }
    return v }
  BEGIN { low = hex(base); high = low + 4294967296 }
  /^[0-9a-f]+-[0-9a-f]+ / { split($1, r, "-"); inside = hex(r[1]) >= low && hex(r[2]) <= high }
  /^Rss:/ && inside { sum += $2 }
  END { print sum }' "/proc/$pid/smaps")
kill -TERM "$pid"
wait "$pid" || true
echo "armhf demo resident memory: ${guest} KiB the program's own pages, ${vmrss} KiB VmRSS of the qemu process"
