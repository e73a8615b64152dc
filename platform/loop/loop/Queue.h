#pragma once
// Hands work from any thread to the thread that runs an sd-event loop. sd-event and sd-bus objects are
// used from their loop's thread only; worker threads Post() what must happen there (D-Bus emissions),
// and an eventfd wakes the loop to run it.

#include <systemd/sd-event.h>

#include <deque>
#include <functional>
#include <mutex>

#include "sd_handles/Handles.h"

namespace Loop {

class Queue {
  public:
    // Must be constructed on the loop's thread. Throws std::system_error when the loop refuses the source.
    explicit Queue(sd_event* loop);
    ~Queue();
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    // Any thread. Tasks run on the loop thread in the order posted; one that throws is logged and dropped.
    // After Close() tasks are dropped: false.
    bool Post(std::function<void()> task);

    // Loop thread. Drops what is queued and stops watching the loop, so that a queue shared with
    // threads that outlive its owner may be released on any of them afterwards.
    void Close();

  private:
    static int OnWake(sd_event_source* source, int fd, uint32_t revents, void* userdata);
    void Drain();

    int fd = -1;
    SdHandles::EventSource source;
    std::mutex mutex;
    std::deque<std::function<void()>> tasks;
    bool closed = false;
};

}  // namespace Loop
