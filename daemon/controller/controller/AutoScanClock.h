#pragma once
// When the auto-scan timer fires next.
//
// The rate (whole seconds) becomes microseconds as a signed 32-bit product, which is sign-extended
// and added to the loop's 64-bit monotonic clock. This is deliberate and must not be "fixed":
// - rates up to 2,147 s give now + rate s;
// - from 2,148 s the product wraps negative and the due time lies in the past, so the timer fires
//   at once (4,294 s: now - 967,296 us);
// - the product keeps wrapping every 4,294.967296 s (4,295 s: now + 32,704 us);
// - the sum itself is modulo 2^64, as an unsigned addition: a negative offset larger than the clock
//   (a unit up for less than about 35 minutes) lands just below UINT64_MAX, i.e. far in the future.
// The same numbers come out on the 32-bit unit and on a 64-bit host: no long, size_t or time_t is
// involved, and the wrap is done in uint32_t, never as signed overflow.

#include <cstdint>

namespace Daemon {

inline constexpr uint32_t kUsecPerSec = 1'000'000;

// The period as the controller sees it: rate x 1,000,000 wrapped to int32_t.
constexpr int32_t AutoScanPeriodUsec(uint32_t rateSecs) {
    const uint32_t product = rateSecs * kUsecPerSec;  // modulo 2^32, no UB
    // Two's complement reinterpretation without relying on an out-of-range conversion.
    return product <= static_cast<uint32_t>(INT32_MAX)
               ? static_cast<int32_t>(product)
               : static_cast<int32_t>(product - static_cast<uint32_t>(INT32_MAX) - 1u) + INT32_MIN;
}

// The time to give sd_event_source_set_time for a timer armed at nowUsec (CLOCK_MONOTONIC).
constexpr uint64_t AutoScanDueTime(uint64_t nowUsec, uint32_t rateSecs) {
    // int32_t -> int64_t -> uint64_t sign-extends; the unsigned addition wraps modulo 2^64.
    return nowUsec + static_cast<uint64_t>(static_cast<int64_t>(AutoScanPeriodUsec(rateSecs)));
}

}  // namespace Daemon
