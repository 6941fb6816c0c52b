#include "kelColorSpaces.h"

#include <OpenImageIO/strutil.h>

#include "kelFileSupport.h"

namespace Zt::KelApp {

ColorSpaces& ColorSpaces::instance() {
    static ColorSpaces spaces;
    return spaces;
}

ColorSpaces::ColorSpaces() : _config() {
    const char* linear = _config.getColorSpaceNameByRole("scene_linear");
    _working = linear && *linear ? linear : "linear";
}

std::optional<std::string> ColorSpaces::find(const std::string& name) const {
    if (name.empty()) return std::nullopt;
    for (const std::string& known : _config.getColorSpaceNames()) {
        if (OIIO::Strutil::iequals(known, name)) return known;
        for (const std::string& alias : _config.getAliases(known))
            if (OIIO::Strutil::iequals(alias, name)) return known;
    }
    const char* role = _config.getColorSpaceNameByRole(name);
    if (role && *role) return std::string(role);
    return std::nullopt;
}

std::string ColorSpaces::names() const { return OIIO::Strutil::join(_config.getColorSpaceNames(), ", "); }

OIIO::ColorProcessorHandle ColorSpaces::processor(const std::string& from, const std::string& to) {
    if (OIIO::Strutil::iequals(from, to)) return nullptr;
    std::lock_guard lock(_mutex);
    OIIO::ColorProcessorHandle p = _config.createColorProcessor(from, to);
    return p && !p->isNoOp() ? p : nullptr;
}

namespace {

void divideByAlpha(float* px, int width) {
    for (int x = 0; x < width; ++x, px += 4)
        if (px[3] != 0.0f)
            for (int c = 0; c < 3; ++c) px[c] /= px[3];
}

// `divided`: the colour was divided by alpha before, where alpha was not 0; colour beside an
// alpha of 0 (a glow, in premultiplied terms) was converted as it stands and stays.
void multiplyByAlpha(float* px, int width, bool divided) {
    for (int x = 0; x < width; ++x, px += 4)
        if (!divided || px[3] != 0.0f)
            for (int c = 0; c < 3; ++c) px[c] *= px[3];
}

}  // namespace

void convertPixels(float* pixels, int width, int rows, std::ptrdiff_t rowStride, const OIIO::ColorProcessor* processor,
                   AlphaStorage file, bool toWorking) {
    // Colour spaces convert straight colour: premultiplied pixels are divided first and
    // multiplied again after, as compositing does.
    const AlphaStorage in = toWorking ? file : AlphaStorage::Premultiplied;
    const AlphaStorage out = toWorking ? AlphaStorage::Premultiplied : file;
    if (!processor && in == out) return;
    const bool straightIn = in == AlphaStorage::Straight, straightOut = out == AlphaStorage::Straight;
    forBlocks(0, rows, 16, [&](const tbb::blocked_range<int>& range) {
        for (int y = range.begin(); y != range.end(); ++y) {
            float* row = pixels + std::ptrdiff_t(y) * rowStride;
            if (processor) {
                if (!straightIn) divideByAlpha(row, width);
                processor->apply(row, width, 1, 4, sizeof(float), 4 * sizeof(float), OIIO::AutoStride);
                if (!straightOut) multiplyByAlpha(row, width, !straightIn);
            } else if (straightIn) {
                multiplyByAlpha(row, width, false);
            } else {
                divideByAlpha(row, width);
            }
        }
    });
}

}  // namespace Zt::KelApp
