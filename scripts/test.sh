#!/usr/bin/env bash
# Installs what is missing, builds, and runs the test suite.
#
#   scripts/test.sh              normal build in build/, every test
#   scripts/test.sh --sanitize   clang AddressSanitizer + UndefinedBehaviorSanitizer
#                                build in build-asan/, every test
#   scripts/test.sh --fuzz N     clang libFuzzer build in build-fuzz/, each fuzz
#                                target runs N seconds from its seed corpus
#                                fuzz/corpus/<target>/; one line per target
#                                (executions, coverage, time); a finding fails
#   scripts/test.sh --format     every tracked C and C++ file matches .clang-format
#   scripts/test.sh --soak       fault-injection soak (lapi_soak) against the
#                                normal build; add --sanitize to run it against
#                                the sanitizer build (a few minutes either way)
#   scripts/test.sh --arm        cross-build for the handset (32-bit ARM) in
#                                build-arm/, unit and integration tests under
#                                qemu-arm
#   scripts/test.sh --platform-off
#                                build against stand-in libraries of the
#                                handset's platform names in build-platform/
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deps.sh

usage() { echo "usage: scripts/test.sh [--sanitize | --fuzz SECONDS | --format | --soak [--sanitize] | --arm | --platform-off]" >&2; exit 2; }

mode=normal
seconds=0
case "${1:-}" in
    "") ;;
    --sanitize) mode=sanitize; [ "${2:-}" = "--soak" ] && mode=soak-sanitize ;;
    --fuzz) mode=fuzz; seconds="${2:-}"; [[ "$seconds" =~ ^[0-9]+$ ]] || usage ;;
    --soak)
        mode=soak
        case "${2:-}" in
            "") ;;
            --sanitize) mode=soak-sanitize ;;
            *) usage ;;
        esac
        ;;
    --format) mode=format ;;
    --arm) mode=arm ;;
    --platform-off) mode=platform-off ;;
    -h|--help) sed -n '2,20p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) usage ;;
esac

if [ "$mode" = arm ]; then
    lapi_ensure_deps "${LAPI_ARM_DEPS[@]}"
else
    lapi_ensure_deps
fi
jobs=$(nproc)

case "$mode" in
normal)
    cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
    cmake --build build -j "$jobs"
    ctest --test-dir build -j "$jobs" --output-on-failure --timeout 300
    ;;
sanitize)
    CC=clang CXX=clang++ cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug \
        -DLAPI_SANITIZE=ON
    cmake --build build-asan -j "$jobs"
    # Leaks, overflows and undefined behaviour in the server make its exit
    # status non-zero, which the integration tests check.
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        ctest --test-dir build-asan -j "$jobs" --output-on-failure --timeout 600
    ;;
soak)
    cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
    cmake --build build -j "$jobs" --target lapi_soak lapi_srv_host
    build/bin/lapi_soak --server build/bin/lapi_srv_host
    ;;
soak-sanitize)
    CC=clang CXX=clang++ cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug \
        -DLAPI_SANITIZE=ON
    cmake --build build-asan -j "$jobs" --target lapi_soak lapi_srv_host
    # A leak or undefined behaviour makes the server's exit status non-zero
    # or puts a report on its standard error; the soak counts both.
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        build-asan/bin/lapi_soak --server build-asan/bin/lapi_srv_host
    ;;
fuzz)
    CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DLAPI_BUILD_FUZZ=ON -DLAPI_BUILD_TESTS=OFF
    shopt -s nullglob
    targets=()
    for src in fuzz/fuzz_*.cpp; do
        targets+=("$(basename "$src" .cpp)")
    done
    cmake --build build-fuzz -j "$jobs" --target "${targets[@]}"
    failed=0
    for name in "${targets[@]}"; do
        target="build-fuzz/bin/$name"
        corpus="build-fuzz/corpus/$name"
        mkdir -p "$corpus"
        seeds="fuzz/corpus/$name"
        [ -d "$seeds" ] || seeds=""
        log="build-fuzz/$name.log"
        artifacts="build-fuzz/artifacts/$name/"
        mkdir -p "$artifacts"
        start=$SECONDS
        rc=0
        "$target" -max_total_time="$seconds" -print_final_stats=1 \
            -artifact_prefix="$artifacts" "$corpus" $seeds >"$log" 2>&1 || rc=$?
        # The last status line holds coverage and corpus; the final stats the
        # number of executions.
        execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
        cov=$(grep -o 'cov: [0-9]*' "$log" | tail -n 1 | sed 's/cov: //')
        ft=$(grep -o 'ft: [0-9]*' "$log" | tail -n 1 | sed 's/ft: //')
        corp=$(grep -o 'corp: [0-9]*' "$log" | tail -n 1 | sed 's/corp: //')
        printf '%-20s %10s executions  cov %6s  ft %6s  corpus %5s  %4ss\n' "$name" \
            "${execs:-?}" "${cov:-?}" "${ft:-?}" "${corp:-?}" "$((SECONDS - start))"
        if [ "$rc" -ne 0 ]; then
            echo "$name: FINDING (exit status $rc); the input is in $artifacts, the log in $log:" >&2
            grep -E '^==[0-9]+==|SUMMARY|^#[0-9]+ |Test unit written' "$log" | tail -n 20 >&2 || true
            failed=1
        fi
    done
    exit "$failed"
    ;;
