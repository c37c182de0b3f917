#!/usr/bin/env bash
# The service over HTTP against raw baselines on this machine, in one run:
#  (a) small calls: get_sub_process_detail per second through `korvalin serve` over 1 and 32
#      kept-alive connections, against nginx serving a static body of the same size (wrk);
#  (b) a 1 GiB object (what a merged result is) pulled through HttpBackend, against curl
#      fetching the same bytes as a file from nginx; wall time and the client's peak memory;
#  (c) 32 client processes following one live experiment at once on one server;
#  (d) a normal client's call rate (one connection) with 1,000 slow connections open (a header
#      a byte a second, reopened when cut off, from ten loopback addresses) against none.
# With BEFORE=<another korvalin program>, (a) also measures that program's server in the same
# run (a build from before a change).
# Needs a build (scripts/test.sh); installs nginx-light, wrk and curl from Debian when missing.
#   [BEFORE=/path/to/korvalin] bench/http_bench.sh [SECONDS per wrk run, default 10]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-10}
build=build
for p in nginx-light wrk curl; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="${missing:-} $p"
done
if [ -n "${missing:-}" ]; then
  sudo=""; [ "$(id -u)" -ne 0 ] && sudo=sudo
  $sudo apt-get update -qq && $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $missing
fi

work=$(mktemp -d /tmp/korvalin-http-bench-XXXXXX)
chmod 755 "$work"  # nginx's workers read its files as another user
pids=()
cleanup() { for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; wait 2>/dev/null; rm -rf "$work"; }
trap cleanup EXIT
free_port() { /usr/bin/python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }

# A server of `program` on store `dir`, a user and a token, and one experiment to ask about;
# sets url and token.
serve() {
  local program=$1 dir=$2
  $program serve --listen 127.0.0.1:0 --storage "$dir" --items-per-piece 100 \
    --piece-interval 0.2 2> "$dir.log" &
  pids+=($!)
  until grep -q "listening on" "$dir.log"; do sleep 0.1; done
  port=$(sed -n 's/.*listening on http:\/\/127.0.0.1:\([0-9]*\).*/\1/p' "$dir.log")
  url=http://127.0.0.1:$port
  $program admin user add bench --storage "$dir" > /dev/null
  token=$($program admin token create bench --storage "$dir" | tail -n 1)
  KORVALIN_SERVICE_URL=$url KORVALIN_TOKEN=$token $build/korvalin demo --yes --group bench --points 21 > /dev/null
}
export KORVALIN_CACHE_DIR=$work/cache
if [ -n "${BEFORE:-}" ]; then
  serve "$BEFORE" "$work/before"
  before_url=$url before_token=$token
fi
serve $build/korvalin "$work/store"
call='{"sub_process_id": 1}'
curl -s -o "$work/detail.json" -H "Authorization: Bearer $token" -H "Content-Type: application/json" \
  -d "$call" "$url/api/v1/sub_process/get_sub_process_detail"
size=$(stat -c %s "$work/detail.json")

# nginx on a port of its own, serving the same number of bytes and a 1 GiB file.
nport=$(free_port)
mkdir -p "$work/www"
cp "$work/detail.json" "$work/www/detail.json"
head -c $((1 << 30)) /dev/urandom > "$work/www/big.bin"
cat > "$work/nginx.conf" <<CONF
worker_processes auto;
pid $work/nginx.pid;
error_log $work/nginx.err;
events { worker_connections 1024; }
http {
  access_log off;
  sendfile on;
  keepalive_requests 1000000;
  client_body_temp_path $work/tmp; proxy_temp_path $work/tmp; fastcgi_temp_path $work/tmp;
  uwsgi_temp_path $work/tmp; scgi_temp_path $work/tmp;
  server { listen 127.0.0.1:$nport; root $work/www; }
}
CONF
mkdir -p "$work/tmp"
nginx -c "$work/nginx.conf" -g 'daemon off;' &
pids+=($!)
until curl -sf -o /dev/null "http://127.0.0.1:$nport/detail.json"; do sleep 0.1; done

