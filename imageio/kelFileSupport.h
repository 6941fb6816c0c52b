// Small helpers shared by the reading and writing of image files: one-line messages out of
// OpenImageIO's, and a quiet standard error while libraries that print their own warnings run.
#pragma once

#include <string>
#include <thread>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

namespace Zt::KelApp {

// OpenImageIO's messages may span lines; a message of the command is one line.
std::string oneLine(std::string text);

// libpng and libtiff print their own warnings and errors on standard error, beside the one line
// kel reports: silenced while a file is opened or decoded. Standard error is the process's, so
// while one of these lives, only std::cerr reaches the terminal, and only once
// keepMessagesAudible has run.
class QuietStandardError {
public:
    QuietStandardError();
    ~QuietStandardError();
    QuietStandardError(const QuietStandardError&) = delete;
    QuietStandardError& operator=(const QuietStandardError&) = delete;
};

// body(range) over the blocks of [begin, end), `grain` elements or more each, on the cores.
// Under ThreadSanitizer, two plain threads take a half each instead: the Debian oneTBB library is
// not instrumented, and TSan takes its hand-offs between workers for races of ours.
template <class Index, class Body>
void forBlocks(Index begin, Index end, Index grain, const Body& body) {
#if defined(__SANITIZE_THREAD__)
    const Index middle = begin + (end - begin) / 2;
    std::thread other([&] { body(tbb::blocked_range<Index>(begin, middle, grain)); });
    body(tbb::blocked_range<Index>(middle, end, grain));
    other.join();
#else
    tbb::parallel_for(tbb::blocked_range<Index>(begin, end, grain), body);
#endif
}

// Binds std::cerr to a duplicate of standard error, which QuietStandardError leaves alone: the
// command's own messages (progress, frames done, failures) print while a file is read ahead or
// written behind on another thread. Called once, before any other thread starts.
void keepMessagesAudible();

}  // namespace Zt::KelApp
