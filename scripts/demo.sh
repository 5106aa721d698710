#!/usr/bin/env bash
# The whole system in one command: builds the location server, the BP
# simulator and the lapi tool, starts the simulator and the server on a
# private temporary root, asks the server for a location fix and for a
# distance, prints the answers, delivers a SUPL INIT push as an SMS for the
# WAP push port and shows the engine receiving it, has the simulated engine
# fetch a page over TLS through the server's network proxy (from a local
# openssl s_server), and stops everything.
#
#   scripts/demo.sh [--build-dir DIR] [--keep]
#
# On a machine that lacks the build tools it installs them first (as root:
# apt-get update, then apt-get install). Exit status 0 when every step
# worked; otherwise 1 with a message naming the step that failed.
set -euo pipefail

REPO=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
LAPI_SCRIPT=demo
# shellcheck source=scripts/lib.sh
. "$REPO/scripts/lib.sh"
BUILD="$REPO/build"
KEEP=0
PACKAGES=(cmake ninja-build g++ libgtest-dev libgmock-dev libssl-dev openssl)

# The fix the simulated positioning engine reports, and a second point for
# the distance: Paris and London.
FIX_LAT=48.8566
FIX_LON=2.3522
FIX_ALT=35
TO_LAT=51.5074
TO_LON=-0.1278

usage() {
    cat <<EOF
Usage: scripts/demo.sh [--build-dir DIR] [--keep]

Builds lapi_srv_host, bpsim, lapi and lapi_push, runs the server against the
BP simulator on a temporary root, shows 'lapi locate' and 'lapi distance',
then sends a SUPL INIT push with 'lapi_push' and shows the engine getting it;
then the simulated engine opens a connection to 'localhost' through the
server, asks for TLS 1.0 with the host-name check, sends an HTTP request to a
local openssl s_server and prints the answer that comes back.

  --build-dir DIR  build in DIR (default: build/ in the repository)
  --keep           keep the temporary root (logs, socket folder) afterwards
  -h, --help       this text
EOF
}

while [ $# -gt 0 ]; do
    case "$1" in
        --build-dir)
            [ $# -ge 2 ] || { echo "demo: --build-dir needs a folder" >&2; exit 2; }
            BUILD=$2
            shift 2
            ;;
        --keep) KEEP=1; shift ;;
        -h | --help) usage; exit 0 ;;
        *) echo "demo: unknown argument '$1'" >&2; usage >&2; exit 2 ;;
    esac
