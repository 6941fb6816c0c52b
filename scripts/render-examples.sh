#!/usr/bin/env bash
# The main job: installs what the build needs, builds, and renders every script of examples/
# over the project's own generated sample images into renders/.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
"$here/scripts/setup.sh" "$here/build"
out=${1:-"$here/renders"}
mkdir -p "$out"
if [ -x "$here/examples/render.sh" ]; then
  "$here/examples/render.sh" "$here/build/bin/kel" "$out"
else
  echo "render-examples: no examples yet" >&2
fi
echo "Rendered into $out"
