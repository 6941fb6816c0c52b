#!/usr/bin/env bash
# Fills DIR with the seed corpus of both fuzz targets (issue 7): the golden scripts, the
# examples, the benchmark effects and every ```kel block of docs/language.md, one file each.
# Usage: fuzz/seed-corpus.sh DIR
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:?usage: seed-corpus.sh DIR}
mkdir -p "$dir"
for f in "$here"/tests/golden/*.kel "$here"/examples/*.kel "$here"/bench/effects/*.kel; do
  cp "$f" "$dir/$(basename "$(dirname "$f")")-$(basename "$f")"
done
awk -v dir="$dir" '
  /^```kel/ { n++; out = sprintf("%s/language-%02d.kel", dir, n); inside = 1; next }
  /^```/    { if (inside) close(out); inside = 0; next }
  inside    { print > out }
' "$here/docs/language.md"
