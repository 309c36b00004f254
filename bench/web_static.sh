#!/usr/bin/env bash
# Small static files: requests per second of the ZEL web server and of nginx,
# side by side on this machine, measured with wrk over keep-alive connections
# on 127.0.0.1. Both serve the page's own files from the same folder with the
# same number of workers. Needs wrk and nginx (Debian packages "wrk", "nginx").
#
#   bench/web_static.sh    # BUILD=build DURATION=10 CONNECTIONS=50 WORKERS=2 ROUNDS=3
#
# Besides requests per second it reports the servers' CPU time per request
# (user and system, from /proc), which a busy machine disturbs much less.
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD=${BUILD:-build}
DURATION=${DURATION:-10}
CONNECTIONS=${CONNECTIONS:-50}
WORKERS=${WORKERS:-2}
FILES=(index.html style.css js/fields.js)

for tool in wrk nginx; do
  command -v "$tool" >/dev/null || { echo "web_static: $tool is missing (apt-get install $tool)" >&2; exit 1; }
done

dir=$(mktemp -d)
zel_pid=""
nginx_pid=""
cleanup() {
  [[ -n "$zel_pid" ]] && kill "$zel_pid" 2>/dev/null && wait "$zel_pid" 2>/dev/null
  [[ -n "$nginx_pid" ]] && kill "$nginx_pid" 2>/dev/null && wait "$nginx_pid" 2>/dev/null
  rm -rf "$dir"
}
trap cleanup EXIT

cp -r web "$dir/web"
mkdir -p "$dir/nginx"
chmod -R a+rX "$dir"  # nginx's workers run as an unprivileged user

echo "<root><web_server type=\"web_server\" threads=\"$WORKERS\"/></root>" > "$dir/zel.xml"
"$BUILD/zel" --config "$dir/zel.xml" --data-root "$dir" --pid-file "$dir/zel.pid" --io-mount none --port 0 \
  2> "$dir/zel.log" &
zel_pid=$!

nginx_port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
cat > "$dir/nginx/nginx.conf" <<CONF
daemon off;
worker_processes $WORKERS;
pid $dir/nginx/nginx.pid;
error_log $dir/nginx/error.log;
events { worker_connections 4096; }
http {
  include /etc/nginx/mime.types;
  access_log off;
  sendfile on;
  tcp_nopush on;
  keepalive_requests 1000000;
  server { listen 127.0.0.1:$nginx_port; root $dir/web; }
}
CONF
nginx -p "$dir/nginx" -c "$dir/nginx/nginx.conf" -e "$dir/nginx/error.log" &
nginx_pid=$!

zel_port=""
for _ in $(seq 100); do
  zel_port=$(grep -o 'listening on port [0-9]*' "$dir/zel.log" | awk '{print $4}' || true)
  [[ -n "$zel_port" ]] && break
  sleep 0.1
done
[[ -n "$zel_port" ]] || { echo "web_static: zel did not listen" >&2; cat "$dir/zel.log" >&2; exit 1; }
sleep 0.5

# CPU time (clock ticks) used so far by a process and its children processes.
cpu_ticks() {
  local total=0 pid
  for pid in "$1" $(pgrep -P "$1" || true); do
    total=$((total + $(awk '{print $14 + $15}' "/proc/$pid/stat")))
  done
  echo "$total"
}

# url pid -> "requests_per_second cpu_microseconds_per_request"
measure() {
  local before after rate
  before=$(cpu_ticks "$2")
  rate=$(wrk -t2 -c"$CONNECTIONS" -d"${DURATION}s" "$1" | awk '/Requests\/sec/ {print $2}')
  after=$(cpu_ticks "$2")
  awk -v r="$rate" -v t=$((after - before)) -v hz="$(getconf CLK_TCK)" -v d="$DURATION" \
    'BEGIN {printf "%.0f %.1f\n", r, t / hz * 1e6 / (r * d)}'
}

median() { sort -n | awk '{a[NR] = $1} END {print a[int((NR + 1) / 2)]}'; }

# Runs alternate between the two servers, so a change in the machine's load
# hits both; the medians are reported.
printf "%-14s %6s %10s %10s %6s %12s %12s\n" file bytes zel_req/s nginx_req/s ratio zel_us_cpu nginx_us_cpu
for file in "${FILES[@]}"; do
  size=$(stat -c %s "web/$file")
  zr=() zc=() nr=() nc=()
  for _ in $(seq "${ROUNDS:-3}"); do
    read -r r c < <(measure "http://127.0.0.1:$zel_port/$file" "$zel_pid"); zr+=("$r"); zc+=("$c")
    read -r r c < <(measure "http://127.0.0.1:$nginx_port/$file" "$nginx_pid"); nr+=("$r"); nc+=("$c")
  done
  zel=$(printf "%s\n" "${zr[@]}" | median); ngx=$(printf "%s\n" "${nr[@]}" | median)
  zcpu=$(printf "%s\n" "${zc[@]}" | median); ncpu=$(printf "%s\n" "${nc[@]}" | median)
  ratio=$(awk -v a="$zel" -v b="$ngx" 'BEGIN {printf "%.2f", a / b}')
  printf "%-14s %6s %10s %10s %6s %12s %12s\n" "$file" "$size" "$zel" "$ngx" "$ratio" "$zcpu" "$ncpu"
done
