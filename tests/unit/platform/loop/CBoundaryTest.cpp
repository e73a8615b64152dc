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
