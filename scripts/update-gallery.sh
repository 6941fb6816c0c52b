#!/usr/bin/env bash
# Renders every example of examples/ (and its procedural sample inputs) with the build's kel
# into docs/gallery/, the reference pictures of docs/gallery.md and the README, and writes
# docs/gallery.md (examples/gallery.sh). The test
# kelGallery (tests/golden) renders them again and compares with these files, so run this
# after changing an example and commit the pictures with it.
# Usage: scripts/update-gallery.sh [BUILD_DIR]   (default: build)
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-"$here/build"}
kel="$build/bin/kel"
[ -x "$kel" ] || { "$here/examples/gallery.sh" > "$here/docs/gallery.md"
echo "update-gallery: no $kel; build first (scripts/setup.sh $build)" >&2; exit 2; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$here/examples/render.sh" "$kel" "$work" >/dev/null
gallery="$here/docs/gallery"
rm -rf "$gallery"
mkdir -p "$gallery/inputs"
cp "$work"/*.png "$gallery/"
cp "$work"/inputs/*.png "$gallery/inputs/"
"$here/examples/gallery.sh" > "$here/docs/gallery.md"
echo "update-gallery: $(ls "$gallery"/*.png "$gallery"/inputs/*.png | wc -l) pictures in $gallery"
