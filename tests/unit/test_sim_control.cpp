#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "sim_control.h"

namespace {

class SimControlTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        path_ = ::testing::TempDir() + "sim_control_" + std::to_string(getpid());
        file_ = sim_control_create(path_);
        ASSERT_TRUE(file_);
    }
    void TearDown() override { unlink(path_.c_str()); }

    std::string path_;
    SimControlFile file_;
};

} // namespace

TEST_F(SimControlTest, CallLogIsSharedBetweenProcessesAndKeepsTheLatestRecords)
{
    constexpr int per_process = 3000;
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        SimControlFile f = sim_control_open(path_);
        for (int i = 0; f && i < per_process; ++i)
            sim_control_log(*f, SimCall{0, SIM_CALL_READ, 1, 0, 0, 0, i, 0, 0});
        _exit(f ? 0 : 2);
    }
    for (int i = 0; i < per_process; ++i)
        sim_control_log(*file_, SimCall{0, SIM_CALL_WRITE, 2, 0, 0, 0, i, 0, 0});
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    EXPECT_EQ(sim_control_call_count(*file_), 2u * per_process);
    std::vector<SimCall> calls = sim_control_calls(*file_);
    ASSERT_EQ(calls.size(), SIM_LOG_ENTRIES);
    int last_start[2] = {-1, -1};
    for (size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(calls[i].seq, 2u * per_process - SIM_LOG_ENTRIES + i);
        int who = calls[i].entry == SIM_CALL_WRITE;
        EXPECT_GT(calls[i].start, last_start[who]);  // each writer's records in its own order
        last_start[who] = calls[i].start;
    }
    EXPECT_EQ(sim_control_calls(*file_, 2 * per_process - 3).size(), 3u);

    EXPECT_FALSE(sim_control_open(path_ + ".missing"));
    ASSERT_EQ(truncate(path_.c_str(), 100), 0);
    EXPECT_FALSE(sim_control_open(path_));
}
