// Time-out bookkeeping of the PLC stations: back-off decisions, the NG/OK
// lines, the items list, the process-wide table, the shared state bits and
// the splitting of long writes. Driver entry points are fakes.
#include <gtest/gtest.h>

#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "port/com_state.h"
#include "server/globals.h"
#include "store/addressing.h"
#include "store/data_file.h"

namespace {

time_t fake_now = 1000;
time_t fake_clock() { return fake_now; }

struct DriverCall {
    int32_t start;
    int32_t count;
    std::vector<uint8_t> data;
};
std::deque<int> results;          // scripted results; 0 once exhausted
std::vector<DriverCall> calls;

int fake_driver(const DrvRegAddr* addr, DrvDataRef* ref, PlcParam*)
{
    calls.push_back({addr->reg_addr_start, ref->count, std::vector<uint8_t>(ref->data, ref->data + 4)});
    if (results.empty()) {
        return 0;
    }
    const int r = results.front();
    results.pop_front();
    return r;
}

class ComState : public ::testing::Test {
protected:
    void SetUp() override
    {
        saved_bit_ = local_bit;
        saved_short_ = local_short;
        saved_clock_ = com_state_clock;
        local_bit = bits_.data();
        local_short = words_.data();
        com_state_clock = fake_clock;
        fake_now = 1000;
        results.clear();
        calls.clear();
        op_.read_fn = fake_driver;
        op_.write_fn = fake_driver;
    }

    void TearDown() override
    {
        local_bit = saved_bit_;
        local_short = saved_short_;
        com_state_clock = saved_clock_;
        VGlobComState& g = VGlobComState_Instance();
        std::fill(std::begin(g.keys), std::end(g.keys), 0u);
        g.count = g.slots = 0;
    }

    int read(uint16_t plc)
    {
        DrvRegAddr addr{};
        addr.plc_id = plc;
        addr.reg_type = 2;
        DrvDataRef ref{1, buf_};
        return ComOper_BlockRead(op_, &addr, &ref, &param_);
    }

    bool word_bit(int word, int bit) const { return (words_[word * 2 + bit / 8] >> (bit % 8)) & 1; }

    ComOper op_{};
    PlcParam param_{};
    uint8_t buf_[4096] = {};
    std::vector<uint8_t> bits_ = std::vector<uint8_t>(2048, 0);
    std::vector<uint8_t> words_ = std::vector<uint8_t>(20000, 0);
    uint8_t* saved_bit_ = nullptr;
    uint8_t* saved_short_ = nullptr;
    com_state_clock_fn saved_clock_ = nullptr;
};

TEST_F(ComState, BackOffDecisions)
{
    ComStateItem item{};
    DrvRegAddr addr{};
    addr.plc_id = 7;
    ComStateItem_Create(item, 5, addr, 2);  // interval 2, timeouts 2
    EXPECT_EQ(ComStateItem_MustNormCom(item), 1);
    ComStateItem_Update(item, 2);           // interval 4, timeouts 3
    EXPECT_EQ(ComStateItem_MustNormCom(item), 1);
    ComStateItem_Update(item, 2);           // interval 8, timeouts 4: back-off starts
    EXPECT_EQ(item.interval, 8);
    EXPECT_EQ(item.timeouts, 4);

    fake_now = 1003;                        // inside interval / 2
    EXPECT_EQ(ComStateItem_MustNormCom(item), 0);
    fake_now = 1004;                        // past interval / 2, before interval
    int skipped = 0;
    while (ComStateItem_MustNormCom(item) == 0 && skipped < 1000) {
        ++skipped;
    }
    EXPECT_EQ(item.tries, 100);             // the 100th decision calls
    EXPECT_EQ(skipped, 98);
    fake_now = 1008;
    EXPECT_EQ(ComStateItem_MustNormCom(item), 1);

    // Realtime: skip window interval / 4, forced call after 49 decisions.
    ComStateItem_Update(item, 2);           // interval 10 at 1008
    EXPECT_EQ(item.interval, 10);
    fake_now = 1009;
    EXPECT_EQ(ComStateItem_MustRtmCom(item), 0);
    fake_now = 1010;
    skipped = 0;
    while (ComStateItem_MustRtmCom(item) == 0 && skipped < 1000) {
        ++skipped;
    }
    EXPECT_EQ(item.tries, 50);
    EXPECT_EQ(skipped, 48);
    fake_now = 1018;
    EXPECT_EQ(ComStateItem_MustRtmCom(item), 1);

    ComStateItem_Update(item, 0);
    EXPECT_EQ(ComStateItem_MustNormCom(item), 1);
}

TEST_F(ComState, NgAndOkArePrintedOnceAndRecoveryKeepsTheOrder)
{
    results = {2, 2, 2, 2, 2, 2, 2, 3};
    testing::internal::CaptureStdout();
    read(1);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(read(3), 2);
    }
    read(5);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Plc(1) NG\n[C1000]\r\nPlc(3) NG\n[C1000]\r\nPlc(5) NG\n[C1000]\r\n");
    EXPECT_EQ(calls.size(), 7u); // bit 9263 clear: never skipped

