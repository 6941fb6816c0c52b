#!/usr/bin/env bash
# kelGallery: renders every example of examples/ again (examples/render.sh) and compares each
# picture, the sample inputs included, with its reference in docs/gallery/ within 2 levels of 8
# bits (idiff). Every rendered picture must have a reference and every reference a picture, and
# docs/gallery.md must be what examples/gallery.sh writes from the scripts, so the gallery can't
# go stale; scripts/update-gallery.sh renews both.
# Usage: kel_gallery_test.sh KEL SOURCE_DIR WORK_DIR IDIFF
set -euo pipefail
kel=$1 source=$2 work=$3 idiff=$4
rm -rf "$work"
"$source/examples/render.sh" "$kel" "$work" >/dev/null
gallery="$source/docs/gallery"
failures=0
while IFS= read -r rendered; do
  name=${rendered#"$work"/}
  if [ ! -f "$gallery/$name" ]; then
    echo "FAIL $name: no reference docs/gallery/$name (run scripts/update-gallery.sh)"
    failures=$((failures + 1))
  elif ! "$idiff" -q -fail 0.0079 -warn 0.0079 "$gallery/$name" "$rendered" >/dev/null; then
    echo "FAIL $name: differs from docs/gallery/$name by more than 2/255:"
    "$idiff" -fail 0.0079 -warn 0.0079 "$gallery/$name" "$rendered" | sed 's/^/    /' || true
    failures=$((failures + 1))
  else
    echo "ok   $name"
  fi
done < <(cd / && find "$work" -name '*.png' | sort)
while IFS= read -r reference; do
  name=${reference#"$gallery"/}
  if [ ! -f "$work/$name" ]; then
    echo "FAIL docs/gallery/$name: no example renders it any more"
    failures=$((failures + 1))
  fi
done < <(find "$gallery" -name '*.png' | sort)
if ! "$source/examples/gallery.sh" | diff -u "$gallery.md" - >"$work/gallery.md.diff"; then
  echo "FAIL docs/gallery.md is not what examples/gallery.sh writes (run scripts/update-gallery.sh):"
  cat "$work/gallery.md.diff"
  failures=$((failures + 1))
fi
[ "$failures" -eq 0 ] || { echo "$failures failure(s)"; exit 1; }