done
case "$BUILD" in
    /*) ;;
    *) BUILD="$PWD/$BUILD" ;;
esac

step() { printf '\n==> %s\n' "$*"; }
fail() {
    printf '\ndemo: FAILED: %s\n' "$*" >&2
    exit 1
}

# ---- 1. tools ---------------------------------------------------------------
missing=()
command -v cmake >/dev/null 2>&1 || missing+=(cmake)
command -v ninja >/dev/null 2>&1 || missing+=(ninja-build)
command -v g++ >/dev/null 2>&1 || missing+=(g++)
[ -e /usr/include/gtest/gtest.h ] || missing+=(libgtest-dev)
[ -e /usr/include/gmock/gmock.h ] || missing+=(libgmock-dev)
[ -e /usr/include/openssl/ssl.h ] || missing+=(libssl-dev)
command -v openssl >/dev/null 2>&1 || missing+=(openssl)
if [ ${#missing[@]} -gt 0 ]; then
    step "Installing build tools (missing: ${missing[*]})"
    command -v apt-get >/dev/null 2>&1 ||
        fail "no apt-get on this machine; install ${PACKAGES[*]} by hand"
    if [ "$(id -u)" -eq 0 ]; then
        SUDO=()
    elif command -v sudo >/dev/null 2>&1 && sudo -n true 2>/dev/null; then
        SUDO=(sudo)
    else
        fail "installing needs root: run 'apt-get update && apt-get install -y ${PACKAGES[*]}' as root, then this script again"
    fi
    "${SUDO[@]}" apt-get update || fail "apt-get update"
    DEBIAN_FRONTEND=noninteractive "${SUDO[@]}" apt-get install -y "${PACKAGES[@]}" ||
        fail "apt-get install ${PACKAGES[*]}"
fi

# ---- 2. build ---------------------------------------------------------------
step "Building the server, the BP simulator and the lapi and lapi_push tools in $BUILD"
if [ ! -e "$BUILD/CMakeCache.txt" ]; then
    cmake -S "$REPO" -B "$BUILD" -G Ninja || fail "cmake could not configure the build"
fi
cmake --build "$BUILD" --target lapi_srv_host bpsim lapi_tool lapi_push || fail "the build failed"
SRV_BIN="$BUILD/bin/lapi_srv_host"
SIM_BIN="$BUILD/bin/bpsim"
LAPI_BIN="$BUILD/bin/lapi"
PUSH_BIN="$BUILD/bin/lapi_push"
for b in "$SRV_BIN" "$SIM_BIN" "$LAPI_BIN" "$PUSH_BIN"; do
    [ -x "$b" ] || fail "the build did not produce $b"
done

# ---- 3. run -----------------------------------------------------------------
ROOT=$(mktemp -d /tmp/lapi-demo.XXXXXX) || fail "cannot create a temporary folder"
SIM_PID=""
SRV_PID=""
LAUNCHER_PID=""
TLS_PID=""

cleanup() {
    local rc=$?
    trap - EXIT INT TERM
    lapi_stop_pid "$SRV_PID"
    [ "$LAUNCHER_PID" = "$SRV_PID" ] || lapi_stop_pid "$LAUNCHER_PID"
    exec 7>&- 2>/dev/null || true
    lapi_stop_pid "$SIM_PID"
    lapi_stop_pid "$TLS_PID"
    if [ $rc -ne 0 ] && [ -s "$ROOT/lapi_srv.log" ]; then
        echo "--- last lines of the server's diagnostics ($ROOT/lapi_srv.log) ---" >&2
        tail -n 20 "$ROOT/lapi_srv.log" >&2
    fi
    if [ "$KEEP" -eq 1 ]; then
        echo "demo: kept $ROOT"
    else
        rm -rf "$ROOT"
    fi
    exit $rc
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

step "Starting the BP simulator on $ROOT/dev/mux18"
# The simulated engine reports this position, with one NMEA sentence.
# shellcheck disable=SC2016 # the sentence starts with a literal '$'
printf '%s\r\n' '$GPGGA,120000.00,4851.396,N,00221.132,E,1,08,0.9,35.0,M,45.0,M,,*5C' \
    >"$ROOT/fix.nmea"
# The simulator takes commands on its standard input; keep a pipe open to it.
mkfifo "$ROOT/bpsim.in"
exec 7<>"$ROOT/bpsim.in"
"$SIM_BIN" --root "$ROOT" --lat "$FIX_LAT" --lon "$FIX_LON" --alt "$FIX_ALT" \
    --nmea "$ROOT/fix.nmea" --quiet <&7 >"$ROOT/bpsim.log" 2>&1 &
SIM_PID=$!
lapi_wait_line "$ROOT/bpsim.log" '^bpsim: ready' "$SIM_PID" ||
    fail "the BP simulator did not become ready: $(cat "$ROOT/bpsim.log")"

# The engine's answer to distance requests: the great-circle distance and
# the initial bearing between the two points.
read -r DIST AZ < <(awk -v a="$FIX_LAT" -v b="$FIX_LON" -v c="$TO_LAT" -v d="$TO_LON" 'BEGIN {
    pi = atan2(0, -1); r = pi / 180; R = 6371008.8
    p1 = a * r; p2 = c * r; dl = (d - b) * r
    h = sin((p2 - p1) / 2) ^ 2 + cos(p1) * cos(p2) * sin(dl / 2) ^ 2
    dist = 2 * R * atan2(sqrt(h), sqrt(1 - h))
    az = atan2(sin(dl) * cos(p2), cos(p1) * sin(p2) - sin(p1) * cos(p2) * cos(dl)) / r
    if (az < 0) az += 360
    printf "%.1f %.2f\n", dist, az
}')
echo "distance $DIST $AZ" >&7

step "Starting the location server (lapi_srv_host --root $ROOT)"
"$SRV_BIN" --root "$ROOT" >"$ROOT/lapi_srv.out" 2>"$ROOT/lapi_srv.log" &
LAUNCHER_PID=$!
SRV_PID=$LAUNCHER_PID
ready=0
for _ in $(seq 100); do
    if [ -S "$ROOT/tmp/lapisock" ] &&
        "$LAPI_BIN" --root "$ROOT" watch --no-mtlr --timeout 1 >/dev/null 2>&1; then
        ready=1
        break
    fi
    # Started as a process-group leader, the launcher forks and its first
    # process exits 0; the pid file then names the server.
    if ! kill -0 "$LAUNCHER_PID" 2>/dev/null && [ ! -s "$ROOT/tmp/lapi.pid" ]; then
        fail "the server stopped at start (diagnostics: $ROOT/lapi_srv.log)"
    fi
    sleep 0.1
done
[ $ready -eq 1 ] || fail "the server's socket $ROOT/tmp/lapisock did not accept connections"
if [ -s "$ROOT/tmp/lapi.pid" ]; then
    SRV_PID=$(head -n 1 "$ROOT/tmp/lapi.pid")
fi
echo "server pid $SRV_PID; socket $ROOT/tmp/lapisock; diagnostics in $ROOT/lapi_srv.log"

step "lapi --root $ROOT locate --nmea"
"$LAPI_BIN" --root "$ROOT" locate --nmea || fail "'lapi locate' did not get a fix"

step "lapi --root $ROOT distance $FIX_LAT $FIX_LON $TO_LAT $TO_LON"
echo "(the simulated engine answers with the great-circle distance in metres and the"
echo " initial bearing in degrees, computed by this script: $DIST m, $AZ deg)"
"$LAPI_BIN" --root "$ROOT" distance "$FIX_LAT" "$FIX_LON" "$TO_LAT" "$TO_LON" ||
    fail "'lapi distance' did not get an answer"

# A network-initiated session starts with a SUPL INIT from the network,
# delivered as a WAP push in an SMS for application port 2948 (here through
# the telephony stand-in's FIFO; no UDP port is needed).
SUPL_INIT="00 2a 02 00 00 40 0c 1a 80 01 02 03 04 05 06 07 08 09 10 60 00 a0 8c 00"
step "lapi_push --root $ROOT --supl-init --hex '$SUPL_INIT'"
echo "(a SUPL INIT wrapped in a WSP push PDU, sent as an SMS for port 2948; the"
echo " server decodes the push and forwards its body to the engine)"
"$PUSH_BIN" --root "$ROOT" --supl-init --hex "$SUPL_INIT" || fail "'lapi_push' could not send"
pushed=0
for _ in $(seq 50); do
    if grep -q '^bpsim: push indication' "$ROOT/bpsim.log"; then
        pushed=1
        break
    fi
    sleep 0.1
done
[ $pushed -eq 1 ] || fail "the engine did not receive the push indication"
grep '^bpsim: push indication' "$ROOT/bpsim.log" | head -n 1

step "TLS through the server: the engine fetches https://localhost/supl.txt"
# A test CA made here and now, trusted by the server (ROOT/etc/certs), and a
# certificate for 'localhost' in its subjectAltName: 'localhost' has no dot,
# so the common-name rule cannot pass it and the subjectAltName walk must.
PKI="$ROOT/pki"
mkdir -p "$PKI" "$ROOT/www" "$ROOT/etc/certs"
{
    openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj "/CN=LAPI demo CA" \
        -keyout "$PKI/ca.key" -out "$PKI/ca.pem" &&
        openssl req -new -newkey rsa:2048 -nodes -subj "/CN=demo server" \
            -keyout "$PKI/server.key" -out "$PKI/server.csr" &&
        printf 'subjectAltName=DNS:localhost\n' >"$PKI/server.ext" &&
        openssl x509 -req -days 1 -in "$PKI/server.csr" -CA "$PKI/ca.pem" -CAkey "$PKI/ca.key" \
            -set_serial 1 -extfile "$PKI/server.ext" -out "$PKI/server.pem"
} >"$PKI/openssl.log" 2>&1 || fail "openssl could not make the demo certificates ($PKI/openssl.log)"
cp "$PKI/ca.pem" "$ROOT/etc/certs/demo-ca.pem"
printf 'Assistance data for the engine: 42 satellites in view.\n' >"$ROOT/www/supl.txt"

# openssl s_server on 127.0.0.1, TLS 1.0 only, serving ROOT/www.
lapi_start_s_server "$ROOT/www" "$PKI/server.pem" "$PKI/server.key" "$ROOT/s_server.log" ||
    fail "openssl s_server did not start"
echo "openssl s_server -tls1 on 127.0.0.1:$TLS_PORT, certificate for DNS:localhost"

REQUEST='GET /supl.txt HTTP/1.0\r\n\r\n'
# shellcheck disable=SC2059 # the request's \r\n are printf escapes
REQUEST_HEX=$(printf "$REQUEST" | od -An -tx1 | tr -s ' \n' ' ')
echo "engine: sockopen 5 localhost $TLS_PORT"
echo "sockopen 5 localhost $TLS_PORT" >&7
lapi_wait_line "$ROOT/bpsim.log" 'socket open-rsp .* link 5 result 0' || fail "the server did not open the connection"
echo "engine: socktls 5 localhost"
echo "socktls 5 localhost" >&7
lapi_wait_line "$ROOT/bpsim.log" 'socket tls-rsp .* link 5 result 0' ||
    fail "the TLS handshake or the host-name check failed ($(grep 'tls-rsp' "$ROOT/bpsim.log"))"
echo "engine: socksend 5 ($REQUEST)"
echo "socksend 5 $REQUEST_HEX" >&7
lapi_wait_line "$ROOT/bpsim.log" 'socket data link 5 .* result -1' || fail "no answer came back over TLS"
grep '^bpsim: socket' "$ROOT/bpsim.log" | sed 's/^bpsim: /  /' | cut -c1-100
printf 'TLS request sent through the server: %s\n' "$REQUEST"
printf 'TLS answer received through the server:\n'
answer_hex=$(grep '^bpsim: socket data link 5 .* data ' "$ROOT/bpsim.log" | sed 's/.* data //' | tr '\n' ' ')
# shellcheck disable=SC2059 # the hex bytes become \xHH escapes for printf
printf "$(printf '%s' "$answer_hex" | sed 's/ *\([0-9a-fA-F][0-9a-fA-F]\) */\\x\1/g')" | tr -d '\r' |
    sed 's/^/  | /'
