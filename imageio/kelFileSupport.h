// Small helpers shared by the reading and writing of image files: one-line messages out of
// OpenImageIO's, and a quiet standard error while libraries that print their own warnings run.
#pragma once

#include <string>

namespace Zt::KelApp {

// OpenImageIO's messages may span lines; a message of the command is one line.
std::string oneLine(std::string text);

// libpng and libtiff print their own warnings and errors on standard error, beside the one line
// kel reports: silenced while a file is opened or decoded. Standard error is the process's, so
// while one of these lives, nothing else should print there (the render prints nothing).
class QuietStandardError {
public:
    QuietStandardError();
    ~QuietStandardError();
    QuietStandardError(const QuietStandardError&) = delete;
    QuietStandardError& operator=(const QuietStandardError&) = delete;
};

}  // namespace Zt::KelApp
