// Batch polling through the real server and the simulated batch driver:
// what the driver is asked (call log) and what clients read back.
#include <algorithm>
#include <tuple>
#include <vector>

#include "itest_util.h"

namespace {

// Element addresses for words and double words; bits take none.
comclient::RegAddr range(uint8_t port, uint8_t type, uint8_t kind, int32_t start, int16_t count)
{
    comclient::RegAddr r = itest::rec(port, 1, type, kind, start, count);
    r.addr_unit = type;
    return r;
}

// The batch calls of one bus from seq `from` on, in order: +n registration,
// -n read, 0 a single-block read.
std::vector<int> batch_calls(SimControl& ctl, uint32_t bus, uint64_t from = 0)
{
    std::vector<int> out;
    for (const SimCall& c : sim_control_calls(ctl, from)) {
        if (c.bus == bus && (c.entry == SIM_CALL_OMRON_REGISTER || c.entry == SIM_CALL_OMRON_READ))
            out.push_back(c.entry == SIM_CALL_OMRON_READ ? -c.count : c.count);
        else if (c.bus == bus && c.entry == SIM_CALL_READ)
            out.push_back(0);
    }
    return out;
}

TEST(BatchPolling, RegistersOnceOrInChunksAndServesExactValues)
{
    rig::Config cfg;
    for (uint32_t bus : {0u, 1u, 2u, 3u})
        cfg.ports.push_back({.plc_driver_no = 1002, .drv_param1 = bus});
    itest::SimServer sim(cfg);
    SimControl& ctl = *sim.ctl;
    // (bus, station, kind) memories; a little latency keeps the call log
    // from wrapping during the test.
    const std::tuple<uint32_t, uint16_t, uint8_t> memories[] = {
        {0, 1, 3}, {0, 1, 4}, {0, 1, 6}, {1, 1, 3}, {2, 1, 130}, {2, 1, 200}, {3, 1, 3}, {3, 2, 3}};
    for (const auto& [bus, station, kind] : memories) {
        ASSERT_TRUE(sim_control_set_station(ctl, bus, station, SIM_OK, 4));
        std::vector<uint8_t> bytes(512);
        for (size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<uint8_t>(kind * 11 + bus + station + i * 37 + (i >> 3));
        ASSERT_EQ(sim_mem_write(ctl, bus, station, kind, 1, 0, 512, bytes.data()), SIM_OK);
    }
    sim.server->start();
    comclient::Client c = itest::connect(*sim.server);
    // Port n polls bus n: what a client reads must be what the station holds.
    auto expect_station_values = [&](const comclient::RegAddr& r) {
        std::vector<uint8_t> want(comclient::data_size(r.type, r.count));
        sim_mem_read(ctl, r.port, r.station, r.kind, r.type, r.start, r.count, want.data());
        EXPECT_EQ(itest::read_until_data(c, r).data, want) << int{r.port} << "/" << int{r.type};
    };

    const comclient::RegAddr forty = range(0, 2, 3, 0, 40);
    const comclient::RegAddr hundred = range(1, 2, 3, 0, 100);
    EXPECT_TRUE(c.com_read(forty).pending());
    EXPECT_TRUE(c.com_read(hundred).pending());

    // 40 one-register blocks: registered once, then only read.
    ASSERT_TRUE(rig::eventually([&] { return batch_calls(ctl, 0).size() >= 6; }));
    const std::vector<int> port0 = batch_calls(ctl, 0);
    EXPECT_EQ(port0.front(), 40);
    EXPECT_EQ(std::count(port0.begin(), port0.end(), -40), static_cast<long>(port0.size() - 1));

    // 100 blocks: chunks of 69 and 31, each registered again every cycle.
    ASSERT_TRUE(rig::eventually([&] { return batch_calls(ctl, 1).size() >= 12; }));
    const std::vector<int> port1 = batch_calls(ctl, 1);
    const int cycle[] = {69, -69, 31, -31};
    for (size_t i = 0; i < port1.size(); ++i)
        EXPECT_EQ(port1[i], cycle[i % 4]) << i;
    expect_station_values(forty);
    expect_station_values(hundred);

    // New bit, double-word and (inside the forty) word ranges change the
    // blocks: one new list of 40 + 2 + 3 entries, then only reads of it.
    const comclient::RegAddr added[] = {range(0, 0, 4, 5, 30), range(0, 4, 6, 2, 3), range(0, 2, 3, 17, 3)};
    for (const comclient::RegAddr& r : added)
        EXPECT_TRUE(c.com_read(r).pending());
    ASSERT_TRUE(rig::eventually([&] {
        const std::vector<int> calls = batch_calls(ctl, 0);
        return calls.size() >= 3 && calls.back() == -45 && calls[calls.size() - 2] == -45;
    }));
    for (const comclient::RegAddr& r : added)
        expect_station_values(r);
    const std::vector<int> after = batch_calls(ctl, 0);
    EXPECT_EQ(std::count(after.begin(), after.end(), 0), 0); // no single-block reads
    EXPECT_EQ(*std::find_if(after.rbegin(), after.rend(), [](int n) { return n > 0; }), 45);

    // Port 2 starts with kind 130, which no batch takes: every block is read
    // singly. Port 3 has two stations: station 1's blocks form the batch and
    // station 2's are read singly after it.
    comclient::RegAddr second = range(3, 2, 3, 10, 2);
    second.station = 2;
    const comclient::RegAddr others[] = {range(2, 2, 130, 0, 2), range(2, 2, 200, 4, 2), range(3, 2, 3, 0, 3),
                                         second};
    for (const comclient::RegAddr& r : others)
        EXPECT_TRUE(c.com_read(r).pending());
    for (const comclient::RegAddr& r : others)
        expect_station_values(r);
    const uint64_t mark = sim_control_call_count(ctl);
    ASSERT_TRUE(rig::eventually([&] { return batch_calls(ctl, 3, mark).size() >= 9; }));
    const std::vector<int> port2 = batch_calls(ctl, 2, mark);
    EXPECT_GE(port2.size(), 4u);
    EXPECT_EQ(std::count(port2.begin(), port2.end(), 0), static_cast<long>(port2.size()));
    for (const SimCall& call : sim_control_calls(ctl, mark)) {
        const bool batch = call.entry == SIM_CALL_OMRON_READ || call.entry == SIM_CALL_OMRON_REGISTER;
        if (call.bus == 3) {
            EXPECT_EQ(call.plc_id, batch ? 1 : 2) << call.seq;
            EXPECT_TRUE(call.entry != SIM_CALL_OMRON_READ || call.count == 3) << call.seq;
        }
    }
}

} // namespace
