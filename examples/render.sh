#!/usr/bin/env bash
# Renders every example of this directory to PNG: first the sample inputs (examples/inputs/*.kel,
# procedural, rendered by kel itself), then each example with the arguments of its "// args:"
# line, where @NAME stands for the generated input NAME.
# Usage: examples/render.sh KEL_BINARY OUTDIR
set -euo pipefail
if [ $# -ne 2 ]; then echo "usage: $0 KEL_BINARY OUTDIR" >&2; exit 2; fi
kel=$1
out=$2
here=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$out/inputs"

for script in "$here"/inputs/*.kel; do
  name=$(basename "$script" .kel)
  "$kel" render "$script" --size 320x180 -o "$out/inputs/$name.png"
done
echo "examples: sample inputs in $out/inputs"

for script in "$here"/*.kel; do
  name=$(basename "$script" .kel)
  args=$(sed -n 's|^// args: ||p' "$script" | head -n 1)
  args=${args//@/$out/inputs/}
  # shellcheck disable=SC2086  # the args line is a word list by design
  "$kel" render "$script" $args -o "$out/$name.png"
  echo "examples: $name -> $out/$name.png"
done
