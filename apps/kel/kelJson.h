// The JSON report of `kel check --json` and `kel render --json` (described in docs as the JSON report): a few
// writers that keep the exact shapes and number formats in one place.
#pragma once

#include <string>

#include "Peb.h"
#include "PxTileRenderer.h"

namespace Zt::KelApp {

// A string literal; bytes that aren't valid UTF-8 are written as \u00XX.
std::string jsonString(const std::string& text);
// %.9g (reads back to the same float); "nan", "inf", "-inf" as strings.
std::string jsonFloat(float value);
// %.17g, with the same strings for the non-finite.
std::string jsonDouble(double value);
// "ok": ..., "errors": [...] without the braces.
std::string jsonStatus(bool ok, const Vector<PebError>& errors);
// One render's object: ok, errors, width, height, validity and, with `dump`, pixels (rows from
// the bottom up, each a list of [r, g, b, a] from left to right).
std::string jsonRender(const Vector<PebError>& errors, const PxRenderedImage& image, bool dump);

}  // namespace Zt::KelApp
