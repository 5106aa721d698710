#!/usr/bin/env bash
# Installs what is missing, builds, and runs the test suite.
#
#   scripts/test.sh              normal build in build/, every test
#   scripts/test.sh --sanitize   clang AddressSanitizer + UndefinedBehaviorSanitizer
#                                build in build-asan/, every test
#   scripts/test.sh --fuzz N     clang libFuzzer build in build-fuzz/, each fuzz
#                                target runs N seconds from its seed corpus
#   scripts/test.sh --soak       fault-injection soak (lapi_soak) against the
#                                normal build; add --sanitize to run it against
#                                the sanitizer build (a few minutes either way)
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deps.sh

usage() { echo "usage: scripts/test.sh [--sanitize | --fuzz SECONDS | --soak [--sanitize]]" >&2; exit 2; }

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
    -h|--help) sed -n '2,11p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) usage ;;
esac

lapi_ensure_deps
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
    for name in "${targets[@]}"; do
        target="build-fuzz/bin/$name"
        corpus="build-fuzz/corpus/$name"
        mkdir -p "$corpus"
        seeds="fuzz/corpus/$name"
        [ -d "$seeds" ] || seeds=""
        echo "== $name for ${seconds}s"
        "$target" -max_total_time="$seconds" -print_final_stats=1 "$corpus" $seeds 2>&1 |
            tail -n 15
        test "${PIPESTATUS[0]}" -eq 0
    done
    ;;
esac
