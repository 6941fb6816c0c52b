#!/usr/bin/env bash
# Runs both libFuzzer targets of BUILD_DIR at once, SECONDS each (one core each), from the seed
# corpus plus what earlier runs kept in BUILD_DIR/corpus-*; fails on any crash, hang, leak or
# sanitizer report, leaving the input in BUILD_DIR/crashes-*. Usage: fuzz/run.sh BUILD_DIR SECONDS
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:?usage: run.sh BUILD_DIR SECONDS}" && pwd); seconds=${2:-60}
export ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
pids=()
for target in Parse Eval; do
  corpus="$build/corpus-$target"; crashes="$build/crashes-$target"
  mkdir -p "$corpus" "$crashes"
  "$here/fuzz/seed-corpus.sh" "$corpus"
  (cd "$crashes" && "$build/bin/kel${target}Fuzzer" -dict="$here/fuzz/kel.dict" -max_total_time="$seconds" \
      -timeout=10 -rss_limit_mb=4096 -print_final_stats=1 -artifact_prefix=./ "$corpus" \
      >"$build/fuzz-$target.log" 2>&1) &
  pids+=($!)
done
status=0
for i in 0 1; do
  target=$([ $i = 0 ] && echo Parse || echo Eval)
  if wait "${pids[$i]}"; then
    grep -E 'DONE|stat::number_of_executed_units' "$build/fuzz-$target.log" | sed "s/^/kel${target}Fuzzer: /"
  else
    status=1
    echo "kel${target}Fuzzer failed, see $build/fuzz-$target.log" >&2
    tail -n 40 "$build/fuzz-$target.log" >&2
  fi
done
exit $status
