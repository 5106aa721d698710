#!/usr/bin/env bash
# Installs the build into a private DESTDIR and checks what an integrator or
# another project gets from it. Run by ctest, one check per test:
#
#   install_test.sh BUILD_DIR SOURCE_DIR layout    files, SONAME, exports,
#                                                  headers alone, versions,
#                                                  man pages
#   install_test.sh BUILD_DIR SOURCE_DIR clients   a C program built with
#                                                  pkg-config and a CMake project
#                                                  with find_package(lapi), both
#                                                  against the installed tree
#                                                  only, run against the
#                                                  installed lapi_srv_host + bpsim
#   install_test.sh BUILD_DIR SOURCE_DIR unit      systemd-analyze verify of the
#                                                  installed unit (exit 77, a
#                                                  skip, without the tool)
set -euo pipefail

if [ $# -ne 3 ] || [ "${1:-}" = "--help" ]; then
    sed -n '2,16p' "$0" | sed 's/^# \{0,1\}//'
    [ "${1:-}" = "--help" ] && exit 0
    exit 2
fi
BUILD=$1
SRC=$2
CHECK=$3

WORK=$(mktemp -d /tmp/lapi-install.XXXXXX)
SIM_PID=""
SRV_PID=""
cleanup() {
    local rc=$?
    for pid in $SRV_PID $SIM_PID; do
        kill -TERM "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    if [ $rc -ne 0 ]; then
        for log in "$WORK"/*.log; do
            [ -s "$log" ] || continue
            echo "--- $log" >&2
            tail -n 20 "$log" >&2
        done
    fi
    rm -rf "$WORK"
    exit $rc
}
trap cleanup EXIT

fail() {
    echo "install test ($CHECK): $*" >&2
    exit 1
}

# Polls a condition every 50 ms for at most $1 seconds.
wait_for() {
    local seconds=$1
    shift
    local i
    for ((i = 0; i < seconds * 20; i++)); do
        "$@" && return 0
        sleep 0.05
    done
    return 1
}

DEST=$WORK/dest
DESTDIR=$DEST cmake --install "$BUILD" >"$WORK/install.log" 2>&1 || fail "cmake --install failed"
PREFIX=$DEST$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$BUILD/CMakeCache.txt")
[ -d "$PREFIX" ] || fail "nothing installed under $PREFIX"

# Every installed file is found by name below the prefix, whatever the
# libdir of this machine is.
find_one() {
    local found
    found=$(find "$PREFIX" -name "$1" -not -type d | head -n 1)
    [ -n "$found" ] || fail "$1 is not installed"
    echo "$found"
}

check_layout() {
    local f
    for f in sbin/lapi_srv sbin/lapi_srv_host bin/lapi bin/bpsim bin/lapi_push; do
        [ -x "$PREFIX/$f" ] || fail "$f is not installed"
    done
    for f in lapi_client.h LAPI_Msg.h lapi_version.h; do
        [ -f "$PREFIX/include/lapi/$f" ] || fail "include/lapi/$f is not installed"
    done
    local so
    so=$(find_one liblapi.so.1)
    find_one liblapi.a >/dev/null
    find_one liblapi.so >/dev/null
    find_one lapi.pc >/dev/null
    find_one lapiConfig.cmake >/dev/null
    find_one lapiConfigVersion.cmake >/dev/null
    find_one lapiTargets.cmake >/dev/null
    find_one lapi_srv.service >/dev/null
    for f in lapi_srv.8 lapi_srv_host.8 lapi.1 bpsim.1 lapi_push.1 liblapi.3; do
        find_one "$f" >/dev/null
    done

    readelf -d "$so" | grep -q 'Library soname: \[liblapi.so.1\]' || fail "SONAME is not liblapi.so.1"
    local exported
    # Names as "lapi_open@@LAPI_1"; the version node itself is LAPI_1.
    exported=$(nm -D --defined-only "$so" | awk '$3 != "" {sub(/@.*/, "", $3); print $3}' |
        grep -vx LAPI_1)
    [ -n "$exported" ] || fail "liblapi.so exports nothing"
    if echo "$exported" | grep -v '^lapi_' >/dev/null; then
        fail "liblapi.so exports more than the public API: $(echo "$exported" | grep -v '^lapi_' | head -5)"
    fi
    echo "$exported" | grep -qx lapi_version || fail "liblapi.so lacks lapi_version"
    echo "$exported" | grep -qx lapi_open || fail "liblapi.so lacks lapi_open"

    # The static archive alone links a C program: nothing it needs lives in
    # another archive of the build.
    local a
    a=$(find_one liblapi.a)
    printf '#include <lapi/lapi_client.h>\nint main(void) { return lapi_version()[0] == 0; }\n' \
        >"$WORK/static.c"
    cc -I"$PREFIX/include" "$WORK/static.c" "$a" -o "$WORK/static" 2>"$WORK/static.log" ||
        fail "a C program does not link against liblapi.a alone"
    "$WORK/static" || fail "the program linked against liblapi.a failed"

    # Each public header compiles on its own, as C and as C++.
    local h lang
    for h in "$PREFIX"/include/lapi/*.h; do
        for lang in c c++; do
            printf '#include <lapi/%s>\n' "$(basename "$h")" |
                cc -x "$lang" -fsyntax-only -Wall -Wextra -Werror -pedantic -I"$PREFIX/include" - \
                    2>"$WORK/header.log" ||
                fail "$(basename "$h") does not compile alone as $lang: $(cat "$WORK/header.log")"
        done
    done

    # The tools print the version of the installed header.
    printf '#include <stdio.h>\n#include <lapi/lapi_version.h>\nint main(void) { puts(LAPI_VERSION_STRING); return 0; }\n' \
        >"$WORK/version.c"
    cc -I"$PREFIX/include" "$WORK/version.c" -o "$WORK/version" || fail "cannot build the version probe"
    local version
    version=$("$WORK/version")
    [ "$("$PREFIX/bin/lapi" --version)" = "lapi $version" ] || fail "lapi --version is not 'lapi $version'"
    [ "$("$PREFIX/bin/bpsim" --version)" = "bpsim $version" ] || fail "bpsim --version is not 'bpsim $version'"
    [ "$("$PREFIX/bin/lapi_push" --version)" = "lapi_push $version" ] ||
        fail "lapi_push --version is not 'lapi_push $version'"
    [ "$("$PREFIX/sbin/lapi_srv_host" --version)" = "lapi_srv_host $version" ] ||
        fail "lapi_srv_host --version is not 'lapi_srv_host $version'"
    grep -q "^Version: $version\$" "$(find_one lapi.pc)" || fail "lapi.pc does not say Version: $version"

    # man renders every page without a warning.
    local page
    for page in $(find "$PREFIX" -path '*/man/man*/*' -type f); do
        MANWIDTH=80 man -l "$page" >"$WORK/page.txt" 2>"$WORK/man.log" || fail "man -l $page failed"
        [ ! -s "$WORK/man.log" ] || fail "man -l $page warns: $(cat "$WORK/man.log")"
        grep -q '^NAME' "$WORK/page.txt" || fail "man -l $page renders no NAME section"
    done
    echo "layout: ok (version $version)"
}

start_server() {
    ROOT=$WORK/root
    mkdir -p "$ROOT"
    "$PREFIX/bin/bpsim" --root "$ROOT" --lat 48.8566 --lon 2.3522 --quiet </dev/null \
        >"$WORK/bpsim.log" 2>&1 &
    SIM_PID=$!
    wait_for 10 grep -q '^bpsim: ready' "$WORK/bpsim.log" || fail "bpsim did not become ready"
    # Started from a script, the server is not a process-group leader: it
    # does not fork, so $! is the server.
    "$PREFIX/sbin/lapi_srv_host" --root "$ROOT" >"$WORK/server.out" 2>"$WORK/server.log" &
    SRV_PID=$!
    wait_for 10 test -S "$ROOT/tmp/lapisock" || fail "the server's socket did not appear"
}

stop_server() {
    kill -TERM "$SRV_PID"
    local status=0
    wait "$SRV_PID" || status=$?
    SRV_PID=""
    [ $status -eq 0 ] || fail "the server exited with status $status after SIGTERM"
    [ ! -e "$ROOT/tmp/lapi.pid" ] || fail "the server left its pid file"
}

# One fix through the client built in $1; prints what it printed.
run_client() {
    local out
    out=$("$@" "$ROOT/tmp/lapisock" 2>"$WORK/client.log") || fail "$1 failed: $(cat "$WORK/client.log")"
    echo "$out" | grep -qx 'fix 48.8566 2.3522' || fail "$1 printed no fix: $out"
}

check_clients() {
    local pcdir incdir
    pcdir=$(dirname "$(find_one lapi.pc)")
    # Only the installed tree: PKG_CONFIG_LIBDIR replaces the system's
    # search path, CMAKE_PREFIX_PATH and no package registry for CMake.
    PKG_CONFIG_LIBDIR=$pcdir pkg-config --exists lapi || fail "pkg-config does not find lapi"
    local cflags libs
    cflags=$(PKG_CONFIG_LIBDIR=$pcdir pkg-config --cflags lapi)
    libs=$(PKG_CONFIG_LIBDIR=$pcdir pkg-config --libs lapi)
    # shellcheck disable=SC2086 # the flags are words
    cc -Wall -Wextra -Werror $cflags "$SRC/consumer/lapi_consumer.c" $libs -o "$WORK/consumer_pc" \
        2>"$WORK/pkgconfig.log" || fail "the pkg-config build failed"
    readelf -d "$WORK/consumer_pc" | grep -q 'Shared library: \[liblapi.so.1\]' ||
        fail "the pkg-config build does not use liblapi.so.1"

    cmake -S "$SRC/consumer" -B "$WORK/consumer" -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_PREFIX_PATH="$PREFIX" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF \
        -DCMAKE_FIND_USE_SYSTEM_PACKAGE_REGISTRY=OFF >"$WORK/cmake.log" 2>&1 ||
        fail "find_package(lapi) failed"
    grep -q "^lapi_DIR:PATH=$DEST/" "$WORK/consumer/CMakeCache.txt" ||
        fail "find_package(lapi) found a package outside the installed tree"
    cmake --build "$WORK/consumer" >>"$WORK/cmake.log" 2>&1 || fail "the CMake project did not build"

    start_server
    LD_LIBRARY_PATH=$(dirname "$(find_one liblapi.so.1)") run_client "$WORK/consumer_pc"
    run_client "$WORK/consumer/lapi_consumer_shared"
    run_client "$WORK/consumer/lapi_consumer_static"
    "$PREFIX/bin/lapi" --root "$ROOT" --json locate >"$WORK/lapi.out" 2>"$WORK/lapi.log" ||
        fail "the installed lapi got no fix"
    stop_server
    echo "clients: ok (pkg-config, find_package shared and static, lapi)"
}

check_unit() {
    if ! command -v systemd-analyze >/dev/null 2>&1; then
        echo "systemd-analyze is not installed: skipped"
        exit 77
    fi
    local unit
    unit=$(find_one lapi_srv.service)
    grep -qx 'Type=forking' "$unit" || fail "the unit is not Type=forking"
    grep -qx 'PIDFile=/tmp/lapi.pid' "$unit" || fail "the unit does not name /tmp/lapi.pid"
    # The unit names the daemon where it will be installed; verify checks
    # that it is executable there, so point it at the DESTDIR copy.
    local exec
    exec=$(sed -n 's/^ExecStart=//p' "$unit")
    [ -x "$DEST$exec" ] || fail "ExecStart=$exec is not the installed daemon"
    sed "s#^ExecStart=.*#ExecStart=$DEST$exec#" "$unit" >"$WORK/lapi_srv.service"
    SYSTEMD_LOG_LEVEL=notice systemd-analyze verify --man=no "$WORK/lapi_srv.service" >"$WORK/verify.log" 2>&1 ||
        fail "systemd-analyze verify failed: $(cat "$WORK/verify.log")"
    if grep -i 'lapi_srv.service' "$WORK/verify.log"; then
        fail "systemd-analyze verify warns about the unit"
    fi
    echo "unit: ok"
}

case "$CHECK" in
    layout) check_layout ;;
    clients) check_clients ;;
    unit) check_unit ;;
    *) fail "unknown check '$CHECK'" ;;
esac
