// KelImageIO: the one place where image files are read and written, for every front end (the
// `kel` command, the live page, the Python module). An image comes in as the host's
// PxMemoryImage, RGBA float, premultiplied, scene-linear, rows bottom-up, placed in its display
// window's frame; it goes out from a rendered frame with both windows, the depth, compression,
// channels, colour space and metadata asked for. Everything that can be refused is refused
// before a render (checkReadable, resolveOutput), and an output reaches its path whole or not
// at all (OutputFiles).
//
// The frame (docs/files.md). Pixel (0, 0) is the bottom-left pixel of the display window;
// rows go up. An input's data window keeps its place in that frame (its pixel rectangle
// need not start at (0, 0)), outside it the input reads transparent black, and `x`, `y`,
// `xmin`..`ymax` and `sample` all work in that frame. The output's data window is the rendered
// rectangle, its display window the first image input's (else the rendered rectangle).
//
// Channels. R, G, B and A are found by name (any case; `layer.R` within a layer); `Y` alone is
// grey. A file whose channels have none of those names is read by position: one channel grey
// with A=1, two grey and alpha, three RGB with A=1, four or more RGBA. An input without alpha
// has A=1. The channels left out are listed (ReadImage::ignoredChannels) for a warning.
//
// Colour. Pixels are converted on read from the input's colour space to the working space (the
// OCIO configuration's scene_linear role; without $OCIO the built-in "linear"), and on write
// from it to the output's. An input's space is the one asked for, else the file's own
// (oiio:ColorSpace), else its type's: 8- to 16-bit integers sRGB, half and float linear. An
// output's likewise: the one asked for, else its depth's. Files with unassociated alpha (PNG)
// are premultiplied after the conversion on read, and divided before it on write.
#pragma once

#include <OpenImageIO/imageio.h>

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "PxMemoryImage.h"
#include "PxTileRenderer.h"

