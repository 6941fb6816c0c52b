// Running another program (the scheduler's client commands) and reading what it prints, and
// writing a command line for a POSIX shell. The program gets no standard input; its standard
// output and error are read whole, so a caller decides what of it a person sees.
#pragma once

#include <string>
#include <vector>

namespace Zt::KelApp {

struct ProgramRun {
    int status = 0;  // the exit status, or 128 + the signal that ended it
    std::string out;
    std::string err;
};

// Runs argv[0], found on PATH, with the given arguments and this process's environment, and
// waits for it. FileError when it can't be started (not installed: "PROGRAM not found").
ProgramRun runProgram(const std::vector<std::string>& argv);

// `word` as one word of a POSIX shell command: unchanged when it holds only characters that
// the shell takes literally, else in single quotes.
std::string shellWord(const std::string& word);

}  // namespace Zt::KelApp
