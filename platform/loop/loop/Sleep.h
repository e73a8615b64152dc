#pragma once
// Blocking waits of a whole duration. Code that waits takes a Sleeper, so that tests count the waits
// instead of sitting through them.

#include <chrono>
#include <functional>

namespace Loop {

using Sleeper = std::function<void(std::chrono::milliseconds)>;

// Sleeps the whole duration on the calling thread; a signal does not cut it short (resumes with the
// time left after EINTR).
void SleepFor(std::chrono::milliseconds duration);

}  // namespace Loop