# A wrk script for the call with `token`.
call_script() {
  cat > "$work/call-$1.lua" <<LUA
wrk.method = "POST"
wrk.body = '$call'
wrk.headers["Content-Type"] = "application/json"
wrk.headers["Authorization"] = "Bearer $2"
LUA
}
call_script after "$token"
[ -n "${BEFORE:-}" ] && call_script before "$before_token"
# Requests per second of one wrk run; a run with any answer other than 2xx does not count.
rate() {
  out=$(wrk "$@")
  if grep -q "Non-2xx" <<< "$out"; then echo "wrk: error answers: $out" >&2; exit 1; fi
  sed -n 's/^Requests\/sec: *//p' <<< "$out"
}
ratio() { /usr/bin/python3 -c "print(round($1/$2, 2))"; }
echo "(a) small calls, $size-byte answers, $seconds s per run (requests/s)"
for conns in 1 32; do
  threads=$([ "$conns" = 1 ] && echo 1 || echo 2)
  ours=$(rate -t"$threads" -c"$conns" -d"${seconds}s" -s "$work/call-after.lua" "$url/api/v1/sub_process/get_sub_process_detail")
  theirs=$(rate -t"$threads" -c"$conns" -d"${seconds}s" "http://127.0.0.1:$nport/detail.json")
  line="  $conns connection(s): korvalin serve $ours, nginx $theirs, ratio $(ratio "$ours" "$theirs")"
  if [ -n "${BEFORE:-}" ]; then
    old=$(rate -t"$threads" -c"$conns" -d"${seconds}s" -s "$work/call-before.lua" "$before_url/api/v1/sub_process/get_sub_process_detail")
    line="$line; before: $old, ratio $(ratio "$old" "$theirs")"
  fi
  echo "$line"
done

echo "(b) 1 GiB pulled: HttpBackend against curl from nginx (seconds, peak RSS)"
locator=$(curl -s -T "$work/www/big.bin" -H "Authorization: Bearer $token" -H "Content-Type: application/octet-stream" \
  "$url/api/v1/objects?name=big&category=result&format=bin")
bucket=$(/usr/bin/python3 -c "import json,sys; print(json.loads(sys.argv[1])['bucket'])" "$locator")
object=$(/usr/bin/python3 -c "import json,sys; print(json.loads(sys.argv[1])['object'])" "$locator")
for i in 1 2 3; do
  ours=$($build/bench/http_client_bench download "$url" "$token" "$bucket" "$object")
  theirs=$( { /usr/bin/time -f "%e s, %M KiB" curl -sf -o "$work/fetched.bin" "http://127.0.0.1:$nport/big.bin"; } 2>&1 )
  theirs="$theirs, $(stat -c %s "$work/fetched.bin") bytes"
  rm -f "$work/fetched.bin"
  echo "  run $i: HttpBackend $ours; curl $theirs"
done

echo "(c) 32 clients following one live experiment of 2000 items"
$build/bench/http_client_bench follow "$url" "$token" bench 32 2000

echo "(d) one connection's calls per second, $seconds s, with 1,000 slow connections open and without"
quiet=$(rate -t1 -c1 -d"${seconds}s" -s "$work/call-after.lua" "$url/api/v1/sub_process/get_sub_process_detail")
$build/bench/http_client_bench slow "$port" 1000 $((seconds + 4)) > "$work/slow.out" &
slow_pid=$!
sleep 2  # the slow connections open
loaded=$(rate -t1 -c1 -d"${seconds}s" -s "$work/call-after.lua" "$url/api/v1/sub_process/get_sub_process_detail")
wait $slow_pid
echo "  without: $quiet; with 1,000 slow: $loaded; ratio $(ratio "$loaded" "$quiet") ($(cat "$work/slow.out"))"
