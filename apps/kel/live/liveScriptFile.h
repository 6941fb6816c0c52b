// The script file of a live session and the folder it stands in: the one file the server writes
// on its own (only when the page asks to save), and the folder that bounds where a render to a
// file may go. A save is atomic: the text goes to a temporary file beside the script, is flushed
// to disk and renamed over it, so the file is always the old text or the new, never a mix.
#pragma once

#include <filesystem>
#include <mutex>
#include <string>

namespace Zt::KelApp {

class ScriptFile {
public:
    // `path` need not exist yet (a new script); its folder must. FileError otherwise.
    explicit ScriptFile(const std::string& path);

    const std::string& path() const { return _path; }
    // The text as last read or saved; an empty text for a file that does not exist yet.
    std::string text() const;
    // Replaces the file's text atomically, keeping its permissions; FileError when it can't.
    void save(const std::string& text);
    // `requested` (absolute, or relative to the script's folder) when it names a file inside that
    // folder or below it, links resolved, other than the script itself; FileError otherwise.
    std::string outputInside(const std::string& requested) const;

private:
    std::string _path;
    std::filesystem::path _folder;  // canonical
    std::filesystem::path _canonical;
    mutable std::mutex _mutex;
    std::string _text;
};

}  // namespace Zt::KelApp
