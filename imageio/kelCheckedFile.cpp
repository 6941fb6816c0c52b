#include "kelCheckedFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Zt::KelApp {

CheckedFile::CheckedFile(const std::filesystem::path& path) : IOProxy(path.string(), Write) {
    _fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (_fd < 0) fail(errno);
}

CheckedFile::~CheckedFile() {
    if (_fd >= 0) ::close(_fd);
}

void CheckedFile::fail(int error) {
    std::lock_guard lock(_mutex);
    if (_failure.empty()) _failure = std::strerror(error);
}

size_t CheckedFile::write(const void* buffer, size_t size) {
    const size_t done = pwrite(buffer, size, m_pos);
    m_pos += int64_t(done);
    return done;
}

size_t CheckedFile::pwrite(const void* buffer, size_t size, int64_t offset) {
    if (_fd < 0) return 0;
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::pwrite(_fd, static_cast<const char*>(buffer) + done, size - done, off_t(offset) + off_t(done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            fail(n < 0 ? errno : ENOSPC);
            break;
        }
        done += size_t(n);
    }
    std::lock_guard lock(_mutex);
    _size = std::max(_size, size_t(offset) + done);
    return done;
}

size_t CheckedFile::read(void* buffer, size_t size) {
    const size_t done = pread(buffer, size, m_pos);
    m_pos += int64_t(done);
    return done;
}

size_t CheckedFile::pread(void* buffer, size_t size, int64_t offset) {
    if (_fd < 0) return 0;
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::pread(_fd, static_cast<char*>(buffer) + done, size - done, off_t(offset) + off_t(done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += size_t(n);
    }
    return done;
}

bool CheckedFile::finish(std::string& reason) {
    if (_fd >= 0 && ::close(_fd) != 0) fail(errno);
    _fd = -1;
    m_mode = Closed;
    reason = _failure;
    return _failure.empty();
}

}  // namespace Zt::KelApp
