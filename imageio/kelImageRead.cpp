// Reading image files into the host's in-memory images (kelImageIO.h): the file's pixels go
// straight from the decoder into the image's buffer, flipped by a negative row stride, where
// the file's channels lie in order; through one buffer of the needed channels otherwise.
#include <unistd.h>

#include <OpenImageIO/strutil.h>


#include <cmath>
#include <memory>
#include <new>
#include <regex>

#include "kelChannels.h"
#include "kelColorSpaces.h"
#include "kelFileSupport.h"
#include "kelImageIO.h"

namespace Zt::KelApp {

using OIIO::ImageInput;
using OIIO::ImageSpec;
using OIIO::TypeDesc;
namespace Strutil = OIIO::Strutil;

ImageSource parseImageSource(const std::string& text, const std::string& what) {
    // Options follow the path, each as :key=value; a colon elsewhere belongs to the path.
    static const std::regex option(":(layer|subimage|colorspace)=([^:]*)$");
    ImageSource source{text, {}};
    std::smatch m;
    while (std::regex_search(source.path, m, option)) {
        std::string& slot = m[1] == "layer" ? source.options.layer
                            : m[1] == "subimage" ? source.options.subimage : source.options.colorspace;
        if (!slot.empty() || m[2].length() == 0)
            throw FileError("invalid file option '" + m.str().substr(1) + "' for " + what +
                            ": each of layer, subimage and colorspace once, with a value");
        slot = m[2];
        source.path.erase(std::size_t(m.position()));
    }
    if (source.path.empty()) throw FileError("invalid value '" + text + "' for " + what + ": no file");
    return source;
}

const char* depthName(SampleDepth depth) {
    static const char* const names[] = {"uint8", "uint10", "uint16", "half", "float"};
    return names[int(depth)];
}

std::optional<SampleDepth> parseDepth(const std::string& name) {
    for (SampleDepth d : {SampleDepth::UInt8, SampleDepth::UInt10, SampleDepth::UInt16, SampleDepth::Half, SampleDepth::Float})
        if (Strutil::iequals(name, depthName(d))) return d;
    return std::nullopt;
}

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

void checkFitsInMemory(const std::string& what, long long width, long long height, long long bytesPerPixel) {
    const long long pages = sysconf(_SC_PHYS_PAGES), pageSize = sysconf(_SC_PAGESIZE);
    const double available = pages > 0 && pageSize > 0 ? double(pages) * double(pageSize) : 0x1p40;
    const double needed = double(width) * double(height) * double(bytesPerPixel);
    if (needed > available)
        throw FileError(what + ": " + std::to_string(width) + "x" + std::to_string(height) + " pixels need " +
                        std::to_string((long long)(needed / 1048576.0)) + " MiB, more than the machine's memory of " +
                        std::to_string((long long)(available / 1048576.0)) + " MiB");
}

namespace {

SampleDepth depthOf(const ImageSpec& spec) {
    switch (spec.format.basetype) {
        case TypeDesc::UINT8: case TypeDesc::INT8: return SampleDepth::UInt8;
        case TypeDesc::UINT16: case TypeDesc::INT16:
            return spec.get_int_attribute("oiio:BitsPerSample", 16) == 10 ? SampleDepth::UInt10 : SampleDepth::UInt16;
        case TypeDesc::HALF: return SampleDepth::Half;
        default: return SampleDepth::Float;
    }
}

bool isInteger(SampleDepth depth) { return depth != SampleDepth::Half && depth != SampleDepth::Float; }

// An opened file, at the subimage asked for, and how its pixels are to be read.
struct OpenedInput {
    std::unique_ptr<ImageInput> in;
    ImageSpec spec;
    int subimage = 0;
    ChannelChoice channels;
    AlphaStorage alpha = AlphaStorage::Premultiplied;
    ImageFileInfo info;
};

void seekSubimage(OpenedInput& o, const ImageSource& source) {
    const std::string& wanted = source.options.subimage;
    if (wanted.empty()) return;
    std::vector<std::string> names;
    for (int i = 0; o.in->seek_subimage(i, 0); ++i) {
        const std::string name = o.in->spec().get_string_attribute("name");
        if (wanted == std::to_string(i) || (!name.empty() && wanted == name)) {
            o.subimage = i;
            return;
        }
        names.push_back(name.empty() ? std::to_string(i) : std::to_string(i) + " (" + name + ")");
    }
    throw FileError("cannot read " + source.path + ": it has no subimage " + wanted + " (it has " + Strutil::join(names, ", ") + ")");
}

// The space the file's pixels are in: the one asked for, else the file's own, else its type's.
std::string inputSpace(const ImageSource& source, const ImageSpec& spec, SampleDepth depth) {
    ColorSpaces& spaces = ColorSpaces::instance();
    if (!source.options.colorspace.empty()) {
        if (auto found = spaces.find(source.options.colorspace)) return *found;
        throw FileError("cannot read " + source.path + ": unknown colour space " + source.options.colorspace +
                        " (known: " + spaces.names() + ")");
    }
    if (auto found = spaces.find(spec.get_string_attribute("oiio:ColorSpace"))) return *found;
    if (isInteger(depth))
        if (auto found = spaces.find("sRGB")) return *found;
    return spaces.working();
}

OpenedInput openInput(const ImageSource& source) {
    OpenedInput o;
    // Straight alpha stays straight: it is premultiplied here after the colour conversion.
    ImageSpec config;
    config.attribute("oiio:UnassociatedAlpha", 1);
    o.in = ImageInput::open(source.path, &config);
    if (!o.in) throw FileError("cannot read " + source.path + ": " + oneLine(OIIO::geterror()));
    seekSubimage(o, source);
    o.spec = o.in->spec();
    const ImageSpec& spec = o.spec;
    if (spec.width <= 0 || spec.height <= 0 || spec.nchannels <= 0)
        throw FileError("cannot read " + source.path + ": it has no pixels (" + std::to_string(spec.width) + "x" +
                        std::to_string(spec.height) + ", " + std::to_string(spec.nchannels) + " channels)");
    // The image, and the buffer of its channels when they can't be read straight into it.
    checkFitsInMemory("cannot read " + source.path, spec.width, spec.height, sizeof(Color) + 4LL * spec.nchannels);
    o.channels = chooseChannels(spec, source.options.layer, source.path);
    if (o.channels.hasAlpha() && spec.get_int_attribute("oiio:UnassociatedAlpha", 0)) o.alpha = AlphaStorage::Straight;

    ImageFileInfo& info = o.info;
    info.formatName = o.in->format_name();
    info.depth = depthOf(spec);
    info.compression = spec.get_string_attribute("compression");
    info.hasAlpha = o.channels.hasAlpha();
    info.colorspace = inputSpace(source, spec, info.depth);
    const int displayWidth = spec.full_width > 0 ? spec.full_width : spec.width;
    const int displayHeight = spec.full_height > 0 ? spec.full_height : spec.height;
    info.display = GeRectangle<int>(0, displayWidth, 0, displayHeight);
    info.displayX = spec.full_x;
    info.displayY = spec.full_y;
    for (const OIIO::ParamValue& p : spec.extra_attribs)
        if (!Strutil::starts_with(p.name().string(), "oiio:")) info.metadata.push_back(p);
    return o;
}

// Reads channels [first, first + count) of every row into `pixels` (RGBA, bottom row first),
// a pixel every 4 floats: the flip is the negative row stride.
bool readStraight(OpenedInput& o, Color* pixels, int first, int count) {
    const ImageSpec& s = o.spec;
    const OIIO::stride_t row = OIIO::stride_t(s.width) * OIIO::stride_t(sizeof(Color));
    Color* top = pixels + std::ptrdiff_t(s.height - 1) * s.width;
    return o.in->read_image(o.subimage, 0, first, first + count, TypeDesc::FLOAT, top, sizeof(Color), -row);
}

// Reads the channels [lo, hi) that the choice needs into a buffer, and places them.
bool readThroughBuffer(OpenedInput& o, Color* pixels, int lo, int hi) {
    const ImageSpec& s = o.spec;
    const int n = hi - lo;
    std::unique_ptr<float[]> data(new float[std::size_t(s.width) * std::size_t(s.height) * std::size_t(n)]);
    if (!o.in->read_image(o.subimage, 0, lo, hi, TypeDesc::FLOAT, data.get())) return false;
    const ChannelChoice& c = o.channels;
    forBlocks(0, s.height, 16, [&](const tbb::blocked_range<int>& rows) {
        for (int y = rows.begin(); y != rows.end(); ++y) {
            const float* src = data.get() + std::size_t(y) * std::size_t(s.width) * std::size_t(n);
            Color* dst = pixels + std::size_t(s.height - 1 - y) * std::size_t(s.width);
            for (int x = 0; x < s.width; ++x, src += n)
                for (int k = 0; k < 4; ++k) dst[x][k] = c.source[k] >= 0 ? src[c.source[k] - lo] : k == 3 ? 1.0f : 0.0f;
        }
    });
    return true;
}

void setOpaque(Color* pixels, std::size_t count) {
    forBlocks(std::size_t(0), count, std::size_t(65536), [&](const tbb::blocked_range<std::size_t>& r) {
        for (std::size_t i = r.begin(); i != r.end(); ++i) pixels[i].a = 1.0f;
    });
}

}  // namespace

ImageFileInfo checkReadable(const ImageSource& source) {
    const QuietStandardError quiet;
    return openInput(source).info;
}

ReadImage readImage(const ImageSource& source, const PxValidityInterval& validity) {
    const QuietStandardError quiet;
    OpenedInput o = openInput(source);
    const ImageSpec& s = o.spec;
    std::size_t capacity = 0;
    IxTileStorage::Buffer buffer;
    try {
        buffer = IxTileStorage::acquire(std::size_t(s.width) * std::size_t(s.height), capacity);
    } catch (const std::bad_alloc&) {
        throw FileError("cannot read " + source.path + ": not enough memory for " + std::to_string(s.width) + "x" +
                        std::to_string(s.height) + " pixels");
    }
    Color* pixels = buffer.get();
    const int* c = o.channels.source;
    const int lo = *std::min_element(c, c + 3), hi = *std::max_element(c, c + 4) + 1;
    const bool inOrder = c[1] == lo + 1 && c[2] == lo + 2 && (c[3] == lo + 3 || c[3] < 0) && lo >= 0;
    bool read;
    if (inOrder) {
        read = readStraight(o, pixels, lo, c[3] < 0 ? 3 : 4);
        if (read && c[3] < 0) setOpaque(pixels, std::size_t(s.width) * std::size_t(s.height));
    } else {
        const int first = *std::min_element(c, c + 4, [](int a, int b) { return (a < 0 ? 1 << 30 : a) < (b < 0 ? 1 << 30 : b); });
        read = readThroughBuffer(o, pixels, first, hi);
    }
    if (!read) throw FileError("cannot read " + source.path + ": " + oneLine(o.in->geterror()));

    const OIIO::ColorProcessorHandle processor = ColorSpaces::instance().processor(o.info.colorspace, ColorSpaces::instance().working());
    convertPixels(&pixels[0].r, s.width, s.height, 4 * std::ptrdiff_t(s.width), processor.get(), o.alpha, true);

    // The data window in the display window's frame, rows counted up from its bottom.
    const int x0 = s.x - s.full_x;
    const int y0 = (s.full_y + o.info.display.yMax) - (s.y + s.height);
    const GeRectangle<int> rect(x0, x0 + s.width, y0, y0 + s.height);
    const IxPixelFormat format = aspectFormat(s.get_float_attribute("PixelAspectRatio", 1.0f));
    ReadImage result;
    result.image = PxNodePtr<PxMemoryImage>(new PxMemoryImage(rect, std::move(buffer), capacity, format, validity));
    result.info = std::move(o.info);
    result.ignoredChannels = std::move(o.channels.ignored);
    return result;
}

}  // namespace Zt::KelApp
