#!/usr/bin/env bash
# Installs what the build needs, builds, and runs every test: the Release build first, then the
# same suite built with AddressSanitizer + UndefinedBehaviorSanitizer, then the parallel renders
# under ThreadSanitizer, then a short run of each libFuzzer target (docs/reliability.md).
# KEL_SKIP_SANITIZERS=1 skips the last three stages; KEL_FUZZ_SECONDS sets the fuzz run (60).
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
jobs=$(nproc)

"$here/scripts/setup.sh" "$here/build"
ctest --test-dir "$here/build" --output-on-failure -j "$jobs"

if [ "${KEL_SKIP_SANITIZERS:-0}" != 1 ]; then
  "$here/scripts/setup.sh" "$here/build-asan" -DKEL_SANITIZE=address -DCMAKE_BUILD_TYPE=RelWithDebInfo
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    LSAN_OPTIONS="suppressions=$here/fuzz/lsan.supp print_suppressions=0" \
    ctest --test-dir "$here/build-asan" --output-on-failure -j "$jobs"

  # ThreadSanitizer: only what renders tiles of one run info on many threads at once (the
  # golden suite on 3 threads, the tile renderer, kel --threads up to 8 in the fault test).
  tsan="$here/build-tsan"
  cmake -S "$here" -B "$tsan" -DKEL_SANITIZE=thread -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$tsan" -j "$jobs" --target kel ZtkelZttool kelGoldenTest hostPackageTest
  TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$here/fuzz/tsan.supp" \
    ctest --test-dir "$tsan" --output-on-failure -j "$jobs" -R 'KelGolden|kelGallery|HostTileRenderer|^kelFaults$'

  # libFuzzer (clang): each target from the seed corpus for KEL_FUZZ_SECONDS, one core each.
  fuzz="$here/build-fuzz"
  CXX=clang++ CC=clang cmake -S "$here" -B "$fuzz" -DKEL_FUZZ=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$fuzz" -j "$jobs" --target kelParseFuzzer kelEvalFuzzer
  "$here/fuzz/run.sh" "$fuzz" "${KEL_FUZZ_SECONDS:-60}"
fi
