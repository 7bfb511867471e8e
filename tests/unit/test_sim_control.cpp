#include <string>

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

TEST_F(SimControlTest, WordsBytesAndBitsShareOneLittleEndianByteSpace)
{
    SimControl& c = *file_;
    ASSERT_TRUE(sim_control_set_value(c, 1, 2, 3, 2, 10, 0x1234));
    EXPECT_EQ(sim_control_get_value(c, 1, 2, 3, 1, 20), 0x34u);
    EXPECT_EQ(sim_control_get_value(c, 1, 2, 3, 4, 5), 0x1234u);  // bytes 20..23
    EXPECT_TRUE(sim_control_get_bit(c, 1, 2, 3, 162));            // 0x34 bit 2

    // Bits read and written in buffer layout, across byte boundaries.
    uint8_t bits[2] = {};
    ASSERT_EQ(sim_mem_read(c, 1, 2, 3, 0, 164, 12, bits), SIM_OK);  // bits 4..7 of 0x34, all of 0x12
    EXPECT_EQ(bits[0], 0x23);
    EXPECT_EQ(bits[1], 0x01);
    const uint8_t set[1] = {0x05};
    ASSERT_EQ(sim_mem_write(c, 1, 2, 3, 0, 166, 3, set), SIM_OK);  // bits 166,167,168 := 1,0,1
    EXPECT_EQ(sim_control_get_value(c, 1, 2, 3, 2, 10), 0x1374u);

    // Other stations, buses and register kinds are separate memories.
    EXPECT_EQ(sim_control_get_value(c, 1, 2, 4, 2, 10) + sim_control_get_value(c, 1, 3, 3, 2, 10) +
                  sim_control_get_value(c, 2, 2, 3, 2, 10),
              0u);
}

TEST_F(SimControlTest, RefusesOutOfRangeAccessAndFullTables)
{
    SimControl& c = *file_;
    uint8_t buf[8] = {};
    EXPECT_EQ(sim_mem_read(c, 0, 0, 0, 2, -1, 1, buf), SIM_ERROR);
    EXPECT_EQ(sim_mem_read(c, 0, 0, 0, 2, 32767, 2, buf), SIM_ERROR);
    EXPECT_EQ(sim_mem_read(c, 0, 0, 0, 2, 32767, 1, buf), SIM_OK);
    EXPECT_EQ(sim_mem_read(c, 0, 0, 0, 0, 524287, 2, buf), SIM_ERROR);
    EXPECT_EQ(sim_mem_write(c, 0, 0, 0, 3, 0, 1, buf), SIM_ERROR);

    // Reads do not take regions; the 33rd written region is refused.
    for (int i = 0; i < 100; ++i)
        sim_mem_read(c, 9, static_cast<uint16_t>(i), 1, 2, 0, 1, buf);
    for (int i = 0; i < SIM_REGIONS; ++i)
        ASSERT_TRUE(sim_control_set_value(c, 0, static_cast<uint16_t>(i), 1, 2, 0, static_cast<uint32_t>(i)));
    EXPECT_FALSE(sim_control_set_value(c, 0, 999, 1, 2, 0, 1));
    EXPECT_TRUE(sim_control_set_value(c, 0, 31, 1, 2, 1, 7));  // existing region still writable
    EXPECT_EQ(sim_control_get_value(c, 0, 31, 1, 2, 0), 31u);

    // Stations answer SIM_OK at once until changed; the last setting wins.
    ASSERT_TRUE(sim_control_set_station(c, 4, 7, SIM_TIMEOUT, 250));
    ASSERT_TRUE(sim_control_set_station(c, 4, 7, SIM_ERROR, 10));
    const SimStation st = sim_control_station(c, 4, 7);
    EXPECT_EQ(std::pair(st.result, st.delay_ms), std::pair(SIM_ERROR, 10u));
    EXPECT_EQ(sim_control_station(c, 5, 7).result, SIM_OK);
    for (int i = 1; i < SIM_STATIONS; ++i)
        ASSERT_TRUE(sim_control_set_station(c, 100, static_cast<uint16_t>(i), SIM_OK, 0));
    EXPECT_FALSE(sim_control_set_station(c, 101, 0, SIM_OK, 0));
}

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
