#include "backend/ShellCommand.h"

#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

extern char** environ;

namespace Backend {

namespace {
// What system() reports for a shell that could not be started: "as if the child process terminated
// by calling _exit(127)".
constexpr int kShellNotRun = 127 << 8;

class SpawnAttributes {
  public:
    SpawnAttributes() { valid = posix_spawnattr_init(&attributes) == 0; }
    ~SpawnAttributes() {
        if (valid)
            posix_spawnattr_destroy(&attributes);
    }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;

    // The daemon blocks SIGTERM and SIGINT for its loop's signalfd; a tool must not inherit that, nor
    // any disposition the caller ignores.
    bool ResetSignals() {
        if (!valid)
            return false;
        sigset_t all;
        sigset_t none;
        sigfillset(&all);
        sigemptyset(&none);
        return posix_spawnattr_setsigdefault(&attributes, &all) == 0 &&
               posix_spawnattr_setsigmask(&attributes, &none) == 0 &&
               posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK) == 0;
    }

    const posix_spawnattr_t* Get() const { return &attributes; }

  private:
    posix_spawnattr_t attributes;
    bool valid = false;
};
}  // namespace

int RunThroughShell(const char* command) {
    SpawnAttributes attributes;
    if (!attributes.ResetSignals())
        return -1;
    char sh[] = "sh";
    char dashC[] = "-c";
    char endOfOptions[] = "--";
    char* const argv[] = {sh, dashC, endOfOptions, const_cast<char*>(command), nullptr};
    pid_t child = 0;
    const int r = posix_spawn(&child, "/bin/sh", nullptr, attributes.Get(), argv, environ);
    if (r == ENOENT || r == EACCES || r == ENOEXEC)
        return kShellNotRun;
    if (r != 0)
        return -1;
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return status;
}

}  // namespace Backend
