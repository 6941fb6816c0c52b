#include "kelImageFiles.h"

#include <fcntl.h>
#include <unistd.h>

#include <OpenImageIO/filesystem.h>
#include <OpenImageIO/imageio.h>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>

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

namespace {

// OpenImageIO's messages may span lines; the command prints every message on one line.
std::string oneLine(std::string text) {
    for (char& c : text)
        if (c == '\n' || c == '\r') c = ';';
    while (!text.empty() && (text.back() == ';' || text.back() == ' ')) text.pop_back();
    return text.empty() ? "unknown failure" : text;
}

// libpng and libtiff print their own warnings and errors on standard error, beside the one
// line kel reports: silenced while a file is decoded (on the application thread, before the
// render, so nothing else writes there meanwhile).
class QuietStandardError {
public:
    QuietStandardError() {
        std::fflush(stderr);
        _saved = dup(STDERR_FILENO);
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (null >= 0) {
            dup2(null, STDERR_FILENO);
            close(null);
        }
    }
    ~QuietStandardError() {
        std::fflush(stderr);
        if (_saved >= 0) {
            dup2(_saved, STDERR_FILENO);
            close(_saved);
        }
    }
    QuietStandardError(const QuietStandardError&) = delete;
    QuietStandardError& operator=(const QuietStandardError&) = delete;

private:
    int _saved;
};

}  // namespace

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

// The file opened and its header checked: it has pixels, and its data as floats and the RGBA
// image fit in memory. Called with standard error quiet.
std::unique_ptr<ImageInput> openInput(const std::string& path) {
    auto in = ImageInput::open(path);
    if (!in) throw FileError("cannot read " + path + ": " + oneLine(OIIO::geterror()));
    const ImageSpec& imageSpec = in->spec();
    const int width = imageSpec.width, height = imageSpec.height, channels = imageSpec.nchannels;
    if (width <= 0 || height <= 0 || channels <= 0)
        throw FileError("cannot read " + path + ": it has no pixels (" + std::to_string(width) + "x" +
                        std::to_string(height) + ", " + std::to_string(channels) + " channels)");
    // The file's data as floats, then the RGBA image: refused before either is allocated.
    checkFitsInMemory("cannot read " + path, width, height, 4LL * channels + sizeof(Color));
    return in;
}

}  // namespace

void checkReadable(const std::string& path) {
    const QuietStandardError quiet;
    openInput(path);
}

PxNodePtr<PxMemoryImage> readImage(const std::string& path, const PxValidityInterval& validity) {
    const QuietStandardError quiet;
    const auto in = openInput(path);
    const ImageSpec& imageSpec = in->spec();
    const int width = imageSpec.width, height = imageSpec.height, channels = imageSpec.nchannels;
    std::vector<float> data;
    std::vector<Color> pixels;
    try {
        data.resize(std::size_t(width) * std::size_t(height) * std::size_t(channels));
        pixels.resize(std::size_t(width) * std::size_t(height));
    } catch (const std::bad_alloc&) {
        throw FileError("cannot read " + path + ": not enough memory for " + std::to_string(width) + "x" +
                        std::to_string(height) + " pixels");
    }
    if (!in->read_image(0, 0, 0, channels, TypeDesc::FLOAT, data.data()))
        throw FileError("cannot read " + path + ": " + oneLine(in->geterror()));
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
    const IxPixelFormat format = aspectFormat(imageSpec.get_float_attribute("PixelAspectRatio", 1.0f));
    return PxNodePtr<PxMemoryImage>(new PxMemoryImage(width, height, std::move(pixels), format, validity));
}

void checkWritable(const std::string& path) {
    if (!ImageOutput::create(path)) throw FileError("cannot write " + path + ": " + oneLine(OIIO::geterror()));
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

// Writes `bytes` to a new file at `path`, checking every write and the final close: a full disk
// (ENOSPC, or EFBIG past a file-size limit) is an error, never a short file.
bool writeBytes(const fs::path& path, const std::vector<unsigned char>& bytes, std::string& reason) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) {
        reason = std::strerror(errno);
        return false;
    }
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            reason = std::strerror(n < 0 ? errno : ENOSPC);
            close(fd);
            return false;
        }
        done += std::size_t(n);
    }
    if (fsync(fd) != 0 && errno != EINVAL) {
        reason = std::strerror(errno);
        close(fd);
        return false;
    }
    if (close(fd) != 0) {
        reason = std::strerror(errno);
        return false;
    }
    return true;
}

// A writer that can't encode into memory writes the file itself, without checking its writes:
// the file is read back whole, so that a short file is caught.
bool readsBack(const fs::path& path) {
    const QuietStandardError quiet;
    auto in = ImageInput::open(path.string());
    if (!in) return false;
    const ImageSpec& imageSpec = in->spec();
    std::vector<float> data(std::size_t(imageSpec.width) * std::size_t(imageSpec.height) * std::size_t(imageSpec.nchannels));
    return in->read_image(0, 0, 0, imageSpec.nchannels, TypeDesc::FLOAT, data.data());
}

}  // namespace

void OutputFiles::write(const std::string& path, const PxRenderedImage& image, const IxPixelFormat& format) {
    const fs::path target = fs::absolute(fs::path(path));
    const fs::path temporary = temporaryPath(target);
    auto out = ImageOutput::create(path);
    if (!out) throw FileError("cannot write " + path + ": " + oneLine(OIIO::geterror()));
    const std::string formatName = out->format_name();
    const int width = image.rect.width(), height = image.rect.height();
    const int channels = out->supports("alpha") ? 4 : 3;
    ImageSpec imageSpec(width, height, channels, fileType(formatName));
    if (format.aspectNum != format.aspectDen) imageSpec.attribute("PixelAspectRatio", format.aspect());

    std::vector<float> data(std::size_t(width) * std::size_t(height) * std::size_t(channels));
    for (int row = 0; row < height; ++row) {
        float* dst = data.data() + std::size_t(row) * std::size_t(width) * std::size_t(channels);
        const int y = image.rect.yMax - 1 - row;
        for (int x = image.rect.xMin; x < image.rect.xMax; ++x, dst += channels)
            for (int c = 0; c < channels; ++c) dst[c] = image.at(x, y)[c];
    }
    // Encoded into memory when the format allows it, and then written with checked writes.
    std::vector<unsigned char> encoded;
    OIIO::Filesystem::IOVecOutput memory(encoded);
    const bool inMemory = out->supports("ioproxy") && out->set_ioproxy(&memory);
    bool written = out->open(temporary.string(), imageSpec) && out->write_image(TypeDesc::FLOAT, data.data()) && out->close();
    std::string reason = written ? "" : oneLine(out->geterror());
    out.reset();
    if (written && inMemory) written = writeBytes(temporary, encoded, reason);
    if (written && !inMemory && !readsBack(temporary)) {
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