    fake_now = 1001;
    testing::internal::CaptureStdout();
    EXPECT_EQ(read(3), 3); // an error answer is an answer
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Plc(3) OK\n[C1001]\r\n");
    ASSERT_EQ(op_.item_count, 2);
    EXPECT_EQ(op_.items[0].plc_id, 1);
    EXPECT_EQ(op_.items[1].plc_id, 5);
    EXPECT_EQ(op_.ok_count, 1u);
    EXPECT_EQ(op_.ng_count, 0u);
    EXPECT_EQ(VGlobComState_Find(VGlobComState_Instance(), 65536 + 3), -1);
    EXPECT_GE(VGlobComState_Find(VGlobComState_Instance(), 65536 + 5), 0);
}

TEST_F(ComState, DeadStationIsSkippedOnlyWithSeveralStationsAndBit9263)
{
    set_bit(LOCAL_BIT_SKIP_ENABLE);
    testing::internal::CaptureStdout();
    EXPECT_EQ(read(1), 0);
    results = {2, 2, 2};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(read(3), 2);
    }
    EXPECT_EQ(op_.flags & COM_OPER_MULTI_STATION, COM_OPER_MULTI_STATION);
    const size_t made = calls.size();
    EXPECT_EQ(read(3), 2); // timeouts 4, nothing elapsed: skipped
    EXPECT_EQ(calls.size(), made);
    EXPECT_EQ(op_.ng_count, 4u);

    clear_bit(LOCAL_BIT_SKIP_ENABLE);
    EXPECT_EQ(read(3), 0);
    EXPECT_EQ(calls.size(), made + 1);
    testing::internal::GetCapturedStdout();
}

TEST_F(ComState, GlobalTableSlots)
{
    VGlobComState t;
    EXPECT_EQ(VGlobComState_Find(t, 5), -1);
    for (uint32_t k = 1; k <= 1024; ++k) {
        ASSERT_EQ(VGlobComState_Add(t, k), 1);
    }
    EXPECT_EQ(VGlobComState_Add(t, 2000), 0);
    EXPECT_EQ(t.count, 1024);
    EXPECT_EQ(VGlobComState_Rmv(t, 1024), 0);
    EXPECT_EQ(VGlobComState_Rmv(t, 5), 1);
    EXPECT_EQ(VGlobComState_Find(t, 6), -1);
    EXPECT_EQ(VGlobComState_Add(t, 2000), 1);
    EXPECT_EQ(VGlobComState_Find(t, 2000), 5);
    EXPECT_EQ(t.slots, 1024);

    VGlobComState_SetState(t, 3000, 2); // full: left out
    EXPECT_EQ(VGlobComState_Find(t, 3000), -1);
    VGlobComState_SetState(t, 2000, 0);
    EXPECT_EQ(VGlobComState_Find(t, 2000), -1);
    EXPECT_EQ(t.count, 1023);
}

