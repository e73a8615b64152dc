#pragma once
// Process entry: make sure hci0 exists, schedule the start callback, run the one event loop.

#include <systemd/sd-event.h>

#include <cstdint>

namespace Daemon {

// Grace given to a freshly restarted Bluetooth stack before the service comes up.
inline constexpr uint64_t kRestartGraceUsec = 2'000'000;

// The process-wide event loop (null until Main() took it).
sd_event* EventLoop();

// main()'s whole body: 0, or kExitNotStarted when another copy holds the unit (InstanceLock.h).
int Main(int argc, char** argv);

// What "--help" or "--version" prints, when one of them is among the arguments (the first one found
// wins); null for any other arguments, which are ignored.
const char* InformationRequested(int argc, char** argv);

// The one-shot start callback: announce, bring the service up, report readiness. Returns 0.
int BluetoothDaemonStart(sd_event_source* source, uint64_t usec, void* userdata);

// When the start callback is due: 0 (first loop iteration) unless the watchdog restarted services,
// then the loop's monotonic now plus the grace.
uint64_t StartTime(sd_event* loop, bool servicesRestarted);

// Runs the loop; logs "Failed to start main event loop" (informational, deliberately) when it fails.
// Always 0.
int RunLoop(sd_event* loop);

}  // namespace Daemon
