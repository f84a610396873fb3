#!/usr/bin/env bash
# Set-up, then the whole test suite through ctest: once in a normal build,
# once in an AddressSanitizer + UndefinedBehaviorSanitizer build (clang).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=$(nproc)

"$root/scripts/setup.sh"

"$root/scripts/build.sh" "$root/build"
ctest --test-dir "$root/build" --output-on-failure -j"$jobs"

CC=clang-14 CXX=clang++-14 "$root/scripts/build.sh" "$root/build-asan" \
  -DCMAKE_BUILD_TYPE=Debug -DMOLVANEAV_SANITIZE=ON -DMOLVANEAV_BUILD_BENCH=OFF
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir "$root/build-asan" --output-on-failure -j"$jobs" -LE package
