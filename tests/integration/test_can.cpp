// A CAN port end to end: batch calls through the simulated plug-in, values
// in the caches, and the bridge re-initialised after nine failures.
#include <algorithm>
#include <fstream>

#include "itest_util.h"

using namespace std::chrono_literals;
using comclient::RegAddr;
using itest::Bytes;

namespace {

constexpr uint32_t kBus = 0;
constexpr uint8_t kKind = 3;

// Addresses count registers of the range's own width.
RegAddr can_rec(uint8_t station, uint8_t type, int32_t start, int16_t count)
{
    RegAddr r = itest::rec(0, station, type, kKind, start, count);
    r.addr_unit = type;
    return r;
}

// One-register blocks.
std::unique_ptr<itest::SimServer> start_can_server()
{
    auto sim = std::make_unique<itest::SimServer>(rig::Config{.ports = {{.working_mode = 16, .plc_driver_no = 7,
        .drv_param1 = kBus, .max_words = 1, .word_gap = 0, .bit_gap = 0}}});
    std::ofstream(sim->server->dir() + "/spi") << "";
    sim->server->start();
    return sim;
}

// Fifty one-register blocks make calls of 36 and 14 entries, and values
// reach their caches bit-exact. A station that keeps failing gets the bridge
// re-initialised, and polling then carries on.
TEST(CanPort, BatchCallsOfThirtySixAndFourteenAndReinitAfterFailures)
{
    auto sim = start_can_server();
    SimControl& ctl = *sim->ctl;
    rig::Server& s = *sim->server;
    std::vector<RegAddr> recs;
    for (int i = 0; i < 50; ++i) {
        sim_control_set_value(ctl, kBus, 1, kKind, 2, 10 * i, 0x4000u + static_cast<uint32_t>(i));
        recs.push_back(can_rec(1, 2, 10 * i, 1));
    }
    comclient::Client c = itest::connect(s);
    ASSERT_TRUE(c.register_areas(recs).ok);
    std::vector<SimCall> split; // from the first call of the whole list on
    ASSERT_TRUE(rig::eventually([&] {
        split.clear();
        for (const SimCall& k : sim_control_calls(ctl))
            if (k.entry == SIM_CALL_CANOPEN_READ && (!split.empty() || k.count == 36))
                split.push_back(k);
        return split.size() >= 8;
    }));
    for (size_t i = 0; i < 8; ++i)
        EXPECT_EQ(std::make_pair(split[i].count, split[i].start), i % 2 ? std::make_pair(14, 360) : std::make_pair(36, 0))
            << i;
    for (int i : {0, 35, 36, 49})
        EXPECT_EQ(itest::read_until_data(c, recs[static_cast<size_t>(i)]).data,
                  itest::le16s({static_cast<uint16_t>(0x4000 + i)}))
            << i;
    // Forty bits are two blocks: a bit entry carries at most 32 bits.
    for (int i = 0; i < 40; ++i)
        sim_control_set_bit(ctl, kBus, 2, kKind, i, (0xC3A5F00F96ull >> i & 1) != 0);
    EXPECT_EQ(itest::read_until_data(c, can_rec(2, 0, 0, 40)).data, (Bytes{0x96, 0x0F, 0xF0, 0xA5, 0xC3}));

    const size_t mark = s.output().size();
    const uint64_t from = sim_control_call_count(ctl);
    sim_control_set_station(ctl, kBus, 1, SIM_ERROR, 0);
    ASSERT_TRUE(s.wait_for("reinit LPC2119********************\r\n", 10s, mark)) << s.output().substr(mark, 2000);
    const std::vector<SimCall> calls = sim_control_calls(ctl, from);
    EXPECT_TRUE(std::any_of(calls.begin(), calls.end(), [](const SimCall& k) { return k.entry == SIM_CALL_INIT; }));
    sim_control_set_value(ctl, kBus, 1, kKind, 2, 0, 0x4321);
    sim_control_set_station(ctl, kBus, 1, SIM_OK, 0);
    EXPECT_TRUE(rig::eventually([&] { return c.com_read(recs[0]).data == itest::le16s({0x4321}); }));
}

} // namespace