echo
grep -q 'TLShandshake -- Successfull' "$ROOT/lapi_srv.log" ||
    fail "the server's diagnostics do not show the handshake"
version=$(grep -o 'Negotiated protocol version is : [0-9]*' "$ROOT/lapi_srv.log" | head -1 | sed 's/.*: //')
suite=$(grep -o 'Negotiated cipher is : [0-9]*' "$ROOT/lapi_srv.log" | head -1 | sed 's/.*: //')
printf "(protocol 0x%04X = TLS 1.0, suite 0x%04X = TLS_RSA_WITH_AES_128_CBC_SHA; the certificate\n" \
    "${version:-0}" "${suite:-0}"
echo " passed the server's subjectAltName check for 'localhost')"
lapi_stop_pid "$TLS_PID"
TLS_PID=""

step "Stopping the server and the simulator"
lapi_stop_pid "$SRV_PID"
[ "$LAUNCHER_PID" = "$SRV_PID" ] || lapi_stop_pid "$LAUNCHER_PID"
if [ -e "$ROOT/tmp/lapi.pid" ]; then
    fail "the server did not remove its pid file on SIGTERM"
fi
SRV_PID=""
LAUNCHER_PID=""
lapi_stop_pid "$SIM_PID"
SIM_PID=""
printf '\nDemo finished: the server answered a location request and a distance request,\n'
printf 'forwarded a SUPL INIT push to the engine, and carried the engine'"'"'s TLS session\n'
printf 'to a local server.\n'
