// The time limit of child programs (a download's wget may be held by a
// server that never finishes); not reachable end to end in a test's time.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>

#include "base/spawn.h"

TEST(ChildTimeLimit, KillsAtTheLimitAndLetsQuickChildrenFinish) {
    base::spawn_options limited;
    limited.time_limit_seconds = 1;
    const char *sleeper[] = {"sleep", "30", nullptr};
    const auto start = std::chrono::steady_clock::now();
    const int status = base::run_program(sleeper, limited);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    const char *quick[] = {"sh", "-c", "exit 3", nullptr};
    EXPECT_EQ(base::exit_code_of(base::run_program(quick, limited)), 3);
}
