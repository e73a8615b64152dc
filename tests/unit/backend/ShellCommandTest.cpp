#include "backend/ShellCommand.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace {

std::string ReadFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

class ShellCommandTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/qb-shell.XXXXXX";
        const int fd = mkstemp(name);
        ASSERT_GE(fd, 0);
        close(fd);
        out = name;
    }
    void TearDown() override { (void)unlink(out.c_str()); }

    std::string out;
};

TEST_F(ShellCommandTest, GivesTheSameRawStatusAsSystem) {
    const char* commands[] = {
        "true", "exit 3", "false", "kill -TERM $$", "kill -KILL $$", "exit 255", "/nonexistent/tool -i hci0"};
    for (const char* command : commands) {
        const int ours = Backend::RunThroughShell(command);
        EXPECT_EQ(ours, std::system(command)) << command;
    }
    EXPECT_TRUE(WIFEXITED(Backend::RunThroughShell("exit 3")));
    EXPECT_EQ(WEXITSTATUS(Backend::RunThroughShell("exit 3")), 3);
    const int killed = Backend::RunThroughShell("kill -TERM $$");
    ASSERT_TRUE(WIFSIGNALED(killed));
    EXPECT_EQ(WTERMSIG(killed), SIGTERM);
    EXPECT_EQ(WEXITSTATUS(Backend::RunThroughShell("/nonexistent/tool")), 127);
}

TEST_F(ShellCommandTest, TheShellGetsTheLineAsItIsWithItsRedirections) {
    const std::string command = "printf '%s|%s\\n' \"$0\" 'a  b' > " + out + " 2>&1; echo -x >> " + out;
    ASSERT_EQ(Backend::RunThroughShell(command.c_str()), 0);
    EXPECT_EQ(ReadFile(out), "sh|a  b\n-x\n");
}

TEST_F(ShellCommandTest, APendingSignalSurvivesTheCallAndTheChildStartsUnblockedWithDefaults) {
    sigset_t termination;
    sigemptyset(&termination);
    sigaddset(&termination, SIGINT);
    sigaddset(&termination, SIGTERM);
    sigset_t before;
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &termination, &before), 0);
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction quitBefore = {};
    ASSERT_EQ(sigaction(SIGQUIT, &ignore, &quitBefore), 0);
    // as the daemon's loop holds a Ctrl-C until its signalfd reads it
    ASSERT_EQ(kill(getpid(), SIGINT), 0);

    // what a tool run by the shell starts with, in the kernel's words
    const std::string command = "grep -E '^Sig(Blk|Ign):' /proc/self/status > " + out;
    const int status = Backend::RunThroughShell(command.c_str());

    sigset_t pending;
    ASSERT_EQ(sigpending(&pending), 0);
    const bool stillPending = sigismember(&pending, SIGINT) == 1;
    if (stillPending) {
        int taken = 0;
        ASSERT_EQ(sigwait(&termination, &taken), 0);
        EXPECT_EQ(taken, SIGINT);
    }
    ASSERT_EQ(sigaction(SIGQUIT, &quitBefore, nullptr), 0);
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);

    EXPECT_EQ(status, 0);
    EXPECT_TRUE(stillPending);
    unsigned long long blocked = ~0ULL;
    unsigned long long ignored = ~0ULL;
    ASSERT_EQ(std::sscanf(ReadFile(out).c_str(), "SigBlk:\t%llx\nSigIgn:\t%llx\n", &blocked, &ignored), 2)
        << ReadFile(out);
    EXPECT_EQ(blocked, 0u);
    // signals 1 to 31; glibc leaves its two internal real-time signals ignored in any child it
    // spawns, system()'s included
    constexpr unsigned long long kStandardSignals = 0x7fffffffULL;
    EXPECT_EQ(ignored & kStandardSignals, 0u) << std::hex << ignored;
}

}  // namespace
