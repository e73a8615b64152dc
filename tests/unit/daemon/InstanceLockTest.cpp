#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "daemon/InstanceLock.h"

namespace {

class InstanceLockTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char folder[] = "/tmp/qb-lock.XXXXXX";
        ASSERT_NE(mkdtemp(folder), nullptr);
        dir = folder;
        path = dir + "/run/lock";
    }
    void TearDown() override {
        (void)unlink(path.c_str());
        (void)rmdir((dir + "/run").c_str());
        (void)rmdir(dir.c_str());
    }
    std::string Contents() const {
        std::ifstream in(path);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    std::string dir;
    std::string path;
};

TEST_F(InstanceLockTest, TheFirstTakesItAndWritesItsPidCreatingTheFolder) {
    Daemon::InstanceLock lock;
    ASSERT_EQ(lock.Take(path), Daemon::InstanceLock::Outcome::Taken);
    EXPECT_EQ(Contents(), std::to_string(getpid()) + "\n");
}

TEST_F(InstanceLockTest, ASecondIsRefusedAndNamesTheHolderWithoutTouchingTheFile) {
    Daemon::InstanceLock first;
    ASSERT_EQ(first.Take(path), Daemon::InstanceLock::Outcome::Taken);
    Daemon::InstanceLock second;
    EXPECT_EQ(second.Take(path), Daemon::InstanceLock::Outcome::HeldElsewhere);
    EXPECT_EQ(second.Holder(), getpid());
    EXPECT_EQ(Contents(), std::to_string(getpid()) + "\n");
}

TEST_F(InstanceLockTest, ALockReleasedWithItsHolderCanBeTakenAgain) {
    auto first = std::make_unique<Daemon::InstanceLock>();
    ASSERT_EQ(first->Take(path), Daemon::InstanceLock::Outcome::Taken);
    first.reset();
    Daemon::InstanceLock second;
    EXPECT_EQ(second.Take(path), Daemon::InstanceLock::Outcome::Taken);
}

TEST_F(InstanceLockTest, AStalePidLeftByADeadHolderIsReplaced) {
    ASSERT_EQ(mkdir((dir + "/run").c_str(), 0755), 0);
    std::ofstream(path) << "999999999\n";
    Daemon::InstanceLock lock;
    ASSERT_EQ(lock.Take(path), Daemon::InstanceLock::Outcome::Taken);
    EXPECT_EQ(Contents(), std::to_string(getpid()) + "\n");
}

TEST_F(InstanceLockTest, AnUnusableFolderFailsWithItsErrno) {
    Daemon::InstanceLock lock;
    EXPECT_EQ(lock.Take(dir + "/missing/deeper/lock"), Daemon::InstanceLock::Outcome::Failed);
    EXPECT_EQ(lock.Error(), ENOENT);
}

TEST(InstanceLockPath, TheEnvironmentOverridesTheDefaultUnderRun) {
    ASSERT_EQ(unsetenv("QUORBEL_BLUETOOTHD_LOCK_FILE"), 0);
    EXPECT_EQ(Daemon::InstanceLockPath(), "/run/quorbel-bluetoothd/lock");
    ASSERT_EQ(setenv("QUORBEL_BLUETOOTHD_LOCK_FILE", "", 1), 0);
    EXPECT_EQ(Daemon::InstanceLockPath(), "/run/quorbel-bluetoothd/lock");
    ASSERT_EQ(setenv("QUORBEL_BLUETOOTHD_LOCK_FILE", "/tmp/elsewhere/lock", 1), 0);
    EXPECT_EQ(Daemon::InstanceLockPath(), "/tmp/elsewhere/lock");
    ASSERT_EQ(unsetenv("QUORBEL_BLUETOOTHD_LOCK_FILE"), 0);
}

}  // namespace
