// The colour spaces of image files: one configuration for the process (the studio's through
// $OCIO, else OpenImageIO's built-in linear, sRGB and Rec709), the working space every image is
// rendered in, and the conversions of premultiplied rows between it and a file's space.
#pragma once

#include <OpenImageIO/color.h>

#include <mutex>
#include <optional>
#include <string>

namespace Zt::KelApp {

class ColorSpaces {
public:
    static ColorSpaces& instance();

    // The configuration's scene_linear role, else "linear".
    const std::string& working() const { return _working; }
    // The configuration's spelling of `name` (a space, an alias or a role, any case); nullopt
    // when it knows no such space.
    std::optional<std::string> find(const std::string& name) const;
    // The spaces a message can offer, comma-separated.
    std::string names() const;
    // The conversion from one space to another; null when they are the same space.
    OIIO::ColorProcessorHandle processor(const std::string& from, const std::string& to);

private:
    ColorSpaces();
    OIIO::ColorConfig _config;
    std::string _working;
    std::mutex _mutex;  // creating processors is not safe from two threads at once
};

// How a file's colour channels stand to its alpha.
enum class AlphaStorage { Premultiplied, Straight };

// Converts `rows` rows of `width` RGBA pixels (a row every `rowStride` floats) in place: from a
// file's space and alpha storage to premultiplied working colour (`toWorking`), or back. Alpha
// itself is never converted; colour with an alpha of 0 is left as it is when dividing.
void convertPixels(float* pixels, int width, int rows, std::ptrdiff_t rowStride, const OIIO::ColorProcessor* processor,
                   AlphaStorage file, bool toWorking);

}  // namespace Zt::KelApp
