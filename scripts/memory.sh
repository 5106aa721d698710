#!/usr/bin/env bash
# Private dirty memory of an idle host server, per mapping.
#
#   scripts/memory.sh [--build DIR] [--tls]
#
# Starts the BP simulator and build/bin/lapi_srv_host on a fresh short root,
# waits until the server accepts clients, and prints Private_Dirty of every
# mapping of the server (from /proc/PID/smaps, summed per file; anonymous
# mappings are named after the file they follow, so the program's bss shows
# as "[anon] after lapi_srv_host"), then the total.
#
# --tls      then opens a TLS session through the server to a local
#            openssl s_server on 127.0.0.1 (a certificate made here and
#            now), and prints the figures again
# --build DIR  the build folder (default: build)
#
# Run it after a build: the page cache of freshly written binaries counts as
# dirty until it is written back, so the script syncs first.
set -euo pipefail
cd "$(dirname "$0")/.."
LAPI_SCRIPT=memory
# shellcheck source=scripts/lib.sh
. scripts/lib.sh

usage() { echo "usage: scripts/memory.sh [--build DIR] [--tls]" >&2; exit 2; }
BUILD=build
TLS=0
while [ $# -gt 0 ]; do
    case "$1" in
        --build) [ $# -ge 2 ] || usage; BUILD=$2; shift ;;
        --tls) TLS=1 ;;
        -h|--help) sed -n '2,18p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) usage ;;
    esac
    shift
done
SRV_BIN="$BUILD/bin/lapi_srv_host"
SIM_BIN="$BUILD/bin/bpsim"
for b in "$SRV_BIN" "$SIM_BIN"; do
    [ -x "$b" ] || { echo "memory: $b is missing; build it first" >&2; exit 1; }
done

ROOT=$(mktemp -d /tmp/lm.XXXXXX)
SIM_PID=""
SRV_PID=""
TLS_PID=""
cleanup() {
    lapi_stop_pid "$SRV_PID"
    lapi_stop_pid "$TLS_PID"
    exec 7>&- 2>/dev/null || true
    lapi_stop_pid "$SIM_PID"
    rm -rf "$ROOT"
}
trap cleanup EXIT

# Waits up to 10 s for a line matching a pattern in a file.
wait_line() {
    lapi_wait_line "$1" "$2" && return 0
    echo "memory: no '$2' in $1:" >&2
    tail -n 5 "$1" >&2
    return 1
}

mkfifo "$ROOT/bpsim.in"
exec 7<>"$ROOT/bpsim.in"
"$SIM_BIN" --root "$ROOT" --quiet <&7 >"$ROOT/bpsim.log" 2>&1 &
SIM_PID=$!
wait_line "$ROOT/bpsim.log" '^bpsim: ready'
# Started from this script the server is not a process-group leader: it
# does not fork, and $! is the server.
"$SRV_BIN" --root "$ROOT" >/dev/null 2>"$ROOT/lapi_srv.log" &
SRV_PID=$!
for _ in $(seq 100); do
    [ -S "$ROOT/tmp/lapisock" ] && break
    sleep 0.1
done
[ -S "$ROOT/tmp/lapisock" ] || { echo "memory: the server did not start" >&2; exit 1; }
sync

# Private_Dirty in kB per file of the server's mappings, largest first.
report() {
    echo "== $1: Private_Dirty of lapi_srv_host (pid $SRV_PID), kB"
    awk '
        /^[0-9a-f]+-[0-9a-f]+ / {
            n = split($0, f, " ")
            name = (n >= 6) ? f[6] : ""
            sub(".*/", "", name)
            if (name == "") name = "[anon] after " last
            else if (name !~ /^\[/) last = name
            next
        }
        /^Private_Dirty:/ { kb[name] += $2; total += $2 }
        END {
            for (m in kb) if (kb[m] > 0) printf "%8d  %s\n", kb[m], m
            printf "%8d  total\n", total > "/dev/stderr"
        }' "/proc/$SRV_PID/smaps" 2>"$ROOT/total" | sort -rn
    cat "$ROOT/total"
}
report idle

[ "$TLS" -eq 1 ] || exit 0
# One self-signed certificate for 'localhost', trusted as the root.
PKI="$ROOT/pki"
mkdir -p "$PKI" "$ROOT/etc/certs"
openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj "/CN=memory" \
    -addext subjectAltName=DNS:localhost -keyout "$PKI/server.key" -out "$PKI/server.pem" \
    >"$PKI/openssl.log" 2>&1 || { echo "memory: openssl could not make a certificate" >&2; exit 1; }
cp "$PKI/server.pem" "$ROOT/etc/certs/memory.pem"
lapi_start_s_server "$PKI" "$PKI/server.pem" "$PKI/server.key" "$ROOT/s_server.log" ||
    { echo "memory: openssl s_server did not start" >&2; exit 1; }
echo "sockopen 5 localhost $TLS_PORT" >&7
wait_line "$ROOT/bpsim.log" 'socket open-rsp .* link 5 result 0'
echo "socktls 5 localhost" >&7
wait_line "$ROOT/bpsim.log" 'socket tls-rsp .* link 5 result 0'
sync
report "after one TLS handshake"
