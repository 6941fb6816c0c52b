#include "kelImageFiles.h"

#include <unistd.h>

#include <OpenImageIO/imageio.h>
#include <atomic>
#include <cmath>
#include <filesystem>

namespace Zt::KelApp {

namespace fs = std::filesystem;
using OIIO::ImageInput;
using OIIO::ImageOutput;
using OIIO::ImageSpec;
using OIIO::TypeDesc;

IxPixelFormat aspectFormat(double aspect) {
    IxPixelFormat best;
    if (!(aspect > 0.0) || !std::isfinite(aspect)) return best;
    double bestError = INFINITY;
    for (int den = 1; den <= 1000; ++den) {
        const double num = std::round(aspect * den);
        if (num < 1.0 || num > 1e6) continue;
        const double error = std::abs(num / den - aspect);
        if (error < bestError - 1e-12) {
            bestError = error;
            best.aspectNum = int(num);
            best.aspectDen = den;
        }
    }
    return best;
}

PxNodePtr<PxMemoryImage> readImage(const std::string& path, const PxValidityInterval& validity) {
    auto in = ImageInput::open(path);
    if (!in) throw FileError("cannot read " + path + ": " + OIIO::geterror());
    const ImageSpec& spec = in->spec();
    const int width = spec.width, height = spec.height, channels = spec.nchannels;
    std::vector<float> data(std::size_t(width) * std::size_t(height) * std::size_t(channels));
    if (width <= 0 || height <= 0 || channels <= 0 ||
        !in->read_image(0, 0, 0, channels, TypeDesc::FLOAT, data.data()))
        throw FileError("cannot read " + path + ": " + in->geterror());
    std::vector<Color> pixels(std::size_t(width) * std::size_t(height));
    for (int row = 0; row < height; ++row) {
        // Files keep the top row first; the host counts rows from the bottom.
        const float* src = data.data() + std::size_t(row) * std::size_t(width) * std::size_t(channels);
        Color* dst = pixels.data() + std::size_t(height - 1 - row) * std::size_t(width);
        for (int x = 0; x < width; ++x, src += channels) {
            switch (channels) {
                case 1: dst[x] = Color(src[0], src[0], src[0], 1.0f); break;
                case 2: dst[x] = Color(src[0], src[0], src[0], src[1]); break;
                case 3: dst[x] = Color(src[0], src[1], src[2], 1.0f); break;
                default: dst[x] = Color(src[0], src[1], src[2], src[3]); break;
            }
        }
    }
    const IxPixelFormat format = aspectFormat(spec.get_float_attribute("PixelAspectRatio", 1.0f));
    return PxNodePtr<PxMemoryImage>(new PxMemoryImage(width, height, std::move(pixels), format, validity));
}

void checkWritable(const std::string& path) {
    if (!ImageOutput::create(path)) throw FileError("cannot write " + path + ": " + OIIO::geterror());
    const fs::path directory = fs::absolute(fs::path(path)).parent_path();
    std::error_code error;
    if (!fs::is_directory(directory, error)) throw FileError("cannot write " + path + ": no directory " + directory.string());
    if (access(directory.c_str(), W_OK) != 0) throw FileError("cannot write " + path + ": the directory is not writable");
    if (fs::is_directory(fs::path(path), error)) throw FileError("cannot write " + path + ": it is a directory");
}

namespace {

// Beside the output, hidden, with the output's extension so that OpenImageIO picks its format.
fs::path temporaryPath(const fs::path& path) {
    static std::atomic<int> counter{0};
    return path.parent_path() / ("." + path.stem().string() + ".kel-tmp-" + std::to_string(getpid()) + "-" +
                                 std::to_string(counter++) + path.extension().string());
}

TypeDesc fileType(const std::string& formatName) {
    if (formatName == "openexr" || formatName == "hdr" || formatName == "fits" || formatName == "pnm") {
        return formatName == "pnm" ? TypeDesc::UINT8 : TypeDesc::FLOAT;
    }
    if (formatName == "tiff") return TypeDesc::UINT16;
    return TypeDesc::UINT8;
}

}  // namespace

void writeImageAtomically(const std::string& path, const PxRenderedImage& image, const IxPixelFormat& format) {
    const fs::path target = fs::absolute(fs::path(path));
    const fs::path temporary = temporaryPath(target);
    auto out = ImageOutput::create(path);
    if (!out) throw FileError("cannot write " + path + ": " + OIIO::geterror());
    const std::string formatName = out->format_name();
    const int width = image.rect.width(), height = image.rect.height();
    const int channels = out->supports("alpha") ? 4 : 3;
    ImageSpec spec(width, height, channels, fileType(formatName));
    if (format.aspectNum != format.aspectDen) spec.attribute("PixelAspectRatio", format.aspect());

    std::vector<float> data(std::size_t(width) * std::size_t(height) * std::size_t(channels));
    for (int row = 0; row < height; ++row) {
        float* dst = data.data() + std::size_t(row) * std::size_t(width) * std::size_t(channels);
        const int y = image.rect.yMax - 1 - row;
        for (int x = image.rect.xMin; x < image.rect.xMax; ++x, dst += channels)
            for (int c = 0; c < channels; ++c) dst[c] = image.at(x, y)[c];
    }
    const bool written = out->open(temporary.string(), spec) && out->write_image(TypeDesc::FLOAT, data.data()) && out->close();
    std::error_code error;
    if (!written) {
        const std::string reason = out->geterror();
        out.reset();
        fs::remove(temporary, error);
        throw FileError("cannot write " + path + ": " + reason);
    }
    out.reset();
    fs::rename(temporary, target, error);
    if (error) {
        std::error_code ignored;
        fs::remove(temporary, ignored);
        throw FileError("cannot write " + path + ": " + error.message());
    }
}

}  // namespace Zt::KelApp
