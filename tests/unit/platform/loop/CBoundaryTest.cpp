#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <system_error>

#include "logging/Log.h"
#include "loop/CBoundary.h"

TEST(CBoundary, ReturnsTheBodysResult) {
    EXPECT_EQ(CBoundary::Call("t", [] { return 7; }), 7);
    EXPECT_EQ(CBoundary::Call("t", [] {}), 0);
}

TEST(CBoundary, ExceptionsBecomeNegativeErrnoAndAnErrorLine) {
    Logging::Capture capture;
    EXPECT_EQ(CBoundary::Call("cb", []() -> int { throw std::out_of_range("map::at"); }), -ERANGE);
    EXPECT_EQ(CBoundary::Call("cb", []() -> int { throw std::invalid_argument("stoi"); }), -EINVAL);
    EXPECT_EQ(CBoundary::Call("cb", []() -> int { throw std::system_error(EBUSY, std::generic_category()); }),
              -EBUSY);
    EXPECT_EQ(CBoundary::Call("cb", []() -> int { throw std::runtime_error("x"); }), -EIO);
    EXPECT_EQ(CBoundary::Call("cb", []() -> int { throw 5; }), -EIO);
    EXPECT_EQ(capture.Lines().size(), 5u);
    for (const auto& l : capture.Lines())
        EXPECT_EQ(l.priority, LOG_ERR);
    EXPECT_TRUE(capture.Contains("cb: exception stopped at the C boundary: map::at"));
}

TEST(CBoundary, OnlyErrnoCategoriesGiveTheirCode) {
    Logging::Capture capture;
    // a future_error's code is not an errno
    EXPECT_EQ(
        CBoundary::Call(
            "cb", []() -> int { throw std::system_error(std::make_error_code(std::future_errc::no_state)); }),
        -EIO);
    EXPECT_EQ(CBoundary::Call("cb", []() -> int { throw std::system_error(EACCES, std::system_category()); }),
              -EACCES);
    EXPECT_EQ(capture.Lines().size(), 2u);
}

TEST(CBoundary, FinishedTellsWhetherTheBodyRanToItsEnd) {
    Logging::Capture capture;
    int ran = 0;
    EXPECT_TRUE(CBoundary::Finished("worker", [&] { ++ran; }));
    EXPECT_EQ(ran, 1);
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_FALSE(CBoundary::Finished("worker", [] { throw std::runtime_error("link lost"); }));
    EXPECT_FALSE(CBoundary::Finished("worker", [] { throw 5; }));
    ASSERT_EQ(capture.Lines().size(), 2u);
    EXPECT_TRUE(capture.Contains("worker: link lost", LOG_ERR));
    EXPECT_TRUE(capture.Contains("worker: unknown exception", LOG_ERR));
}
