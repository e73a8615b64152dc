#include <gtest/gtest.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <ctime>

#include "controller/AutoScanClock.h"

using Daemon::AutoScanDueTime;
using Daemon::AutoScanPeriodUsec;

namespace {

// One day of uptime: above 2^32 us, so a 32-bit truncation of the clock would show.
constexpr uint64_t kDayUsec = 86'400'000'000ULL;

}  // namespace

TEST(AutoScanClock, RateTenIsTenSecondsLater) {
    // 86,400,000,000 + 10 x 1,000,000
    EXPECT_EQ(AutoScanPeriodUsec(10), 10'000'000);
    EXPECT_EQ(AutoScanDueTime(kDayUsec, 10), 86'410'000'000ULL);
}

TEST(AutoScanClock, RateZeroIsNow) {
    EXPECT_EQ(AutoScanPeriodUsec(0), 0);
    EXPECT_EQ(AutoScanDueTime(kDayUsec, 0), kDayUsec);
}

TEST(AutoScanClock, Rate2147IsTheLastRateThatStaysInTheFuture) {
    // 2,147,000,000 <= INT32_MAX (2,147,483,647): no wrap; 86,400,000,000 + 2,147,000,000
    EXPECT_EQ(AutoScanPeriodUsec(2147), 2'147'000'000);
    EXPECT_EQ(AutoScanDueTime(kDayUsec, 2147), 88'547'000'000ULL);
}

TEST(AutoScanClock, Rate2148WrapsIntoThePast) {
    // 2,148,000,000 - 2^32 (4,294,967,296) = -2,146,967,296; 86,400,000,000 - 2,146,967,296
    EXPECT_EQ(AutoScanPeriodUsec(2148), -2'146'967'296);
    EXPECT_EQ(AutoScanDueTime(kDayUsec, 2148), 84'253'032'704ULL);
    EXPECT_LT(AutoScanDueTime(kDayUsec, 2148), kDayUsec);
}

TEST(AutoScanClock, Rate4294IsJustUnderOneSecondInThePast) {
    // 4,294,000,000 - 4,294,967,296 = -967,296; 86,400,000,000 - 967,296
    EXPECT_EQ(AutoScanPeriodUsec(4294), -967'296);
    EXPECT_EQ(AutoScanDueTime(kDayUsec, 4294), 86'399'032'704ULL);
}

TEST(AutoScanClock, Rate4295WrapsBackToAFewMillisecondsAhead) {
    // 4,295,000,000 - 4,294,967,296 = 32,704
    EXPECT_EQ(AutoScanPeriodUsec(4295), 32'704);
    EXPECT_EQ(AutoScanDueTime(kDayUsec, 4295), 86'400'032'704ULL);
}

TEST(AutoScanClock, SecondWrapAround6442And6443) {
    // 6,442,000,000 - 2^32 = 2,147,032,704 (positive); 6,443,000,000 - 2^32 = 2,148,032,704,
    // which is above INT32_MAX, so -2,146,934,592
    EXPECT_EQ(AutoScanPeriodUsec(6442), 2'147'032'704);
    EXPECT_EQ(AutoScanDueTime(kDayUsec, 6442), 88'547'032'704ULL);
    EXPECT_EQ(AutoScanPeriodUsec(6443), -2'146'934'592);
    EXPECT_EQ(AutoScanDueTime(kDayUsec, 6443), 84'253'065'408ULL);
}

TEST(AutoScanClock, LargestRateIsOneSecondInThePast) {
    // (2^32 - 1) x 1,000,000 = -1,000,000 modulo 2^32
    EXPECT_EQ(AutoScanPeriodUsec(UINT32_MAX), -1'000'000);
    EXPECT_EQ(AutoScanDueTime(kDayUsec, UINT32_MAX), 86'399'000'000ULL);
}

TEST(AutoScanClock, ProductOfExactly2To31IsInt32Min) {
    // 33,554,432 = 2^25; 2^25 x 1,000,000 = 2^31 x 15,625, which is 2^31 modulo 2^32
    EXPECT_EQ(AutoScanPeriodUsec(33'554'432), INT32_MIN);
    EXPECT_EQ(AutoScanDueTime(kDayUsec, 33'554'432), kDayUsec - 2'147'483'648ULL);
}

TEST(AutoScanClock, ClockAbove32BitsIsNotTruncated) {
    // 2^32 + 10,000,000 and 2^32 - 967,296
    EXPECT_EQ(AutoScanDueTime(4'294'967'296ULL, 10), 4'304'967'296ULL);
    EXPECT_EQ(AutoScanDueTime(4'294'967'296ULL, 4294), 4'294'000'000ULL);
}

TEST(AutoScanClock, PastOffsetLargerThanTheClockWrapsToTheFarFuture) {
    // Ten minutes of uptime, rate 2148: 600,000,000 - 2,146,967,296 = -1,546,967,296, which as an
    // unsigned 64-bit sum is 2^64 - 1,546,967,296 = 18,446,744,072,162,584,320
    EXPECT_EQ(AutoScanDueTime(600'000'000ULL, 2148), 18'446'744'072'162'584'320ULL);
    // 2^64 - 967,296; still not UINT64_MAX, which would mean "disarmed"
    EXPECT_EQ(AutoScanDueTime(0, 4294), 18'446'744'073'708'584'320ULL);
    EXPECT_NE(AutoScanDueTime(0, 4294), UINT64_MAX);
}

TEST(AutoScanClock, EveryRateUpTo2147AddsExactlyRateSecondsAndEveryRateUpTo4294IsInThePast) {
    for (uint32_t rate = 1; rate <= 2147; ++rate) {
        ASSERT_EQ(AutoScanDueTime(kDayUsec, rate) - kDayUsec, uint64_t{rate} * 1'000'000u) << rate;
    }
    for (uint32_t rate = 2148; rate <= 4294; ++rate) {
        ASSERT_LT(AutoScanDueTime(kDayUsec, rate), kDayUsec) << rate;
        ASSERT_EQ(kDayUsec - AutoScanDueTime(kDayUsec, rate), 4'294'967'296ULL - uint64_t{rate} * 1'000'000u)
            << rate;
    }
}

namespace {

int CountFired(sd_event_source*, uint64_t, void* userdata) {
    ++*static_cast<int*>(userdata);
    return 0;
}

// Arms a CLOCK_MONOTONIC timer the way the controller does and runs one loop iteration that does not
// wait. Returns how often it fired.
int FiredWithoutWaiting(uint32_t rateSecs) {
    sd_event* loop = nullptr;
    EXPECT_GE(sd_event_new(&loop), 0);
    uint64_t now = 0;
    EXPECT_GE(sd_event_now(loop, CLOCK_MONOTONIC, &now), 0);
    int fired = 0;
    sd_event_source* timer = nullptr;
    EXPECT_GE(sd_event_add_time(loop, &timer, CLOCK_MONOTONIC, AutoScanDueTime(now, rateSecs), 0, CountFired,
                                &fired),
              0);
    EXPECT_GE(sd_event_run(loop, 0), 0);
    sd_event_source_unref(timer);
    sd_event_unref(loop);
    return fired;
}

}  // namespace

TEST(AutoScanClock, RealTimerWithRate4294FiresAtOnce) {
    // The monotonic clock is above 967,296 us on any running system, so the due time is in the past.
    EXPECT_EQ(FiredWithoutWaiting(4294), 1);
}

TEST(AutoScanClock, RealTimerWithRateTenDoesNotFireAtOnce) {
    EXPECT_EQ(FiredWithoutWaiting(10), 0);
}