format)
    # Tracked files only: build folders and generated files stay out.
    mapfile -t files < <(git ls-files '*.c' '*.cc' '*.cpp' '*.h' '*.hpp')
    log=$(mktemp)
    if clang-format --dry-run --Werror "${files[@]}" 2>"$log"; then
        echo "format: ${#files[@]} files match .clang-format"
        rm -f "$log"
    else
        grep -o '^[^:]*:[0-9]*:[0-9]*: error' "$log" | cut -d: -f1 | sort -u |
            sed 's/^/format: does not match .clang-format: /' >&2
        echo "format: run 'clang-format -i FILE' on each of them" >&2
        rm -f "$log"
        exit 1
    fi
    ;;
arm)
    # Tests that cannot run under user-mode emulation, each with its reason:
    # - Daemon.StartedAsGroupLeader...: qemu-user does not pass
    #   prctl(PR_SET_CHILD_SUBREAPER) on to the kernel, so the test cannot
    #   adopt and reap the server that the launcher forks.
    # - ReadmeTest.EveryCommandRuns: the README is a host user's shell
    #   session; its commands start the build's programs from bash, which
    #   cannot run ARM programs (no binfmt_misc registration here).
    # - Hardening.SigtermArrivingOutsideTheWaitIsHeldUntilTheWait: it reads
    #   the server's blocked signals from /proc/PID/status (SigBlk); qemu-user
    #   keeps the guest's signal mask itself and the kernel's shows none.
    # - BenchSmoke.SyscallCountQuickRunPrintsItsFigures: the counts would be
    #   the emulator's system calls, not the server's, and strace is a host
    #   program that the bench would start through the emulator.
    excluded="^(Daemon\.StartedAsGroupLeaderParentExitsZeroAndChildOwnsPidFile|ReadmeTest\.EveryCommandRuns"
    excluded+="|Hardening\.SigtermArrivingOutsideTheWaitIsHeldUntilTheWait"
    excluded+="|BenchSmoke\.SyscallCountQuickRunPrintsItsFigures)\$"
    start=$(date +%s)
    ssl="$PWD/build-arm/openssl"
    lapi_arm_openssl "$ssl"
    cmake -S . -B build-arm -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/arm-linux-gnueabihf.cmake" \
        -DOPENSSL_INCLUDE_DIR="$ssl/usr/include" \
        -DOPENSSL_SSL_LIBRARY="$ssl/usr/lib/arm-linux-gnueabihf/libssl.so" \
        -DOPENSSL_CRYPTO_LIBRARY="$ssl/usr/lib/arm-linux-gnueabihf/libcrypto.so"
    cmake --build build-arm -j "$jobs"
    readelf -h build-arm/bin/lapi_srv | grep -q 'Machine: *ARM' ||
        { echo "arm: build-arm/bin/lapi_srv is not an ARM program" >&2; exit 1; }
    # ctest starts the test programs through qemu-arm (the toolchain's
    # emulator); the programs they start in turn go through
    # LAPI_TEST_EMULATOR. QEMU_LD_PREFIX holds the target's C library.
    export QEMU_LD_PREFIX=/usr/arm-linux-gnueabihf
    LAPI_TEST_EMULATOR=$(command -v qemu-arm)
    export LAPI_TEST_EMULATOR
    ctest --test-dir build-arm -j "$jobs" --output-on-failure --timeout 600 \
        ${excluded:+-E "$excluded"} 2>&1 | tee build-arm/ctest.log
    test "${PIPESTATUS[0]}" -eq 0
    echo "arm: $(grep -o 'tests passed, [0-9]* tests failed out of [0-9]*' build-arm/ctest.log |
        tail -n 1) on the target, $(($(date +%s) - start)) s in all"
    ;;
platform-off)
    # The integrator's path: the handset's own platform libraries, found by
    # name. Stand-ins of those names come from the host stand-ins.
    cmake -S cmake/platform-standins -B build-platform/standins -G Ninja \
        -DLAPI_SOURCE_DIR="$PWD"
    cmake --build build-platform/standins -j "$jobs"
    standins="$PWD/build-platform/standins/lib"
    cmake -S . -B build-platform/srv -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DLAPI_HOST_PLATFORM=OFF -DLAPI_BUILD_TESTS=OFF -DCMAKE_LIBRARY_PATH="$standins"
    cmake --build build-platform/srv -j "$jobs"
    # The server names the libraries it uses, and every name it needs is
    # defined by them.
    readelf -d build-platform/srv/bin/lapi_srv | grep -q 'Shared library: \[libzelflex.so\]' ||
        { echo "platform-off: lapi_srv does not load libzelflex.so" >&2; exit 1; }
    if LD_LIBRARY_PATH="$standins" ldd -r build-platform/srv/bin/lapi_srv |
        grep -E 'not found|undefined symbol'; then
        echo "platform-off: lapi_srv misses a library or a name" >&2
        exit 1
    fi
    echo "platform-off: lapi_srv configured, compiled and linked against the platform libraries:" \
        "$(readelf -d build-platform/srv/bin/lapi_srv | grep -o 'libzel[a-z]*\.so' | tr '\n' ' ')"
    ;;
esac
