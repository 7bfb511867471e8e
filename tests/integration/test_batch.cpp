// Batch polling through the real server and the simulated batch driver:
// what the driver is asked (call log) and what clients read back.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "comclient.h"
#include "rig.h"
#include "sim_control.h"

using namespace std::chrono_literals;

namespace {

// Sets an environment variable for the servers started while it lives.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const std::string& value) : name_(name) { ::setenv(name, value.c_str(), 1); }
    ~ScopedEnv() { ::unsetenv(name_); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    const char* name_;
};

rig::PortSpec batch_port(uint32_t bus)
{
    rig::PortSpec p;
    p.plc_driver_no = 1002;
    p.drv_param1 = bus;
    return p;
}

comclient::RegAddr range(uint8_t port, uint8_t type, uint8_t kind, int32_t start, int16_t count)
{
    comclient::RegAddr r;
    r.port = port;
    r.station = 1;
    r.type = type;
    r.addr_unit = type; // element addresses for words and double words; bits take none
    r.kind = kind;
    r.start = start;
    r.count = count;
    return r;
}

// Fills a register kind of a simulated station with a byte pattern.
void fill(SimControl& ctl, uint32_t bus, uint8_t kind, uint8_t seed, uint16_t station = 1)
{
    std::vector<uint8_t> bytes(512);
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<uint8_t>(seed + i * 37 + (i >> 3));
    ASSERT_EQ(sim_mem_write(ctl, bus, station, kind, 1, 0, static_cast<int32_t>(bytes.size()), bytes.data()), SIM_OK);
}

// The range's bytes as the simulated station holds them.
std::vector<uint8_t> station_bytes(SimControl& ctl, uint32_t bus, const comclient::RegAddr& r)
{
    std::vector<uint8_t> out(comclient::data_size(r.type, r.count));
    sim_mem_read(ctl, bus, r.station, r.kind, r.type, r.start, r.count, out.data());
    return out;
}

// Reads the range until the server answers with data; empty on time-out.
std::vector<uint8_t> read_when_ready(comclient::Client& c, const comclient::RegAddr& r)
{
    std::vector<uint8_t> data;
    rig::eventually([&] {
        const comclient::Reply rep = c.com_read(r);
        if (rep.kind != comclient::ReplyKind::data)
            return false;
        data = rep.data;
        return true;
    });
    return data;
}

// The batch calls of one bus, in order: +n registration, -n read; 0 for a
// single-block read.
std::vector<int> batch_calls(SimControl& ctl, uint32_t bus, uint64_t from = 0)
{
    std::vector<int> out;
    for (const SimCall& c : sim_control_calls(ctl, from)) {
        if (c.bus != bus)
            continue;
        if (c.entry == SIM_CALL_OMRON_REGISTER)
            out.push_back(c.count);
        else if (c.entry == SIM_CALL_OMRON_READ)
            out.push_back(-c.count);
        else if (c.entry == SIM_CALL_READ)
            out.push_back(0);
    }
    return out;
}

TEST(BatchPolling, RegistersOnceOrInChunksAndServesExactValues)
{
    rig::Config cfg;
    cfg.ports = {batch_port(0), batch_port(1), batch_port(2), batch_port(3)};
    rig::Server s(cfg);
    SimControlFile ctl = sim_control_create(s.dir() + "/sim.ctl");
    ASSERT_TRUE(ctl);
    for (uint32_t bus : {0u, 1u}) {
        // A little latency keeps the call log from wrapping during the test.
        ASSERT_TRUE(sim_control_set_station(*ctl, bus, 1, SIM_OK, 4));
        for (uint8_t kind : {3, 4, 6})
            fill(*ctl, bus, kind, static_cast<uint8_t>(kind * 11 + bus));
    }
    for (uint8_t kind : {130, 200})
        fill(*ctl, 2, kind, kind);
    for (uint16_t station : {1, 2}) {
        ASSERT_TRUE(sim_control_set_station(*ctl, 3, station, SIM_OK, 4));
        fill(*ctl, 3, 3, static_cast<uint8_t>(station * 50), station);
    }
    ASSERT_TRUE(sim_control_set_station(*ctl, 2, 1, SIM_OK, 4));
    ScopedEnv env("COMSERVER_SIM_CONTROL", s.dir() + "/sim.ctl");
    s.start();
    comclient::Client c(s.connect_client());

    const comclient::RegAddr forty = range(0, 2, 3, 0, 40);
    const comclient::RegAddr hundred = range(1, 2, 3, 0, 100);
    EXPECT_TRUE(c.com_read(forty).pending());
    EXPECT_TRUE(c.com_read(hundred).pending());

    // 40 one-register blocks: registered once, then only read.
    ASSERT_TRUE(rig::eventually([&] { return batch_calls(*ctl, 0).size() >= 6; }));
    std::vector<int> port0 = batch_calls(*ctl, 0);
    ASSERT_EQ(port0.front(), 40);
    for (size_t i = 1; i < port0.size(); ++i)
        EXPECT_EQ(port0[i], -40) << i;

    // 100 blocks: chunks of 69 and 31, each registered again every cycle.
    ASSERT_TRUE(rig::eventually([&] { return batch_calls(*ctl, 1).size() >= 12; }));
    const std::vector<int> port1 = batch_calls(*ctl, 1);
    const int cycle[] = {69, -69, 31, -31};
    for (size_t i = 0; i < port1.size(); ++i)
        EXPECT_EQ(port1[i], cycle[i % 4]) << i;

    // After whole cycles every polled value is in the caches as the station holds it.
    EXPECT_EQ(read_when_ready(c, forty), station_bytes(*ctl, 0, forty));
    EXPECT_EQ(read_when_ready(c, hundred), station_bytes(*ctl, 1, hundred));

    // New bit and double-word ranges change the blocks: one new list of
    // 40 + 2 + 3 entries, then reads of it, and every value bit-exact.
    const comclient::RegAddr bits = range(0, 0, 4, 5, 30);     // bit blocks [5,21), [21,35)
    const comclient::RegAddr dwords = range(0, 4, 6, 2, 3);
    const comclient::RegAddr words = range(0, 2, 3, 17, 3);   // inside the forty
    EXPECT_TRUE(c.com_read(bits).pending());
    EXPECT_TRUE(c.com_read(dwords).pending());
    EXPECT_TRUE(c.com_read(words).pending());
    ASSERT_TRUE(rig::eventually([&] {
        const std::vector<int> calls = batch_calls(*ctl, 0);
        return calls.size() >= 3 && calls.back() == -45 && calls[calls.size() - 2] == -45;
    }));
    EXPECT_EQ(read_when_ready(c, bits), station_bytes(*ctl, 0, bits));
    EXPECT_EQ(read_when_ready(c, dwords), station_bytes(*ctl, 0, dwords));
    EXPECT_EQ(read_when_ready(c, words), station_bytes(*ctl, 0, words));
    port0 = batch_calls(*ctl, 0);
    size_t last_register = 0;
    for (size_t i = 0; i < port0.size(); ++i) {
        EXPECT_NE(port0[i], 0) << "single-block read at " << i;
        if (port0[i] > 0)
            last_register = i;
    }
    EXPECT_EQ(port0[last_register], 45);

    // Port 2 starts with a kind excluded from batches: no batch at all, every
    // block (the later kind-200 ones too) is read on its own, in list order.
    // Port 3 has two stations: station 1's blocks form the batch, station 2's
    // are read one by one after it in the same cycle.
    comclient::RegAddr second = range(3, 2, 3, 10, 2);
    second.station = 2;
    const comclient::RegAddr others[] = {range(2, 2, 130, 0, 2), range(2, 2, 200, 4, 2), range(3, 2, 3, 0, 3),
                                         second};
    for (const comclient::RegAddr& r : others)
        EXPECT_TRUE(c.com_read(r).pending());
    for (const comclient::RegAddr& r : others)
        EXPECT_EQ(read_when_ready(c, r), station_bytes(*ctl, r.port, r)) << int{r.port} << "/" << int{r.kind};

    // Every block has been polled with the final lists: from here on each
    // cycle repeats the same calls.
    const uint64_t mark = sim_control_call_count(*ctl);
    ASSERT_TRUE(rig::eventually(
        [&] { return batch_calls(*ctl, 2, mark).size() >= 12 && batch_calls(*ctl, 3, mark).size() >= 9; }));
    std::vector<std::pair<int, int>> port2;
    for (const SimCall& call : sim_control_calls(*ctl, mark)) {
        if (call.bus == 2) {
            EXPECT_EQ(call.entry, SIM_CALL_READ);
            port2.emplace_back(call.reg_id, call.start);
        } else if (call.bus == 3) {
            const bool batch = call.entry == SIM_CALL_OMRON_READ || call.entry == SIM_CALL_OMRON_REGISTER;
            EXPECT_EQ(call.plc_id, batch ? 1 : 2) << call.seq;
        }
    }
    const std::pair<int, int> order[] = {{130, 0}, {130, 1}, {200, 4}, {200, 5}};
    const size_t first = std::find(port2.begin(), port2.end(), order[0]) - port2.begin();
    ASSERT_LT(first, 4u);
    for (size_t i = first; i < port2.size(); ++i)
        EXPECT_EQ(port2[i], order[(i - first) % 4]) << i;
    const std::vector<int> port3 = batch_calls(*ctl, 3, mark);
    const size_t read = std::find(port3.begin(), port3.end(), -3) - port3.begin();
    ASSERT_LT(read, 3u);
    for (size_t i = read; i < port3.size(); ++i)
        EXPECT_EQ(port3[i], (i - read) % 3 == 0 ? -3 : 0) << i;
}

} // namespace
