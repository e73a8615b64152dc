#pragma once
// One daemon per unit: an exclusive flock() on a lock file, held for the life of the process and
// released by the kernel when it dies, however it dies. The holder writes its PID into the file so a
// second copy can name it. Loop thread (before the loop exists); no other thread touches it.

#include <sys/types.h>

#include <string>

namespace Daemon {

// Exit status of a copy that found another one running, or could not take the lock at all.
inline constexpr int kExitNotStarted = 1;

// The lock file: $QUORBEL_BLUETOOTHD_LOCK_FILE when set and not empty, else the one under /run.
std::string InstanceLockPath();

class InstanceLock {
  public:
    enum class Outcome { Taken, HeldElsewhere, Failed };

    InstanceLock() = default;
    ~InstanceLock();
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;

    // Opens (creating it and its folder when missing) and locks `path` without waiting. On Taken the
    // file holds this process's PID; on HeldElsewhere Holder() is the PID the holder wrote (0 when
    // unreadable); on Failed Error() is the errno of the step that failed.
    Outcome Take(const std::string& path);

    pid_t Holder() const { return holder; }
    int Error() const { return error; }

  private:
    int fd = -1;
    pid_t holder = 0;
    int error = 0;
};

// Takes the lock at InstanceLockPath() for the process; on failure logs the one line that says why.
// The lock lives until exit.
bool TakeProcessInstanceLock();

}  // namespace Daemon
