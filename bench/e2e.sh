#!/usr/bin/env bash
# End to end: kivreg against the tools a user would otherwise script, on
# generated documents, posting to a local sink that keeps nothing.
#
#   bench/e2e.sh [build-dir] [sizes in MB ...]      (default: 0.01 1 10 100 300)
#
# For each size it prints the median wall time of kivreg (with symbols), of the
# floor (xmllint --sax --noout, then curl -T posting the file) and of the DOM
# path (xmllint --noout, then curl --data-binary @file) and of curl alone
# posting the file, kivreg's ratios to them,
# kivreg's seconds per MB and its peak RSS over the document size; then
# kivreg over HTTPS against kivreg over HTTP and curl over HTTPS posting the
# same file at 100 MB (or the largest size asked for below it). Medians of 5
# runs (11 up to 1 MB), the commands taken in turn. Needs xmllint, curl, openssl, python3 and
# about three times the largest document in free space under TMPDIR.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "${1:-build}" && pwd)
shift || true
sizes=("$@")
[ ${#sizes[@]} -gt 0 ] || sizes=(0.01 1 10 100 300)

work=$(mktemp -d "${TMPDIR:-/tmp}/kivreg-e2e.XXXXXX")
sink_pid=""
tls_pid=""
cleanup() {
    for pid in $sink_pid $tls_pid; do kill "$pid" 2>/dev/null || true; done
    rm -rf "$work"
}
trap cleanup EXIT

start_sink() {  # start_sink <log> [sink options]: echoes the pid; the port goes to the log
    local log=$1
    shift
    python3 "$here/sink.py" "$@" >"$log" 2>&1 &
    local pid=$!
    for _ in $(seq 100); do
        grep -qs "listening on" "$log" && break
        sleep 0.05
    done
    echo "$pid"
}
port_of() { sed -n 's/.*listening on 127\.0\.0\.1://p' "$1"; }

sink_pid=$(start_sink "$work/sink.log")
url="http://127.0.0.1:$(port_of "$work/sink.log")/kiv/ds"
port=$(port_of "$work/sink.log")

now() { date +%s%N; }
# took <file> <command ...>: appends the command's wall time in ns to the file.
took() {
    local file=$1 start
    shift
    start=$(now)
    "$@" >/dev/null 2>&1 || { echo "failed: $*" >&2; exit 1; }
    echo $(($(now) - start)) >>"$file"
}
# median <file>: the median of the times in it, in seconds.
median() {
    sort -n "$1" | awk '{ t[NR] = $1 } END { printf "%.4f", (NR % 2 ? t[(NR + 1) / 2] : (t[NR / 2] + t[NR / 2 + 1]) / 2) / 1e9 }'
}
runs_for() { awk -v mb="$1" 'BEGIN { print (mb <= 1 ? 11 : 5) }'; }

kivreg() {  # kivreg <doc> <symbols> [options]: one registration
    local doc=$1 sym=$2
    shift 2
    "$build/kivreg" -file "$doc" -symbolfile "$sym" -user u -pass p -host 127.0.0.1 "$@"
}
floor() { xmllint --sax --noout "$1" >/dev/null && curl -sf -o /dev/null -X POST -T "$1" "$2"; }
dom() { xmllint --noout "$1" && curl -sf -o /dev/null --data-binary @"$1" "$2"; }
post() { curl -sf -o /dev/null -X POST -T "$1" "$2" "${@:3}"; }

printf '%-8s %9s %9s %9s %9s %9s %9s %9s %9s %9s\n' MB kivreg floor dom curl \
    k/floor k/dom k/curl s/MB rss/doc
tls_size=""
for mb in "${sizes[@]}"; do
    doc="$work/doc.xml" sym="$work/sym.properties"
    "$build/kivreg_gen_documents" "$mb" "$doc" "$sym" >/dev/null
    bytes=$(stat -c %s "$doc")
    runs=$(runs_for "$mb")
    rm -f "$work"/t.*
    # Taken in turn, so that the load of the moment weighs on all alike.
    for _ in $(seq "$runs"); do
        took "$work/t.k" kivreg "$doc" "$sym" -port "$port"
        took "$work/t.f" floor "$doc" "$url"
        took "$work/t.d" dom "$doc" "$url"
        took "$work/t.c" post "$doc" "$url"
    done
    k=$(median "$work/t.k") f=$(median "$work/t.f") d=$(median "$work/t.d") c=$(median "$work/t.c")
    /usr/bin/time -f %M -o "$work/rss" "$build/kivreg" -file "$doc" -symbolfile "$sym" \
        -user u -pass p -host 127.0.0.1 -port "$port" >/dev/null
    awk -v mb="$mb" -v k="$k" -v f="$f" -v d="$d" -v c="$c" -v b="$bytes" -v rss="$(cat "$work/rss")" \
        'BEGIN { printf "%-8s %9.4f %9.4f %9.4f %9.4f %9.2f %9.2f %9.2f %9.4f %9.2f\n",
                 mb, k, f, d, c, k / f, k / d, k / c, k / (b / 1048576), rss * 1024 / b }'
    if awk -v mb="$mb" 'BEGIN { exit !(mb <= 100) }'; then tls_size=$mb; fi
    rm -f "$doc"
done

[ -n "$tls_size" ] || exit 0
# HTTPS: a certificate authority and a server certificate made for this run.
(
    cd "$work"
    openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=bench-ca \
        -keyout ca.key -out ca.pem 2>/dev/null
    printf 'subjectAltName=IP:127.0.0.1\n' >san.ext
    openssl req -newkey rsa:2048 -nodes -subj /CN=127.0.0.1 -keyout server.key \
        -out server.csr 2>/dev/null
    openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 1 \
        -extfile san.ext -out server.pem 2>/dev/null
    cp ca.pem kivreg_trust.pem
)
tls_pid=$(start_sink "$work/tls.log" --cert "$work/server.pem" --key "$work/server.key")
tls_port=$(port_of "$work/tls.log")
doc="$work/doc.xml" sym="$work/sym.properties"
"$build/kivreg_gen_documents" "$tls_size" "$doc" "$sym" >/dev/null
export SECUDIR="$work"
rm -f "$work"/t.*
for _ in $(seq 5); do
    took "$work/t.k" kivreg "$doc" "$sym" -port "$tls_port" -usehttps
    took "$work/t.h" kivreg "$doc" "$sym" -port "$port"
    took "$work/t.c" post "$doc" "https://127.0.0.1:$tls_port/kiv/ds" --cacert "$work/ca.pem"
done
k=$(median "$work/t.k") h=$(median "$work/t.h") c=$(median "$work/t.c")
awk -v mb="$tls_size" -v k="$k" -v h="$h" -v c="$c" \
    'BEGIN { printf "HTTPS %s MB: kivreg %.4f s, over HTTP %.4f s, HTTPS/HTTP %.2f; curl %.4f s, kivreg/curl %.2f\n", mb, k, h, k / h, c, k / c }'
