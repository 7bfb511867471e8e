// Time-out bookkeeping of the PLC stations, with fake driver entry points.
#include <gtest/gtest.h>

#include <tuple>

#include "unit_util.h"

using namespace table_test;

namespace {

time_t fake_now = 1000;   // the steady clock
time_t wall_shift = 0;    // the wall clock reads fake_now + wall_shift

DrvRegAddr drv(uint16_t plc, uint8_t type = 2, uint16_t unit = 0, int32_t start = 0, uint8_t id = 0)
{
    return {.plc_id = plc, .reg_type = type, .reg_id = id, .reg_addr_start = start, .addr_unit = unit};
}

class ComState : public ::testing::Test {
protected:
    void SetUp() override
    {
        local_bit = bits_.data();
        local_short = words_.data();
        local_areas_init(words_.size() + bits_.size(), 0, static_cast<uint32_t>(words_.size()));
        com_state_steady_clock = [] { return fake_now; };
        com_state_wall_clock = [] { return fake_now + wall_shift; };
        fake_now = 1000;
        wall_shift = 0;
        plc = FakePlc{};
        op_.read_fn = fake_read;
        op_.write_fn = fake_write;
    }
    void TearDown() override
    {
        local_bit = local_short = nullptr;
        local_areas_init(0, 0, 0);
        com_state_steady_clock = saved_steady_;
        com_state_wall_clock = saved_wall_;
        reset_tables();
    }
    int read(uint16_t plc, ComOper* op = nullptr)
    {
        DrvRegAddr addr = drv(plc);
        DrvDataRef ref{1, buf_};
        return ComOper_BlockRead(op ? *op : op_, &addr, &ref, &param_);
    }
    bool word_bit(int word, int bit) const { return (words_[word * 2 + bit / 8] >> (bit % 8)) & 1; }

    ComOper op_{};
    PlcParam param_{};
    uint8_t buf_[4096] = {};
    Bytes bits_ = Bytes(2048, 0);
    Bytes words_ = Bytes(20000, 0);
    com_state_clock_fn saved_steady_ = com_state_steady_clock;
    com_state_clock_fn saved_wall_ = com_state_wall_clock;
};

TEST_F(ComState, BackOffDecisions)
{
    ComStateItem item{};
    auto skips = [&](int (*must)(ComStateItem&)) { int n = 0; while (must(item) == 0 && n < 1000) ++n; return n; };
    ComStateItem_Create(item, 5, drv(7), 2);  // interval 2, timeouts 2
    EXPECT_EQ(ComStateItem_MustNormCom(item), 1);
    ComStateItem_Update(item, 2);
    ComStateItem_Update(item, 2);           // interval 8, timeouts 4: back-off starts
    EXPECT_EQ(item.interval, 8);
    fake_now = 1003;                        // inside interval / 2
    EXPECT_EQ(ComStateItem_MustNormCom(item), 0);
    fake_now = 1004;                        // past interval / 2: the 100th decision calls
    EXPECT_EQ(skips(ComStateItem_MustNormCom), 98);
    fake_now = 1008;
    EXPECT_EQ(ComStateItem_MustNormCom(item), 1);

    ComStateItem_Update(item, 2);           // interval 10; realtime: window interval / 4, call after 49
    fake_now = 1009;
    EXPECT_EQ(ComStateItem_MustRtmCom(item), 0);
    fake_now = 1010;
    EXPECT_EQ(skips(ComStateItem_MustRtmCom), 48);
    fake_now = 1018;
    EXPECT_EQ(ComStateItem_MustRtmCom(item), 1);

    // The wall clock set back an hour: the station is retried all the same
    // once its interval has run out.
    ComStateItem_Update(item, 2);
    wall_shift = -3600;
    fake_now += 10;
    EXPECT_EQ(ComStateItem_MustNormCom(item), 1);
}

TEST_F(ComState, GlobalTableSlots)
{
    VGlobComState t;
    for (uint32_t k = 1; k <= 1024; ++k) ASSERT_EQ(VGlobComState_Add(t, k), 1);
    VGlobComState_SetState(t, 3000, 2); // full: left out
    EXPECT_EQ(VGlobComState_Find(t, 3000), -1);
    VGlobComState_SetState(t, 6, 0);    // a freed slot takes the next station
    VGlobComState_SetState(t, 3000, 2);
    EXPECT_GE(VGlobComState_Find(t, 3000), 0);
    EXPECT_EQ(VGlobComState_Find(t, 6), -1);
}

TEST_F(ComState, SharedStateBits)
{
    testing::internal::CaptureStdout();
    op_.port = 1;
    const int word = LOCAL_WORD_STATION_STATE + 16 + 1; // station 20: bit 4
    plc.read_results = {2, 2, 2, 2};
    for (int i = 0; i < 3; ++i) read(20);
    EXPECT_FALSE(word_bit(word, 4)); // set at the fourth time-out in a row
    read(20);
    EXPECT_TRUE(word_bit(word, 4));
    read(20);
    EXPECT_FALSE(word_bit(word, 4));
    EXPECT_EQ(get_bit(LOCAL_BIT_PORT_STATE + 1), 0u);

    ComOper port2{};
    port2.port = 2;
    port2.read_fn = fake_read;
    plc.read_results = {2};
    read(4, &port2);
    EXPECT_TRUE(get_bit(LOCAL_BIT_PORT2_TIMEOUT) && get_bit(LOCAL_BIT_PORT_STATE + 2));
    EXPECT_GE(VGlobComState_Find(VGlobComState_Instance(), 3 * 65536 + 4), 0);
    read(4, &port2);
    EXPECT_EQ(get_bit(LOCAL_BIT_PORT2_TIMEOUT), 0u);
    testing::internal::GetCapturedStdout();
}

TEST_F(ComState, LongWriteIsSplitAndStopsAtTheFirstFailedPiece)
{
    param_.max_words = 4; // 8 bytes per write
    for (int i = 0; i < 20; ++i) buf_[i] = static_cast<uint8_t>(i);
    DrvRegAddr addr = drv(1, 2, 1, 100);
    DrvDataRef ref{10, buf_};
    EXPECT_EQ(ComOper_Write(op_, &addr, &ref, &param_), 0);
    ASSERT_EQ(plc.calls.size(), 3u); // addresses count registers whatever the unit
    EXPECT_EQ(plc.calls[1].addr.reg_addr_start, 104);
    EXPECT_EQ(std::tuple(plc.calls[2].addr.reg_addr_start, plc.calls[2].count, plc.calls[2].data[0]),
              std::tuple(108, 2, uint8_t{16}));

    plc.calls.clear();
    plc.write_results = {0, 3}; // an error answer ends the write as a time-out would
    EXPECT_EQ(ComOper_Write(op_, &addr, &ref, &param_), 3);
    EXPECT_EQ(plc.calls.size(), 2u);
}

} // namespace