TEST_F(ComState, SharedStateBits)
{
    testing::internal::CaptureStdout();
    op_.port = 1;
    const int word = LOCAL_WORD_STATION_STATE + 16 + 1; // station 20: bit 4
    results = {2, 2, 2};
    for (int i = 0; i < 3; ++i) {
        read(20);
        EXPECT_FALSE(word_bit(word, 4));
        EXPECT_NE(get_bit(LOCAL_BIT_PORT_STATE + 1), 0u);
    }
    results = {2};
    read(20);
    EXPECT_TRUE(word_bit(word, 4));
    read(20);
    EXPECT_FALSE(word_bit(word, 4));
    EXPECT_EQ(get_bit(LOCAL_BIT_PORT_STATE + 1), 0u);

    ComOper port2{};
    port2.port = 2;
    port2.read_fn = fake_driver;
    DrvRegAddr addr{};
    addr.plc_id = 4;
    DrvDataRef ref{1, buf_};
    results = {2};
    ComOper_BlockRead(port2, &addr, &ref, &param_);
    EXPECT_NE(get_bit(LOCAL_BIT_PORT2_TIMEOUT), 0u);
    EXPECT_NE(get_bit(LOCAL_BIT_PORT_STATE + 2), 0u);
    EXPECT_GE(VGlobComState_Find(VGlobComState_Instance(), 3 * 65536 + 4), 0);
    ComOper_BlockRead(port2, &addr, &ref, &param_);
    EXPECT_EQ(get_bit(LOCAL_BIT_PORT2_TIMEOUT), 0u);
    testing::internal::GetCapturedStdout();
}

TEST_F(ComState, LongWriteIsSplitAndStopsAtATimeOut)
{
    param_.max_words = 4; // 8 bytes per write: 4 words
    for (int i = 0; i < 20; ++i) {
        buf_[i] = static_cast<uint8_t>(i);
    }
    DrvRegAddr addr{};
    addr.plc_id = 1;
    addr.reg_type = 2;
    addr.addr_unit = 1;
    addr.reg_addr_start = 100;
    DrvDataRef ref{10, buf_};

    EXPECT_EQ(ComOper_Write(op_, &addr, &ref, &param_), 0);
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[1].start, 108);
    EXPECT_EQ(calls[2].start, 116);
    EXPECT_EQ(calls[2].count, 2);
    EXPECT_EQ(calls[2].data[0], 16);

    calls.clear();
    results = {0, 2};
    testing::internal::CaptureStdout();
    EXPECT_EQ(ComOper_Write(op_, &addr, &ref, &param_), 2);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Plc(1) NG\n[C1000]\r\n");
    EXPECT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1].data[0], 8);
    EXPECT_EQ(op_.item_count, 1);
}

TEST_F(ComState, TransfersAreRecordedInTheDataFile)
{
    char tmpl[] = "/tmp/comstate_test_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    setenv("COMSERVER_DATA_DIR", tmpl, 1);
    set_bit(PLC_REG_DAT_SWITCH_BIT);
    auto file = [&](const char* name) {
        std::ifstream in(std::string(tmpl) + "/" + name, std::ios::binary);
        return std::vector<uint8_t>{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    };

    op_.port = 3;
    param_.plc_driver_no = 1; // Siemens family: double words recorded in the client's order
    const uint8_t sent[4] = {0x11, 0x22, 0x33, 0x44};
    std::copy(sent, sent + 4, buf_);
    DrvRegAddr addr{};
    addr.plc_id = 1;
    addr.reg_type = 4;
    addr.reg_id = 9;
    addr.addr_unit = 1;
    DrvDataRef ref{1, buf_};
    ASSERT_EQ(ComOper_Write(op_, &addr, &ref, &param_), 0);
    EXPECT_EQ(file("30109.dat"), (std::vector<uint8_t>{1, 0, 0, 0, 0x33, 0x44, 0x11, 0x22}));

    results = {5};
    EXPECT_EQ(ComOper_BlockRead(op_, &addr, &ref, &param_), 5);
    EXPECT_EQ(file("30109.dat")[0], 3);

    PlcRegDatArr& arr = PlcRegDatArr_Instance();
    for (PlcRegDatEntry& e : arr.entries) {
        if (e.fd > 0) {
            close(e.fd);
        }
        e = PlcRegDatEntry{};
    }
    unsetenv("COMSERVER_DATA_DIR");
    std::filesystem::remove_all(tmpl);
}

} // namespace
