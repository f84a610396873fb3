#!/usr/bin/env bash
# Builds one libFuzzer target (clang, ASan + UBSan) into build-fuzz/, seeds
# its corpus from the test media and runs it for SECONDS (default 60).
#
#   scripts/fuzz.sh decode_media_fuzz 3600     # an hour
#   scripts/fuzz.sh cache_calls_fuzz 60
#
# The corpus grows in build-fuzz/fuzz-corpus/TARGET from run to run; inputs
# that crash land in build-fuzz/fuzz-artifacts/TARGET/ and make the script
# fail (-timeout is generous: a loaded machine must not look like a hang).
# Keep each one as fuzz/regressions/TARGET/<what-it-shows>: the replay
# tests run them in every build. MEDIA=folder reuses test media made before;
# FUZZ_BUILD=folder builds and runs in a build configured before.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
target=$1
seconds=${2:-60}
build=${FUZZ_BUILD:-$root/build-fuzz}
media=${MEDIA:-$build/test-media}

case $target in
decode_media_fuzz) max_len=65536 ;;
cache_calls_fuzz) max_len=2048 ;;
*) echo "unknown fuzz target $target" >&2; exit 2 ;;
esac

# A FUZZ_BUILD of the caller's is used as it is configured (with clang,
# -DMOLVANEAV_BUILD_FUZZ=ON and -DMOLVANEAV_SANITIZE=ON): the test script
# fuzzes in its sanitizer build rather than compile the library once more.
if [[ -z ${FUZZ_BUILD:-} ]]; then
  CC=clang-14 CXX=clang++-14 cmake -G Ninja -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DMOLVANEAV_BUILD_FUZZ=ON -DMOLVANEAV_SANITIZE=ON -DMOLVANEAV_BUILD_TESTS=OFF -DMOLVANEAV_BUILD_TOOLS=OFF \
    -DMOLVANEAV_BUILD_BENCH=OFF >/dev/null
fi
mkdir -p "$build"
# Two targets may be fuzzed at once: one build and one media check at a time.
flock "$build/.fuzz-setup.lock" cmake --build "$build" --target "$target" >/dev/null

# Seeds: the start of every test clip, which is all the fuzzer reads of it.
flock "$build/.fuzz-setup.lock" "$root/tests/support/make_test_media.sh" "$media" >/dev/null
seeds=$build/fuzz-seeds/$target corpus=$build/fuzz-corpus/$target artifacts=$build/fuzz-artifacts/$target
mkdir -p "$seeds" "$corpus" "$artifacts"
for clip in "$media"/*; do
  head -c "$max_len" "$clip" >"$seeds/$(basename "$clip")"
done

log=$build/fuzz-$target.log
echo "fuzzing $target for $seconds s (log: $log)"
if ! ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  "$build/fuzz/$target" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=2048 -max_len="$max_len" \
  -print_final_stats=1 -artifact_prefix="$artifacts/" "$corpus" "$seeds" "$root/fuzz/regressions/$target" \
  >"$log" 2>&1; then
  tail -n 60 "$log"
  echo "$target found a failing input: $(ls -t "$artifacts" | head -n 1) in $artifacts" >&2
  exit 1
fi
grep -a -E '^stat::(number_of_executed_units|average_exec_per_sec|new_units_added|peak_rss_mb)' "$log"
