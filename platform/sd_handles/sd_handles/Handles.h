#pragma once
// Owners of sd-bus and sd-event handles: each releases with the one call that fits how the handle was
// obtained, so no path (early return, exception) forgets it. Copying is impossible, moving hands the
// handle over.

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>
#include <string>

namespace SdHandles {

namespace detail {
template <auto Release>
struct Releaser {
    template <typename T>
    void operator()(T* handle) const noexcept {
        Release(handle);
    }
};
}  // namespace detail

// A connection we opened: flushed, closed and dropped.
using Bus = std::unique_ptr<sd_bus, detail::Releaser<&sd_bus_flush_close_unref>>;
// A reference taken with sd_bus_ref on a connection someone else closes.
using BusRef = std::unique_ptr<sd_bus, detail::Releaser<&sd_bus_unref>>;
using Message = std::unique_ptr<sd_bus_message, detail::Releaser<&sd_bus_message_unref>>;
using Slot = std::unique_ptr<sd_bus_slot, detail::Releaser<&sd_bus_slot_unref>>;
// Disabled before it is dropped: a loop that still holds a reference never dispatches it again.
using EventSource = std::unique_ptr<sd_event_source, detail::Releaser<&sd_event_source_disable_unref>>;
using Event = std::unique_ptr<sd_event, detail::Releaser<&sd_event_unref>>;

// An sd_bus_error that frees itself. It stays where it is: sd-bus fills it through Get().
class Error {
  public:
    Error() = default;
    ~Error() { sd_bus_error_free(&error); }
    Error(const Error&) = delete;
    Error& operator=(const Error&) = delete;

    sd_bus_error* Get() { return &error; }
    const sd_bus_error* Get() const { return &error; }
    bool IsSet() const { return sd_bus_error_is_set(&error) != 0; }
    // Empty when unset.
    std::string Name() const { return error.name != nullptr ? error.name : ""; }
    std::string Message() const { return error.message != nullptr ? error.message : ""; }

  private:
    sd_bus_error error = SD_BUS_ERROR_NULL;
};

}  // namespace SdHandles
