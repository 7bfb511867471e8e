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

std::unique_ptr<itest::SimServer> start_can_server(int max_words)
{
    auto sim = std::make_unique<itest::SimServer>(rig::Config{.ports = {{.working_mode = 16, .plc_driver_no = 7,
        .drv_param1 = kBus, .max_words = max_words, .word_gap = 0, .bit_gap = 0}}});
    std::ofstream(sim->server->dir() + "/spi") << "";
    sim->server->start();
    return sim;
}

// Batch calls from the first one of `count` entries on (seq >= from), once
// there are `want` of them.
std::vector<SimCall> batches_from_size(SimControl& ctl, uint64_t from, int count, size_t want)
{
    std::vector<SimCall> out;
    rig::eventually([&] {
        out.clear();
        for (const SimCall& c : sim_control_calls(ctl, from))
            if (c.entry == SIM_CALL_CANOPEN_READ && (!out.empty() || c.count == count))
                out.push_back(c);
        return out.size() >= want;
    });
    return out;
}

TEST(CanPort, BatchCallsOfTenThenThirtySixAndFourteen)
{
    auto sim = start_can_server(1);
    SimControl& ctl = *sim->ctl;
    std::vector<RegAddr> recs;
    for (int i = 0; i < 50; ++i) {
        sim_control_set_value(ctl, kBus, 1, kKind, 2, 10 * i, 0x4000u + static_cast<uint32_t>(i));
        recs.push_back(can_rec(1, 2, 10 * i, 1));
    }
    comclient::Client c = itest::connect(*sim->server);
    ASSERT_TRUE(c.register_areas(std::vector<RegAddr>(recs.begin(), recs.begin() + 10)).ok);
    std::vector<SimCall> ten = batches_from_size(ctl, 0, 10, 5);
    ASSERT_GE(ten.size(), 5u);
    for (const SimCall& call : ten)
        EXPECT_EQ(std::make_pair(call.count, call.start), std::make_pair(10, 0));

    const uint64_t from = sim_control_call_count(ctl);
    ASSERT_TRUE(c.register_areas(std::vector<RegAddr>(recs.begin() + 10, recs.end())).ok);
    std::vector<SimCall> split = batches_from_size(ctl, from, 36, 8);
    ASSERT_GE(split.size(), 8u);
    for (size_t i = 0; i < 8; ++i)
        EXPECT_EQ(std::make_pair(split[i].count, split[i].start), i % 2 ? std::make_pair(14, 360) : std::make_pair(36, 0))
            << i;
    for (int i : {0, 35, 36, 49})
        EXPECT_EQ(itest::read_until_data(c, recs[static_cast<size_t>(i)]).data,
                  itest::le16s({static_cast<uint16_t>(0x4000 + i)}))
            << i;
}

TEST(CanPort, PolledValuesAreBitExact)
{
    auto sim = start_can_server(8);
    SimControl& ctl = *sim->ctl;
    const RegAddr words = can_rec(1, 2, 100, 12);    // blocks of 8 and 4 registers
    const RegAddr dwords = can_rec(1, 4, 7, 3);      // kept apart from the words' bytes
    const RegAddr bits = can_rec(1, 0, 5, 20);
    const RegAddr wide_bits = can_rec(2, 0, 0, 40);  // two blocks: a bit entry carries 32 bits
    Bytes want_words(24), want_dwords(12);
    for (int i = 0; i < 12; ++i) {
        const uint32_t v = 0xA500u + static_cast<uint32_t>(i) * 0x0102;
        sim_control_set_value(ctl, kBus, 1, kKind, 2, 100 + i, v);
        comclient::store_le(&want_words[2 * static_cast<size_t>(i)], 2, v);
    }
    for (int i = 0; i < 3; ++i) {
        const uint32_t v = 0x89ABCDEFu - static_cast<uint32_t>(i);
        sim_control_set_value(ctl, kBus, 1, kKind, 4, 7 + i, v);
        comclient::store_le(&want_dwords[4 * static_cast<size_t>(i)], 4, v);
    }
    for (int i = 0; i < 40; ++i) {
        if (i < 20)
            sim_control_set_bit(ctl, kBus, 1, kKind, 5 + i, (0xB38E5u >> i & 1) != 0);
        sim_control_set_bit(ctl, kBus, 2, kKind, i, (0xC3A5F00F96ull >> i & 1) != 0);
    }

    comclient::Client c = itest::connect(*sim->server);
    ASSERT_TRUE(c.register_areas(std::vector<RegAddr>{words, dwords, bits, wide_bits}).ok);
    EXPECT_EQ(itest::read_until_data(c, words).data, want_words);
    EXPECT_EQ(itest::read_until_data(c, dwords).data, want_dwords);
    EXPECT_EQ(itest::read_until_data(c, bits).data, (Bytes{0xE5, 0x38, 0x0B}));
    EXPECT_EQ(itest::read_until_data(c, wide_bits).data, (Bytes{0x96, 0x0F, 0xF0, 0xA5, 0xC3}));
}

TEST(CanPort, NineFailuresReinitialiseTheBridge)
{
    auto sim = start_can_server(1);
    SimControl& ctl = *sim->ctl;
    rig::Server& s = *sim->server;
    const RegAddr r = can_rec(1, 2, 0, 1);
    sim_control_set_value(ctl, kBus, 1, kKind, 2, 0, 0x1234);
    comclient::Client c = itest::connect(s);
    ASSERT_TRUE(c.register_areas(std::vector<RegAddr>{r}).ok);
    ASSERT_EQ(itest::read_until_data(c, r).data, itest::le16s({0x1234}));

    const size_t mark = s.output().size();
    const uint64_t from = sim_control_call_count(ctl);
    sim_control_set_station(ctl, kBus, 1, SIM_ERROR, 0);
    std::string expected;
    for (int i = 1; i <= 9; ++i)
        expected += "1++++can_plc_no_response=" + std::to_string(i) + "\r\n";
    expected += "reinit LPC2119********************\r\n";
    ASSERT_TRUE(s.wait_for(expected, 10s, mark)) << s.output().substr(mark, 2000);
    const std::vector<SimCall> calls = sim_control_calls(ctl, from);
    EXPECT_TRUE(std::any_of(calls.begin(), calls.end(), [](const SimCall& k) { return k.entry == SIM_CALL_INIT; }))
        << "the bridge was initialised again";

    sim_control_set_value(ctl, kBus, 1, kKind, 2, 0, 0x4321);
    sim_control_set_station(ctl, kBus, 1, SIM_OK, 0);
    EXPECT_TRUE(rig::eventually([&] { return c.com_read(r).data == itest::le16s({0x4321}); }));
}

} // namespace
