#!/usr/bin/env bash
# Set-up, then the whole test suite through ctest: once in a normal build
# (with the `memcheck` label, which runs under valgrind),
# once in an AddressSanitizer + UndefinedBehaviorSanitizer build (clang);
# then half a minute of each fuzz target; then the tests labelled `threads` in a
# ThreadSanitizer build (clang).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=$(nproc)
# Each phase says how long the run has taken so far: CI must stay within 10 minutes.
phase() { echo "== test.sh at ${SECONDS} s: $*"; }

"$root/scripts/setup.sh"

phase "normal build"
"$root/scripts/build.sh" "$root/build"
phase "normal tests"
ctest --test-dir "$root/build" --output-on-failure -j"$jobs"

phase "ASan + UBSan build"
# The sanitizer build reads the normal build's test media, and holds the
# fuzz targets too: one more build of the library would cost a minute.
CC=clang-14 CXX=clang++-14 "$root/scripts/build.sh" "$root/build-asan" \
  -DCMAKE_BUILD_TYPE=Debug -DMOLVANEAV_SANITIZE=ON -DMOLVANEAV_BUILD_FUZZ=ON -DMOLVANEAV_BUILD_BENCH=OFF \
  -DMOLVANE_TEST_MEDIA="$root/build/test-media"
phase "ASan + UBSan tests"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir "$root/build-asan" --output-on-failure -j"$jobs" -LE package

phase "fuzzing"
# Each fuzz target for half a minute, side by side (one core each), seeded
# from the test media: a smoke run; scripts/fuzz.sh runs them for longer.
fuzzers=()
for target in decode_media_fuzz cache_calls_fuzz; do
  FUZZ_BUILD="$root/build-asan" MEDIA="$root/build/test-media" "$root/scripts/fuzz.sh" "$target" 30 &
  fuzzers+=($!)
done
failed=0
for fuzzer in "${fuzzers[@]}"; do
  wait "$fuzzer" || failed=1
done
((failed == 0))

phase "ThreadSanitizer build and tests"
# Only the programs of the `threads` label are built here; the media are the
# normal build's.
CC=clang-14 CXX=clang++-14 cmake -G Ninja -S "$root" -B "$root/build-tsan" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMOLVANEAV_TSAN=ON -DMOLVANEAV_BUILD_BENCH=OFF -DMOLVANEAV_BUILD_TOOLS=OFF \
  -DMOLVANE_TEST_MEDIA="$root/build/test-media" >/dev/null
cmake --build "$root/build-tsan" --target audio_thread_stress_test player_test
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
  ctest --test-dir "$root/build-tsan" -L threads --output-on-failure
phase "done"
