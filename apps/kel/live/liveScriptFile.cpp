#include "liveScriptFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "kelImageFiles.h"

namespace Zt::KelApp {

namespace fs = std::filesystem;

ScriptFile::ScriptFile(const std::string& path) : _path(path) {
    std::error_code error;
    const fs::path absolute = fs::absolute(path, error);
    _folder = fs::canonical(absolute.parent_path(), error);
    if (error) throw FileError("cannot use " + path + ": its folder " + absolute.parent_path().string() + " does not exist");
    _canonical = _folder / absolute.filename();
    if (fs::is_directory(_canonical, error)) throw FileError("cannot read " + path + ": it is a directory");
    if (!fs::exists(_canonical, error)) return;
    std::ifstream file(_canonical, std::ios::binary);
    _text.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    if (!file || file.bad()) throw FileError("cannot read " + path);
}

std::string ScriptFile::text() const {
    std::lock_guard lock(_mutex);
    return _text;
}

void ScriptFile::save(const std::string& text) {
    std::lock_guard lock(_mutex);
    std::string temporary = (_folder / ("." + _canonical.filename().string() + ".XXXXXX")).string();
    const int fd = ::mkstemp(temporary.data());
    if (fd < 0) throw FileError("cannot save " + _path + ": " + std::strerror(errno));
    // The permissions of the file it replaces; a new script gets those of a file an editor makes.
    struct stat existing {};
    const mode_t mode = ::stat(_canonical.c_str(), &existing) == 0 ? existing.st_mode & 07777 : 0644;
    int reason = ::fchmod(fd, mode) == 0 ? 0 : errno;
    for (std::size_t written = 0; !reason && written < text.size();) {
        const ssize_t n = ::write(fd, text.data() + written, text.size() - written);
        if (n >= 0) written += std::size_t(n);
        else if (errno != EINTR) reason = errno;
    }
    if (!reason && ::fsync(fd) != 0) reason = errno;
    if (::close(fd) != 0 && !reason) reason = errno;
    if (!reason && ::rename(temporary.c_str(), _canonical.c_str()) != 0) reason = errno;
    if (reason) {
        ::unlink(temporary.c_str());
        throw FileError("cannot save " + _path + ": " + std::strerror(reason));
    }
    _text = text;
}

std::string ScriptFile::outputInside(const std::string& requested) const {
    std::error_code error;
    const fs::path wanted = fs::path(requested).is_absolute() ? fs::path(requested) : _folder / requested;
    const fs::path resolved = fs::weakly_canonical(wanted, error);
    const auto [end, _] = std::mismatch(_folder.begin(), _folder.end(), resolved.begin(), resolved.end());
    if (error || requested.empty() || end != _folder.end() || resolved == _folder)
        throw FileError("refusing to write " + requested + ": the output must be inside the script's folder " +
                        _folder.string());
    if (resolved == _canonical) throw FileError("refusing to write over the script " + _path);
    return resolved.string();
}

}  // namespace Zt::KelApp
