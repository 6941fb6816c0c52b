// Image files in and out through OpenImageIO, with the host's conventions: every image
// is RGBA float in memory, bottom row first; one channel is grey with A=1, two grey and alpha,
// three RGB with A=1; extra channels are ignored; the pixel aspect is the file's
// PixelAspectRatio. Output is written atomically: into temporary files of the outputs'
// directories, renamed into place once all are complete, so that a failure leaves earlier files
// untouched (OutputFiles).
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "PxMemoryImage.h"
#include "PxTileRenderer.h"

namespace Zt::KelApp {

// A file that can't be read or written: a one-line message and exit status 2.
struct FileError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The pixel aspect as the two integers of IxPixelFormat: a fraction with a denominator of at
// most 1000 closest to `aspect` (2 gives 2/1, 0.9 gives 9/10).
IxPixelFormat aspectFormat(double aspect);

// Refuses, before allocating, an image of width x height pixels of `bytesPerPixel` that can't
// fit in the machine's physical memory: FileError(what + ": ...").
void checkFitsInMemory(const std::string& what, long long width, long long height, long long bytesPerPixel);

// FileError for a file that can't be opened or decoded, has no pixels, or won't fit in memory.
PxNodePtr<PxMemoryImage> readImage(const std::string& path, const PxValidityInterval& validity);

// Checks, before a render, that the file at `path` opens and its header is one readImage takes
// (without reading the pixels); FileError otherwise.
void checkReadable(const std::string& path);

// Checks, before a render, that `path` can be written: its extension names a format that
// OpenImageIO writes, and its directory exists and is writable.
void checkWritable(const std::string& path);

// The output files of a render (one image, or every frame of a sequence), all or nothing: each
// image is written into a temporary file beside its path, and `commit` renames them all into
// place once the last one is written. Destroyed before `commit` (a failure, a cancellation), it
// removes every temporary, and the files at the outputs' paths are untouched.
class OutputFiles {
public:
    OutputFiles() = default;
    ~OutputFiles() { discard(); }
    OutputFiles(const OutputFiles&) = delete;
    OutputFiles& operator=(const OutputFiles&) = delete;

    // Writes `image` to a new temporary file for `path`; FileError if it can't be written whole
    // (that temporary is removed; the earlier ones stay until `commit` or `discard`).
    // `.exr` (and other float formats) as 32-bit float, TIFF as 16-bit, the rest as 8-bit; RGBA
    // unless the format has no alpha (JPEG: RGB). A pixel aspect other than 1 is written as
    // PixelAspectRatio.
    void write(const std::string& path, const PxRenderedImage& image, const IxPixelFormat& format);
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
