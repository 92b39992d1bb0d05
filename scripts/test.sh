#!/usr/bin/env bash
# Installs what is missing, builds Kestor and runs every test: once in an optimised build and
# once under AddressSanitizer and UndefinedBehaviorSanitizer (skip that with --no-sanitize).
set -euo pipefail
source "$(dirname "$0")/common.sh"

sanitize=1
for arg in "$@"; do
    case "$arg" in
        --no-sanitize) sanitize=0 ;;
        *) echo "usage: $0 [--no-sanitize]" >&2; exit 2 ;;
    esac
done

kestor_install_packages
jobs="$(nproc)"

echo "== Optimised build"
kestor_build "$KESTOR_ROOT/build/release" -DCMAKE_BUILD_TYPE=RelWithDebInfo
ctest --test-dir "$KESTOR_ROOT/build/release" --output-on-failure -j "$jobs"

if [ "$sanitize" -eq 1 ]; then
    echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
    kestor_build "$KESTOR_ROOT/build/asan" -DCMAKE_BUILD_TYPE=Debug -DKESTOR_SANITIZE=ON \
        -DKESTOR_BUILD_BENCH=OFF
    ASAN_OPTIONS="detect_leaks=1:abort_on_error=1" UBSAN_OPTIONS="print_stacktrace=1" \
        ctest --test-dir "$KESTOR_ROOT/build/asan" --output-on-failure -j "$jobs"
fi
