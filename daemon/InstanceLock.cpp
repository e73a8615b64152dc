#include "daemon/InstanceLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

#include "logging/Log.h"
#include "loop/Sleep.h"

namespace Daemon {

namespace {
constexpr const char* kDefaultLockPath = "/run/quorbel-bluetoothd/lock";

// The holder writes its PID just after it locks: a copy that lost the race by microseconds may read
// the file before that, so it looks a few times before giving up on the number.
constexpr int kHolderReadTries = 20;
constexpr std::chrono::milliseconds kHolderReadPause{5};

pid_t ReadPid(int fd) {
    char text[32] = {};
    const ssize_t n = pread(fd, text, sizeof text - 1, 0);
    if (n <= 0)
        return 0;
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (end == text || value <= 0 || *end != '\n')
        return 0;
    return static_cast<pid_t>(value);
}

bool WritePid(int fd, pid_t pid) {
    const std::string text = std::to_string(pid) + "\n";
    if (ftruncate(fd, 0) != 0)
        return false;
    return pwrite(fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
}

void MakeParentFolder(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    if (slash == std::string::npos || slash == 0)
        return;
    // a folder that cannot be made shows as the open's error, which is the one reported
    (void)mkdir(path.substr(0, slash).c_str(), 0755);
}
}  // namespace

std::string InstanceLockPath() {
    const char* path = std::getenv("QUORBEL_BLUETOOTHD_LOCK_FILE");
    return path != nullptr && *path != '\0' ? path : kDefaultLockPath;
}

InstanceLock::~InstanceLock() {
    if (fd >= 0)
        close(fd);
}

InstanceLock::Outcome InstanceLock::Take(const std::string& path) {
    MakeParentFolder(path);
    // close-on-exec: a tool still running after the daemon died must not keep the unit locked
    const int opened = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY, 0644);
    if (opened < 0) {
        error = errno;
        return Outcome::Failed;
    }
    if (flock(opened, LOCK_EX | LOCK_NB) != 0) {
        error = errno;
        if (error != EWOULDBLOCK) {
            close(opened);
            return Outcome::Failed;
        }
        for (int i = 0; i < kHolderReadTries && (holder = ReadPid(opened)) == 0; ++i)
            Loop::SleepFor(kHolderReadPause);
        close(opened);
        return Outcome::HeldElsewhere;
    }
    if (!WritePid(opened, getpid())) {
        error = errno;
        close(opened);
        return Outcome::Failed;
    }
    fd = opened;
    return Outcome::Taken;
}

bool TakeProcessInstanceLock() {
    // never released: the kernel drops it with the process
    static InstanceLock lock;
    const std::string path = InstanceLockPath();
    switch (lock.Take(path)) {
        case InstanceLock::Outcome::Taken:
            return true;
        case InstanceLock::Outcome::HeldElsewhere:
            if (lock.Holder() > 0)
                Logging::Log(LOG_ERR,
                             "quorbel-bluetoothd is already running as PID %d (lock %s held); exiting",
                             static_cast<int>(lock.Holder()), path.c_str());
            else
                Logging::Log(LOG_ERR, "quorbel-bluetoothd is already running (lock %s held); exiting",
                             path.c_str());
            return false;
        case InstanceLock::Outcome::Failed:
            break;
    }
    Logging::Log(LOG_ERR, "Cannot take the instance lock %s: %s; exiting", path.c_str(),
                 std::strerror(lock.Error()));
    return false;
}

}  // namespace Daemon
