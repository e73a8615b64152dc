#include <gtest/gtest.h>

#include <cstdlib>

#include "test_support/TestEnv.h"
#include "vantu_info/VantuInfo.h"

TEST(VantuInfo, AbsentSourceGivesEmptyIdentity) {
    setenv("VANTU_IDENTITY_FILE", "/nonexistent/identity", 1);
    EXPECT_EQ(VantuInfo::ThisVantu::SerialNumber(), "");
    EXPECT_EQ(VantuInfo::ThisModel::DisplayName(), "");
    EXPECT_EQ(VantuInfo::ThisVantu::RadioType(), 0);
    unsetenv("VANTU_IDENTITY_FILE");
}

TEST(VantuInfo, DefaultPathWithoutOverride) {
    unsetenv("VANTU_IDENTITY_FILE");
    EXPECT_EQ(VantuInfo::IdentityFile(), "/etc/vantu/identity");
}

TEST(VantuInfo, ReadsTheOverrideFileOnEveryCall) {
    {
        TestSupport::ScopedIdentity id("12345678", "Cobalt", 1);
        EXPECT_EQ(VantuInfo::ThisVantu::SerialNumber(), "12345678");
        EXPECT_EQ(VantuInfo::ThisModel::DisplayName(), "Cobalt");
        EXPECT_EQ(VantuInfo::ThisVantu::RadioType(), 1);
        TestSupport::WriteFile(VantuInfo::IdentityFile(), "# comment\n serial = AB12 \nradio_type=x\n");
        EXPECT_EQ(VantuInfo::ThisVantu::SerialNumber(), "AB12");
        EXPECT_EQ(VantuInfo::ThisModel::DisplayName(), "");
        EXPECT_EQ(VantuInfo::ThisVantu::RadioType(), 0);
    }
    EXPECT_EQ(std::getenv("VANTU_IDENTITY_FILE"), nullptr);
}
