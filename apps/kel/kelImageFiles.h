// Image files in and out through OpenImageIO, with the host's conventions (host.md): every image
// is RGBA float in memory, bottom row first; one channel is grey with A=1, two grey and alpha,
// three RGB with A=1; extra channels are ignored; the pixel aspect is the file's
// PixelAspectRatio. Output is written atomically: into a temporary file of the output's
// directory, renamed into place once complete, so that a failure leaves an earlier file untouched.
#pragma once

#include <stdexcept>
#include <string>

#include "PxMemoryImage.h"
#include "PxTileRenderer.h"

namespace Zt::KelApp {

// A file that can't be read or written: exit status 2 (cli.md).
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

// Checks, before a render, that `path` can be written: its extension names a format that
// OpenImageIO writes, and its directory exists and is writable.
void checkWritable(const std::string& path);

// `.exr` (and other float formats) as 32-bit float, TIFF as 16-bit, the rest as 8-bit; RGBA
// unless the format has no alpha (JPEG: RGB). A pixel aspect other than 1 is written as
// PixelAspectRatio.
void writeImageAtomically(const std::string& path, const PxRenderedImage& image, const IxPixelFormat& format);

}  // namespace Zt::KelApp
