#!/usr/bin/env bash
# A registration that --if-changed leaves unsent, beside --check of the same
# document: both load, validate, substitute and render it; the skip hashes the
# body as it renders it and reads its record instead of connecting.
#
#   bench/skip.sh [build-dir] [MB] [runs]      (default: build 10 20)
#
# Generates a document of about MB megabytes, registers it once with a local
# sink (bench/sink.py) so that the record exists, then times both commands
# with hyperfine (scripts/deps.sh hyperfine) and prints the ratios of their
# mean wall times, median wall times and mean CPU times (user and system: on a
# loaded machine the wall times scatter).
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "${1:-build}" && pwd)
mb=${2:-10}
runs=${3:-20}
command -v hyperfine >/dev/null || { echo "hyperfine is missing: scripts/deps.sh hyperfine" >&2; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/kivreg-skip.XXXXXX")
sink_pid=""
cleanup() {
    [ -z "$sink_pid" ] || kill "$sink_pid" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

python3 "$here/sink.py" >"$work/sink.log" 2>&1 &
sink_pid=$!
for _ in $(seq 100); do
    grep -qs "listening on" "$work/sink.log" && break
    sleep 0.05
done
port=$(sed -n 's/.*listening on 127\.0\.0\.1://p' "$work/sink.log")

"$build/kivreg_gen_documents" "$mb" "$work/doc.xml" "$work/sym" >/dev/null
skip="$build/kivreg -file $work/doc.xml -symbolfile $work/sym -user u -pass p -host 127.0.0.1 -port $port --if-changed --spool $work/spool"
check="$build/kivreg --check -file $work/doc.xml -symbolfile $work/sym"
$skip >"$work/first.log" || { cat "$work/first.log" >&2; exit 1; }
$skip >"$work/second.log"
grep -q "Registration unchanged since" "$work/second.log" || { echo "the second run was not skipped" >&2; exit 1; }
$check | tail -n 1

hyperfine -N -w 2 -r "$runs" --export-json "$work/times.json" -n skip "$skip" -n check "$check"
python3 - "$work/times.json" <<'PY'
import json, sys
r = {x["command"]: x for x in json.load(open(sys.argv[1]))["results"]}
cpu = {k: v["user"] + v["system"] for k, v in r.items()}
print("skip/check: wall %.3f (means %.1f ms / %.1f ms; medians %.3f), CPU %.3f (%.1f ms / %.1f ms)" % (
    r["skip"]["mean"] / r["check"]["mean"], r["skip"]["mean"] * 1e3, r["check"]["mean"] * 1e3,
    r["skip"]["median"] / r["check"]["median"], cpu["skip"] / cpu["check"], cpu["skip"] * 1e3,
    cpu["check"] * 1e3))
PY
