#!/usr/bin/env bash
# Installs what the build needs, builds, and runs every test: the Release build first, then the
# same suite built with AddressSanitizer + UndefinedBehaviorSanitizer.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
jobs=$(nproc)

"$here/scripts/setup.sh" "$here/build"
ctest --test-dir "$here/build" --output-on-failure -j "$jobs"

if [ "${KEL_SKIP_SANITIZERS:-0}" != 1 ]; then
  "$here/scripts/setup.sh" "$here/build-asan" -DKEL_SANITIZE=address -DCMAKE_BUILD_TYPE=RelWithDebInfo
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    ctest --test-dir "$here/build-asan" --output-on-failure -j "$jobs"
fi
