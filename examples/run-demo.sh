#!/usr/bin/env bash
# Registers the example supplier document with a local directory server:
# starts tools/kivreg_dirserver.py on a free loopback port, writes a connect
# file for it, runs kivreg, shows what the server stored, stops the server.
#   examples/run-demo.sh [build-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
work=$(mktemp -d "${TMPDIR:-/tmp}/kivreg-demo-XXXXXX")
server_pid=""
cleanup() {
  if [ -n "$server_pid" ]; then kill -TERM "$server_pid" 2>/dev/null || true; wait "$server_pid" 2>/dev/null || true; fi
}
trap cleanup EXIT

python3 tools/kivreg_dirserver.py --quiet --user supplier --password demo-secret \
  --store "$work/store" >"$work/server.out" &
server_pid=$!
port=""
for _ in $(seq 200); do
  port=$(sed -n 's/^listening on .*:\([0-9][0-9]*\)$/\1/p' "$work/server.out")
  [ -n "$port" ] && break
  kill -0 "$server_pid" 2>/dev/null || { cat "$work/server.out"; exit 1; }
  sleep 0.05
done
[ -n "$port" ] || { echo "the directory server did not start"; exit 1; }
echo "== directory server listening on 127.0.0.1:$port (store: $work/store)"

echo "== kivreg -configure: connect file $work/demo.conn"
"$build/kivreg" -configure "$work/demo.conn" -user supplier -pass demo-secret \
  -host 127.0.0.1 -port "$port"

echo "== kivreg: registering examples/supplier.xml"
status=0
"$build/kivreg" -file examples/supplier.xml -symbolfile examples/symbols.properties \
  -connectfile "$work/demo.conn" || status=$?

echo "== the directory server stored:"
for f in "$work"/store/*.xml; do
  [ -e "$f" ] || { echo "(nothing)"; break; }
  echo "$f ($(wc -c <"$f") bytes)"
  head -c 400 "$f"; echo " ..."
done
echo "== kivreg exit status: $status"
exit "$status"
