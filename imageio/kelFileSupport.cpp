#include "kelFileSupport.h"

#include <fcntl.h>
#include <unistd.h>

#include <ext/stdio_filebuf.h>

#include <cstdio>
#include <iostream>
#include <mutex>

namespace Zt::KelApp {

std::string oneLine(std::string text) {
    for (char& c : text)
        if (c == '\n' || c == '\r') c = ';';
    while (!text.empty() && (text.back() == ';' || text.back() == ' ')) text.pop_back();
    return text.empty() ? "unknown failure" : text;
}

namespace {

// Reading ahead and writing behind run beside each other: the first to quiet standard error
// saves it, the last to finish restores it.
std::mutex quietMutex;
int quietCount = 0;
int savedDescriptor = -1;

}  // namespace

void keepMessagesAudible() {
    static const int descriptor = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
    if (descriptor < 0) return;
    // Never destroyed: std::cerr flushes through it when the program ends, after the statics.
    static auto* const messages = new __gnu_cxx::stdio_filebuf<char>(descriptor, std::ios::out);
    std::cerr.flush();
    std::cerr.rdbuf(messages);
}

QuietStandardError::QuietStandardError() {
    std::lock_guard lock(quietMutex);
    if (quietCount++ > 0) return;
    std::fflush(stderr);
    savedDescriptor = dup(STDERR_FILENO);
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0) {
        dup2(null, STDERR_FILENO);
        close(null);
    }
}

QuietStandardError::~QuietStandardError() {
    std::lock_guard lock(quietMutex);
    if (--quietCount > 0) return;
    std::fflush(stderr);
    if (savedDescriptor >= 0) {
        dup2(savedDescriptor, STDERR_FILENO);
        close(savedDescriptor);
        savedDescriptor = -1;
    }
}

}  // namespace Zt::KelApp
