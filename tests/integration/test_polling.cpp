// The polling engine end to end through the simulated plug-in: caches, a
// silent station and the data files.
#include <cstdio>
#include <fstream>

#include "itest_util.h"

using namespace std::chrono_literals;
using comclient::Client;
using comclient::RegAddr;
using itest::Bytes;
using itest::le16s;
using itest::rec;

namespace {

constexpr uint32_t kBus = 0;

class Polling : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        // Bit 9924: register data files on.
        sim_ = std::make_unique<itest::SimServer>(
            rig::Config{.ports = {{.plc_driver_no = 5, .drv_param1 = kBus}}, .initial_bits = {9924}});
        sim_->server->start();
    }
    static void TearDownTestSuite() { sim_.reset(); }

    static rig::Server& server() { return *sim_->server; }
    static SimControl& ctl() { return *sim_->ctl; }
    // Bytes [from, from + n) of the data file of port 0, the station and kind 3.
    static Bytes data_file(uint8_t station, size_t from, size_t n)
    {
        char name[32];
        std::snprintf(name, sizeof name, "/%x.dat", 3 | station << 8);
        std::ifstream f(server().dir() + name, std::ios::binary);
        Bytes out(n);
        f.seekg(static_cast<std::streamoff>(from));
        return f.read(reinterpret_cast<char*>(out.data()), static_cast<std::streamsize>(n)) ? out : Bytes{};
    }
    static Bytes status(uint8_t s) { return {s, 0, 0, 0}; }

    static std::unique_ptr<itest::SimServer> sim_;
};

std::unique_ptr<itest::SimServer> Polling::sim_;

TEST_F(Polling, RangesArePolledIntoTheirCachesAndDataFiles)
{
    for (int i = 0; i < 20; ++i)
        sim_control_set_value(ctl(), kBus, 1, 3, 2, i, 0x100u + i);
    Client c = itest::connect(server());
    const RegAddr a = rec(0, 1, 2, 3, 10, 4);
    EXPECT_TRUE(c.com_read(a).pending()) << "the first read registers the range";
    ASSERT_EQ(itest::read_until_data(c, a).data, le16s({0x10a, 0x10b, 0x10c, 0x10d}));

    // The caches and the data file keep following the station; the data file
    // holds status 1 and word k at data byte 2k.
    sim_control_set_value(ctl(), kBus, 1, 3, 2, 12, 0xabcd);
    EXPECT_TRUE(rig::eventually([&] { return c.com_read(a).data == le16s({0x10a, 0x10b, 0xabcd, 0x10d}); }));
    EXPECT_TRUE(rig::eventually([&] {
        return data_file(1, 0, 4) == status(1) && data_file(1, 4 + 20, 6) == le16s({0x10a, 0x10b, 0xabcd});
    }));
    EXPECT_EQ(data_file(1, 4 + 18, 2), (Bytes{0, 0})); // nothing written before the range
}

TEST_F(Polling, SilentStationIsReportedAndRecovers)
{
    sim_control_set_value(ctl(), kBus, 3, 3, 2, 0, 0x3333);
    Client c = itest::connect(server());
    const RegAddr r = rec(0, 3, 2, 3, 0, 1);
    ASSERT_EQ(itest::read_until_data(c, r).data, le16s({0x3333}));

    const size_t mark = server().output().size();
    sim_control_set_station(ctl(), kBus, 3, SIM_TIMEOUT, 0);
    EXPECT_TRUE(rig::eventually([&] { return itest::is_error(c.com_read(r), 2); }));
    EXPECT_TRUE(server().wait_for("Plc(3) NG\n[C", 5s, mark)) << server().output().substr(mark);
    EXPECT_EQ(server().count("Plc(3) NG"), 1u); // printed at the first time-out only
    EXPECT_TRUE(rig::eventually([&] { return data_file(3, 0, 4) == status(2); }));
    EXPECT_EQ(data_file(3, 4, 2), le16s({0x3333})); // a failed read keeps the data

    const size_t ok_mark = server().output().size();
    sim_control_set_value(ctl(), kBus, 3, 3, 2, 0, 0x3334);
    sim_control_set_station(ctl(), kBus, 3, SIM_OK, 0);
    EXPECT_TRUE(server().wait_for("Plc(3) OK\n[C", 5s, ok_mark)) << server().output().substr(ok_mark);
    EXPECT_EQ(itest::read_until_data(c, r).data, le16s({0x3334}));
    EXPECT_TRUE(rig::eventually([&] { return data_file(3, 0, 4) == status(1); }));
}

} // namespace
