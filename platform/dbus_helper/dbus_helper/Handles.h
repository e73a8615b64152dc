#pragma once
// The sd-bus and sd-event handle owners under the names the D-Bus code has always used.

#include "sd_handles/Handles.h"

namespace DbusHelper {

using SdHandles::Bus;
using SdHandles::BusRef;
using SdHandles::Error;
using SdHandles::Event;
using SdHandles::EventSource;
using SdHandles::Message;
using SdHandles::Slot;

}  // namespace DbusHelper