namespace Zt::KelApp {

// A file that can't be read or written, or an option of a file that can't be honoured: a
// one-line message (the command's exit status 2).
struct FileError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// ---- Reading ---------------------------------------------------------------------------------

struct ImageReadOptions {
    std::string layer;       // channels `layer.R`...; empty: the channels outside any layer
    std::string subimage;    // a part's index or name; empty: the first
    std::string colorspace;  // overrides the file's own; empty: the file's, else its type's
};

// A path with its read options, as written on a command line: `plate.exr`,
// `render.exr:layer=diffuse:subimage=1:colorspace=sRGB`.
struct ImageSource {
    std::string path;
    ImageReadOptions options;
};
// FileError for an unknown or repeated option (`what` names the source in the message).
ImageSource parseImageSource(const std::string& text, const std::string& what);

// Sample depths that outputs offer (and inputs report).
enum class SampleDepth { UInt8, UInt10, UInt16, Half, Float };
// "uint8", "uint10", "uint16", "half", "float", and back (nullopt for any other name).
const char* depthName(SampleDepth depth);
std::optional<SampleDepth> parseDepth(const std::string& name);

// What an input carries besides its pixels: what an output takes as defaults from it.
struct ImageFileInfo {
    std::string formatName;      // OpenImageIO's: "openexr", "png", ...
    SampleDepth depth = SampleDepth::Float;
    std::string compression;     // the file's, "" when it says none
    bool hasAlpha = false;
    std::string colorspace;      // the space it was read from
    GeRectangle<int> display;    // the display window in the frame: (0, W, 0, H)
    int displayX = 0, displayY = 0;  // the display window's corner in the file (top-left)
    OIIO::ParamValueList metadata;   // the file's own attributes, less OpenImageIO's bookkeeping
};

struct ReadImage {
    PxNodePtr<PxMemoryImage> image;
    ImageFileInfo info;
    std::vector<std::string> ignoredChannels;  // by their names in the file
};

// Reads the whole image of `source` (its data window, in the display window's frame).
// FileError for a file that can't be opened or decoded, has no pixels or none of the layer or
// subimage asked for, names an unknown colour space, or won't fit in memory.
ReadImage readImage(const ImageSource& source, const PxValidityInterval& validity);

// Checks, before a render, that `source` opens and reads as readImage would read it (layer,
// subimage and colour space included) without reading the pixels, and returns what readImage
// would report besides them; FileError otherwise.
ImageFileInfo checkReadable(const ImageSource& source);

// The pixel aspect as the two integers of IxPixelFormat: a fraction with a denominator of at
// most 1000 closest to `aspect` (2 gives 2/1, 0.9 gives 9/10).
IxPixelFormat aspectFormat(double aspect);

// Refuses, before allocating, an image of width x height pixels of `bytesPerPixel` that can't
// fit in the machine's physical memory: FileError(what + ": ...").
void checkFitsInMemory(const std::string& what, long long width, long long height, long long bytesPerPixel);

// ---- Writing ---------------------------------------------------------------------------------

struct ImageWriteOptions {
    std::optional<SampleDepth> depth;       // default: the first input's where the format has it
    std::optional<std::string> compression; // "zip", "piz", "dwaa:45", "none"...; default likewise
    std::optional<int> channels;            // 3 (RGB) or 4 (RGBA); default: the first input's
    std::string colorspace;                 // default: the depth's (integers sRGB, else linear)
    bool metadata = true;                   // carry the first input's metadata
    std::string software;                   // the `Software` attribute, when not empty
    std::string history;                    // a line added to `ImageHistory`, when not empty
};

// Every setting of one output file, resolved from its options, its format and the first input.
struct OutputSettings {
    std::string formatName;
    SampleDepth depth = SampleDepth::Float;
    std::string compression;  // "" for the format's own
    int channels = 4;
    std::string colorspace;
    bool unassociatedAlpha = false;  // the format stores straight colour beside alpha
    bool windows = true;             // the format stores a data window inside a display window
    OIIO::ParamValueList metadata;   // written as they are, before depth and colour tags
};

// FileError, before a render, for a format that can't be written or lacks the depth, the
// compression, the channels or the colour space asked for. `firstInput` is null without an
// image input.
OutputSettings resolveOutput(const std::string& path, const ImageWriteOptions& options,
                             const ImageFileInfo* firstInput);

// Checks, before a render, that `path` can be written: its extension names a format that
// OpenImageIO writes, and its directory exists and is writable.
void checkWritable(const std::string& path);

// One rendered frame to write: its pixels, pixel aspect and display window (in the frame, at
// the render's scale; the rendered rectangle when there is no input), and where the display
// window's corner sits in the file.
struct OutputFrame {
    const PxRenderedImage& image;
    IxPixelFormat format;
    GeRectangle<int> display;
    int displayX = 0, displayY = 0;
};

// The frame to write for `image` rendered at `scaleLevel`: the first input's display window at
// that scale (null: the rendered rectangle is the display window).
OutputFrame outputFrame(const PxRenderedImage& image, const IxPixelFormat& format, const ImageFileInfo* firstInput,
                        int scaleLevel);

// The output files of a render (one image, or every frame of a sequence), all or nothing: each
// image is written into a temporary file beside its path, with checked writes, and `commit`
// renames them all into place once the last one is written. Destroyed before `commit` (a
// failure, a cancellation), it removes every temporary, and the files at the outputs' paths are
// untouched. `write` may run on another thread than the render, one write at a time.
class OutputFiles {
public:
    OutputFiles() = default;
    ~OutputFiles() { discard(); }
    OutputFiles(const OutputFiles&) = delete;
    OutputFiles& operator=(const OutputFiles&) = delete;

    // Writes `frame` to a new temporary file for `path`; FileError if it can't be written whole
    // (that temporary is removed; the earlier ones stay until `commit` or `discard`).
    void write(const std::string& path, const OutputFrame& frame, const OutputSettings& settings);
    // Renames every temporary onto its path, in the order written; FileError if one can't be
    // renamed (the temporaries not yet renamed are removed).
    void commit();
    // Removes every temporary not yet renamed.
    void discard() noexcept;

private:
    struct Pending {
        std::string path;  // as given, for messages
        std::filesystem::path temporary;
        std::filesystem::path target;
    };
    std::vector<Pending> _pending;
};

}  // namespace Zt::KelApp
