// The JSON of `kel check --json`, `kel render --json` and `kel params`: a few
// writers that keep the exact shapes and number formats in one place.
#pragma once

#include <string>

#include "Peb.h"
#include "PxTileRenderer.h"
#include "kelDeclarations.h"

namespace Zt::KelApp {

// A string literal; bytes that aren't valid UTF-8 are written as \u00XX.
std::string jsonString(const std::string& text);
// %.9g (reads back to the same float); "nan", "inf", "-inf" as strings.
std::string jsonFloat(float value);
// %.17g, with the same strings for the non-finite.
std::string jsonDouble(double value);
// "ok": ..., "errors": [...] without the braces.
std::string jsonStatus(bool ok, const Vector<PebError>& errors);
// The script's declarations: {"parameters": [{"name", "kind", "label", "default", "range",
// "line"}], "problems": [{"line", "column", "message"}]}, null for what a declaration leaves out.
std::string jsonDeclarations(const ScriptDeclarations& declarations);
// One render's object: ok, errors, width, height, validity and, with `dump`, pixels (rows from
// the bottom up, each a list of [r, g, b, a] from left to right).
std::string jsonRender(const Vector<PebError>& errors, const PxRenderedImage& image, bool dump);

}  // namespace Zt::KelApp
