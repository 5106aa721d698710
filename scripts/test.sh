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
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deps.sh

usage() { echo "usage: scripts/test.sh [--sanitize | --fuzz SECONDS | --format]" >&2; exit 2; }

mode=normal
seconds=0
case "${1:-}" in
    "") ;;
    --sanitize) mode=sanitize ;;
    --fuzz) mode=fuzz; seconds="${2:-}"; [[ "$seconds" =~ ^[0-9]+$ ]] || usage ;;
    --format) mode=format ;;
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
esac
