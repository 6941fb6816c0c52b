#include "kelProgram.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "kelImageIO.h"

extern char** environ;

namespace Zt::KelApp {

namespace {

// A pipe whose ends close with it.
class Pipe {
public:
    Pipe() {
        if (::pipe(_ends.data()) != 0) throw FileError(std::string("cannot create a pipe: ") + std::strerror(errno));
    }
    ~Pipe() {
        closeEnd(0);
        closeEnd(1);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    int readEnd() const { return _ends[0]; }
    int writeEnd() const { return _ends[1]; }
    void closeEnd(int end) {
        if (_ends[end] >= 0) ::close(_ends[end]);
        _ends[end] = -1;
    }

private:
    std::array<int, 2> _ends{-1, -1};
};

class SpawnActions {
public:
    SpawnActions() { posix_spawn_file_actions_init(&_actions); }
    ~SpawnActions() { posix_spawn_file_actions_destroy(&_actions); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
    posix_spawn_file_actions_t* get() { return &_actions; }

private:
    posix_spawn_file_actions_t _actions;
};

// Reads both pipes until the program closes them; reading one at a time could leave the program
// blocked on a full other pipe.
void drain(Pipe& out, Pipe& err, ProgramRun& run) {
    std::array<pollfd, 2> fds{pollfd{out.readEnd(), POLLIN, 0}, pollfd{err.readEnd(), POLLIN, 0}};
    std::array<std::string*, 2> into{&run.out, &run.err};
    int open = 2;
    while (open > 0) {
        if (::poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        for (std::size_t i = 0; i < fds.size(); ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            char buffer[4096];
            const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                into[i]->append(buffer, std::size_t(n));
            } else if (n == 0 || errno != EINTR) {
                fds[i].fd = -1;
                --open;
            }
        }
    }
}

}  // namespace

ProgramRun runProgram(const std::vector<std::string>& argv) {
    Pipe out, err;
    SpawnActions actions;
    posix_spawn_file_actions_addopen(actions.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(actions.get(), out.writeEnd(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(actions.get(), err.writeEnd(), STDERR_FILENO);
    posix_spawn_file_actions_addclose(actions.get(), out.readEnd());
    posix_spawn_file_actions_addclose(actions.get(), err.readEnd());
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = 0;
    if (const int error = posix_spawnp(&pid, args[0], actions.get(), nullptr, args.data(), environ); error != 0)
        throw FileError(argv[0] + (error == ENOENT ? std::string(" not found") : ": " + std::string(std::strerror(error))));
    out.closeEnd(1);
    err.closeEnd(1);
    ProgramRun run;
    drain(out, err, run);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return run;
}

std::string shellWord(const std::string& word) {
    const bool literal = !word.empty() && word.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                                                 "0123456789_./=:,+-@%") == std::string::npos;
    if (literal) return word;
    std::string quoted = "'";
    for (const char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

}  // namespace Zt::KelApp
