// Writing rendered frames to image files (kelImageIO.h): the output's settings resolved before
// the render, and each frame written from the rendered pixels themselves, flipped by a negative
// row stride, through a few rows at a time only where colour, alpha or the window need changing.
#include <unistd.h>

#include <OpenImageIO/strutil.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <optional>
#include <system_error>

#include "kelCheckedFile.h"
#include "kelColorSpaces.h"
#include "kelFileSupport.h"
#include "kelImageIO.h"

namespace Zt::KelApp {

namespace fs = std::filesystem;
using OIIO::ImageInput;
using OIIO::ImageOutput;
using OIIO::ImageSpec;
using OIIO::TypeDesc;
namespace Strutil = OIIO::Strutil;

namespace {

using D = SampleDepth;

// What each format can store. `fallback` is its depth when the first input's is not among
// `depths` (or there is no input); an empty list of compressions takes none. `checkedWrites`:
// its writer goes through a CheckedFile correctly (TIFF's rewrites its directory wrongly there
// and is checked by reading the file back instead).
struct FormatRule {
    const char* name;
    std::vector<SampleDepth> depths;
    SampleDepth fallback;
    std::vector<std::string> compressions;
    const char* defaultCompression;
    bool straightAlpha;
    bool checkedWrites;
};
const FormatRule kFormats[] = {
    {"openexr", {D::Half, D::Float}, D::Float, {"none", "rle", "zips", "zip", "piz", "pxr24", "b44", "b44a", "dwaa", "dwab"}, "zip", false, true},
    {"tiff",    {D::UInt8, D::UInt16, D::Float}, D::UInt16, {"none", "lzw", "zip", "packbits"}, "", false, false},
    {"png",     {D::UInt8, D::UInt16}, D::UInt8, {"zip"}, "", true, true},
    {"dpx",     {D::UInt8, D::UInt10, D::UInt16}, D::UInt10, {}, "", false, true},
    {"jpeg",    {D::UInt8}, D::UInt8, {"jpeg"}, "", false, true},
    {"targa",   {D::UInt8}, D::UInt8, {"none", "rle"}, "", true, true},
    {"bmp",     {D::UInt8}, D::UInt8, {}, "", false, false},
    {"hdr",     {D::Float}, D::Float, {}, "", false, false},
    {"pnm",     {D::UInt8, D::UInt16}, D::UInt8, {}, "", false, false},
};
// A format not listed takes any depth and any compression, as OpenImageIO's writer sees fit.
const FormatRule kAnyFormat{"", {D::UInt8, D::UInt10, D::UInt16, D::Half, D::Float}, D::UInt8, {"*"}, "", false, false};

const FormatRule& ruleFor(const std::string& formatName) {
    for (const FormatRule& rule : kFormats)
        if (formatName == rule.name) return rule;
    return kAnyFormat;
}

bool isInteger(SampleDepth depth) { return depth != D::Half && depth != D::Float; }

TypeDesc fileType(SampleDepth depth) {
    static const TypeDesc types[] = {TypeDesc::UINT8, TypeDesc::UINT16, TypeDesc::UINT16, TypeDesc::HALF, TypeDesc::FLOAT};
    return types[int(depth)];
}

std::string depthList(const std::vector<SampleDepth>& depths) {
    std::vector<std::string> names;
    for (SampleDepth d : depths) names.push_back(depthName(d));
    return Strutil::join(names, ", ");
}

// Attributes that describe how the input was stored rather than what it shows: the output
// states its own.
bool describesStorage(const std::string& name) {
    static const char* const names[] = {"compression", "PixelAspectRatio", "Software", "ImageHistory", "planarconfig",
                                        "openexr:chunkCount", "openexr:dwaCompressionLevel", "tiff:Compression",
                                        "tiff:RowsPerStrip", "tiff:PhotometricInterpretation", "tiff:PlanarConfiguration",
                                        "png:compressionLevel", "dpx:Packing", "Orientation"};
    for (const char* n : names)
        if (Strutil::iequals(name, n)) return true;
    return false;
}

}  // namespace

void checkWritable(const std::string& path) {
    if (!ImageOutput::create(path)) throw FileError("cannot write " + path + ": " + oneLine(OIIO::geterror()));
    const fs::path directory = fs::absolute(fs::path(path)).parent_path();
    std::error_code error;
    if (!fs::is_directory(directory, error)) throw FileError("cannot write " + path + ": no directory " + directory.string());
    if (access(directory.c_str(), W_OK) != 0) throw FileError("cannot write " + path + ": the directory is not writable");
    if (fs::is_directory(fs::path(path), error)) throw FileError("cannot write " + path + ": it is a directory");
}

OutputSettings resolveOutput(const std::string& path, const ImageWriteOptions& options, const ImageFileInfo* firstInput) {
    const auto out = ImageOutput::create(path);
    if (!out) throw FileError("cannot write " + path + ": " + oneLine(OIIO::geterror()));
    OutputSettings s;
    s.formatName = out->format_name();
    const FormatRule& rule = ruleFor(s.formatName);
    const auto offers = [&rule](SampleDepth d) { return std::find(rule.depths.begin(), rule.depths.end(), d) != rule.depths.end(); };

    if (options.depth && !offers(*options.depth))
        throw FileError("cannot write " + path + " as " + depthName(*options.depth) + ": " + s.formatName +
                        " files take " + depthList(rule.depths));
    s.depth = options.depth ? *options.depth : firstInput && offers(firstInput->depth) ? firstInput->depth : rule.fallback;

    if (options.compression) {
        const std::string name = Strutil::lower(options.compression->substr(0, options.compression->find(':')));
        const bool known = std::find(rule.compressions.begin(), rule.compressions.end(), name) != rule.compressions.end();
        if (!known && !(rule.compressions.size() == 1 && rule.compressions[0] == "*"))
            throw FileError("cannot write " + path + " with compression " + *options.compression + ": " + s.formatName +
                            (rule.compressions.empty() ? " files take none" : " files take " + Strutil::join(rule.compressions, ", ")));
        s.compression = *options.compression;
    } else if (firstInput && firstInput->formatName == s.formatName && !firstInput->compression.empty()) {
        s.compression = firstInput->compression;
    } else {
        s.compression = rule.defaultCompression;
    }

    const bool alpha = out->supports("alpha");
    if (options.channels == 4 && !alpha) throw FileError("cannot write " + path + " as RGBA: " + s.formatName + " files have no alpha");
    s.channels = options.channels ? *options.channels : !alpha ? 3 : firstInput && !firstInput->hasAlpha ? 3 : 4;

    ColorSpaces& spaces = ColorSpaces::instance();
    if (!options.colorspace.empty()) {
        const auto found = spaces.find(options.colorspace);
        if (!found) throw FileError("cannot write " + path + " in colour space " + options.colorspace + ": unknown (known: " + spaces.names() + ")");
        s.colorspace = *found;
    } else {
        s.colorspace = isInteger(s.depth) ? spaces.find("sRGB").value_or(spaces.working()) : spaces.working();
    }
    s.unassociatedAlpha = rule.straightAlpha && s.channels == 4;
    s.windows = out->supports("displaywindow");

    if (options.metadata && firstInput)
        for (const OIIO::ParamValue& p : firstInput->metadata)
            if (!describesStorage(p.name().string())) s.metadata.push_back(p);
    if (!options.software.empty()) s.metadata.attribute("Software", options.software);
    if (!options.history.empty()) {
        std::string history = options.metadata && firstInput ? firstInput->metadata.get_string("ImageHistory") : "";
        s.metadata.attribute("ImageHistory", history.empty() ? options.history : history + "\n" + options.history);
    }
    return s;
}

OutputFrame outputFrame(const PxRenderedImage& image, const IxPixelFormat& format, const ImageFileInfo* firstInput,
                        int scaleLevel) {
    OutputFrame frame{image, format, image.rect};
    if (firstInput) {
        // A proxy's display window covers the pixels that cover the full one.
        const int f = 1 << scaleLevel;
        const GeRectangle<int>& d = firstInput->display;
        frame.display = GeRectangle<int>(0, (d.xMax + f - 1) / f, 0, (d.yMax + f - 1) / f);
        frame.displayX = firstInput->displayX / f;
        frame.displayY = firstInput->displayY / f;
    }
    return frame;
}

namespace {

// Beside the output, hidden, with the output's extension so that OpenImageIO picks its format.
fs::path temporaryPath(const fs::path& path) {
    static std::atomic<int> counter{0};
    return path.parent_path() / ("." + path.stem().string() + ".kel-tmp-" + std::to_string(getpid()) + "-" +
                                 std::to_string(counter++) + path.extension().string());
}

// A writer that can't write through a CheckedFile writes the file itself, without checking its
// writes: the file is read back whole, so that a short file is caught.
bool readsBack(const fs::path& path) {
    const QuietStandardError quiet;
    auto in = ImageInput::open(path.string());
    if (!in) return false;
    const ImageSpec& spec = in->spec();
    std::vector<float> data(std::size_t(spec.width) * std::size_t(spec.height) * std::size_t(spec.nchannels));
    return in->read_image(0, 0, 0, spec.nchannels, TypeDesc::FLOAT, data.data());
}

// The file's pixel rectangle in the frame, and the image description that places it.
ImageSpec fileSpec(const OutputFrame& frame, const OutputSettings& s, GeRectangle<int>& region) {
    const GeRectangle<int>& rect = frame.image.rect;
    // Without windows in the format, the file is the display window.
    region = s.windows ? rect : frame.display;
    ImageSpec spec(region.width(), region.height(), s.channels, fileType(s.depth));
    if (s.windows) {
        spec.x = frame.displayX + region.xMin - frame.display.xMin;
        spec.y = frame.displayY + frame.display.yMax - region.yMax;
        spec.full_x = frame.displayX;
        spec.full_y = frame.displayY;
        spec.full_width = frame.display.width();
        spec.full_height = frame.display.height();
    }
    for (const OIIO::ParamValue& p : s.metadata) spec.extra_attribs.push_back(p);
    if (s.depth == D::UInt10) spec.attribute("oiio:BitsPerSample", 10);
    if (!s.compression.empty()) spec.attribute("compression", s.compression);
    if (frame.format.aspectNum != frame.format.aspectDen) spec.attribute("PixelAspectRatio", frame.format.aspect());
    spec.attribute("oiio:ColorSpace", s.colorspace);
    if (s.unassociatedAlpha) spec.attribute("oiio:UnassociatedAlpha", 1);
    return spec;
}

// The pixels from the frame to the file: the frame's own rows where nothing changes them, else
// a few rows at a time converted in a small buffer.
bool writePixels(ImageOutput& out, const ImageSpec& spec, const OutputFrame& frame, const OutputSettings& s,
                 const GeRectangle<int>& region) {
    const PxRenderedImage& image = frame.image;
    ColorSpaces& spaces = ColorSpaces::instance();
    const OIIO::ColorProcessorHandle processor = spaces.processor(spaces.working(), s.colorspace);
    const AlphaStorage alpha = s.unassociatedAlpha ? AlphaStorage::Straight : AlphaStorage::Premultiplied;
    const bool asRendered = !processor && alpha == AlphaStorage::Premultiplied && region == image.rect;
    const OIIO::stride_t rowBytes = OIIO::stride_t(image.rect.width()) * OIIO::stride_t(sizeof(Color));
    if (asRendered) {
        if (region.isEmpty()) return out.write_image(TypeDesc::FLOAT, image.pixels.data());
        return out.write_image(TypeDesc::FLOAT, &image.at(region.xMin, region.yMax - 1), sizeof(Color), -rowBytes);
    }
    constexpr int kRows = 64;
    const int width = region.width();
    std::vector<Color> rows(std::size_t(width) * kRows);
    for (int top = 0; top < region.height(); top += kRows) {
        const int count = std::min(kRows, region.height() - top);
        for (int i = 0; i < count; ++i) {
            const int y = region.yMax - 1 - (top + i);  // the file's rows go down
            Color* dst = rows.data() + std::size_t(i) * std::size_t(width);
            const bool inside = y >= image.rect.yMin && y < image.rect.yMax;
            for (int x = region.xMin; x < region.xMax; ++x)
                dst[x - region.xMin] = inside && x >= image.rect.xMin && x < image.rect.xMax ? image.at(x, y) : Color::ZERO;
        }
        convertPixels(&rows[0].r, width, count, 4 * std::ptrdiff_t(width), processor.get(), alpha, false);
        if (!out.write_scanlines(spec.y + top, spec.y + top + count, 0, TypeDesc::FLOAT, rows.data(), sizeof(Color)))
            return false;
    }
    return true;
}

}  // namespace

void OutputFiles::write(const std::string& path, const OutputFrame& frame, const OutputSettings& settings) {
    const fs::path target = fs::absolute(fs::path(path));
    const fs::path temporary = temporaryPath(target);
    auto out = ImageOutput::create(path);
    if (!out) throw FileError("cannot write " + path + ": " + oneLine(OIIO::geterror()));
    GeRectangle<int> region;
    const ImageSpec spec = fileSpec(frame, settings, region);

    // Written through checked writes when the format allows it, else checked by reading back.
    std::optional<CheckedFile> file;
    if (ruleFor(settings.formatName).checkedWrites && out->supports("ioproxy")) file.emplace(temporary);
    const bool checked = file && out->set_ioproxy(&*file);
    bool written = out->open(temporary.string(), spec) && writePixels(*out, spec, frame, settings, region) && out->close();
    std::string reason = written ? "" : oneLine(out->geterror());
    out.reset();
    std::string fileReason;
    if (file && !file->finish(fileReason) && checked) {
        written = false;
        reason = fileReason;
    }
    if (written && !checked && !readsBack(temporary)) {
        written = false;
        reason = "the file written is incomplete (is the disk full?)";
    }
    if (!written) {
        std::error_code ignored;
        fs::remove(temporary, ignored);
        throw FileError("cannot write " + path + ": " + reason);
    }
    _pending.push_back({path, temporary, target});
}

void OutputFiles::commit() {
    for (std::size_t i = 0; i < _pending.size(); ++i) {
        std::error_code error;
        fs::rename(_pending[i].temporary, _pending[i].target, error);
        if (error) {
            const std::string message = "cannot write " + _pending[i].path + ": " + error.message();
            _pending.erase(_pending.begin(), _pending.begin() + std::ptrdiff_t(i));
            discard();
            throw FileError(message);
        }
    }
    _pending.clear();
}

void OutputFiles::discard() noexcept {
    for (const Pending& p : _pending) {
        std::error_code ignored;
        fs::remove(p.temporary, ignored);
    }
    _pending.clear();
}

}  // namespace Zt::KelApp
