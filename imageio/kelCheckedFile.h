// A file that OpenImageIO writes through, every write checked: a full disk (ENOSPC, or EFBIG
// past a file-size limit) or any other failure is remembered and reported by `finish`, so that
// an encoder that ignores what its writes return can never leave a short file taken for whole.
#pragma once

#include <OpenImageIO/filesystem.h>

#include <filesystem>
#include <mutex>
#include <string>

namespace Zt::KelApp {

class CheckedFile final : public OIIO::Filesystem::IOProxy {
public:
    explicit CheckedFile(const std::filesystem::path& path);
    ~CheckedFile() override;
    CheckedFile(const CheckedFile&) = delete;
    CheckedFile& operator=(const CheckedFile&) = delete;

    const char* proxytype() const override { return "checked file"; }
    size_t write(const void* buffer, size_t size) override;
    size_t pwrite(const void* buffer, size_t size, int64_t offset) override;
    // Some encoders (TIFF's) read back what they wrote.
    size_t read(void* buffer, size_t size) override;
    size_t pread(void* buffer, size_t size, int64_t offset) override;
    size_t size() const override { return _size; }

    // Closes the file; false with `reason` when a write or the close failed.
    bool finish(std::string& reason);

private:
    void fail(int error);

    int _fd = -1;
    std::size_t _size = 0;
    std::string _failure;
    std::mutex _mutex;  // pwrite may come from the encoder's threads
};

}  // namespace Zt::KelApp
