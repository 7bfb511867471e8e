// The Modbus plug-in end to end: the real server, started through comhost,
// polls and writes a libmodbus station run by the test (TCP on loopback, RTU
// over a socat pseudo-terminal pair), and serves its local areas to a
// libmodbus master.
#include <memory>
#include <set>

#include "itest_util.h"
#include "modbus_peer.h"

using namespace std::chrono_literals;
using comclient::Client;
using comclient::RegAddr;
using comclient::Reply;
using itest::Bytes;
using itest::le16s;
using itest::ModbusPeer;
using itest::rec;

namespace {

constexpr uint8_t kStation = 1;
constexpr uint8_t kWordArea = 255;  // local word area, word access
constexpr uint8_t kBitArea = 254;   // local bit area, bit access
const int kLocalCount = rig::Config{}.local_word_count;  // and as many bits

// Blocks longer than one Modbus request.
rig::PortSetup modbus_port(const std::string& extra)
{
    return {.plc_driver_no = 50, .max_words = 200, .plugin = "modbus", .extra = extra};
}

// A write queued and collected; the final status reply.
Reply write_and_wait(Client& c, const RegAddr& r, const Bytes& data)
{
    return c.write_and_check(r, data, 10s, 10ms);
}

class ModbusTcp : public ::testing::Test {
protected:
    void SetUp() override
    {
        slave_port_ = rig::free_tcp_port();
        rig::Config cfg;
        cfg.ports = {modbus_port("modbus_host = \"127.0.0.1\"\nmodbus_port = "
                                 + std::to_string(peer_.port()) + "\ntimeout_ms = 300\nmodbus_server_port = "
                                 + std::to_string(slave_port_))};
        cfg.ports[0].working_mode = 'U';
        cfg.env = {{"COMSERVER_SWEEP_SECONDS", "86400"}, {"COMSERVER_MODBUS_LISTEN", "127.0.0.1"}};
        server_ = std::make_unique<rig::Server>(cfg);
        server_->start();
        client_ = std::make_unique<Client>(itest::connect(*server_));
    }

    Bytes read(const RegAddr& r) { return itest::read_until_data(*client_, r).data; }

    ModbusPeer peer_;
    int slave_port_ = 0;
    std::unique_ptr<rig::Server> server_;
    std::unique_ptr<Client> client_;
};

TEST_F(ModbusTcp, PolledKindsAndBitViewsReachTheCaches)
{
    for (auto [a, v] : {std::pair{10, 0x1234}, {11, 0xabcd}, {12, 0x0001}, {13, 0x8000}}) peer_.set_holding(a, v);
    peer_.set_input(20, 7);
    peer_.set_input(21, 0x0f0f);
    for (int a : {5, 7, 8, 14}) peer_.set_coil(a, true);
    peer_.set_discrete(4, true);

    EXPECT_EQ(read(rec(0, kStation, 2, 4, 10, 4)), le16s({0x1234, 0xabcd, 0x0001, 0x8000}));
    EXPECT_EQ(read(rec(0, kStation, 4, 4, 5, 1)), (Bytes{0x34, 0x12, 0xcd, 0xab})) << "low-order register first";
    EXPECT_EQ(read(rec(0, kStation, 2, 3, 20, 2)), le16s({7, 0x0f0f}));
    EXPECT_EQ(read(rec(0, kStation, 0, 0, 5, 10)), (Bytes{0x0d, 0x02}));
    EXPECT_EQ(read(rec(0, kStation, 0, 1, 3, 3)), (Bytes{0x02}));
    // Bits 4..11 of holding register 10 and bits 2..9 of input register 21,
    // read by the plug-in as the bits of the registers that hold them.
    EXPECT_EQ(read(rec(0, kStation, 0, 6, 10 * 16 + 4, 8)), (Bytes{0x23}));
    EXPECT_EQ(read(rec(0, kStation, 0, 5, 21 * 16 + 2, 8)), (Bytes{0xc3}));
}

TEST_F(ModbusTcp, WritesExceptionsAndLongRequests)
{
    EXPECT_TRUE(write_and_wait(*client_, rec(0, kStation, 2, 4, 100, 3), le16s({1, 2, 0xfffe})).ok);
    EXPECT_TRUE(write_and_wait(*client_, rec(0, kStation, 4, 4, 60, 1), Bytes{0x44, 0x33, 0x22, 0x11}).ok);
    EXPECT_TRUE(write_and_wait(*client_, rec(0, kStation, 0, 0, 30, 3), Bytes{0x05}).ok);
    EXPECT_TRUE(write_and_wait(*client_, rec(0, kStation, 0, 0, 40, 1), Bytes{0x01}).ok);
    EXPECT_EQ(std::vector<int>({peer_.holding(100), peer_.holding(101), peer_.holding(102)}),
              std::vector<int>({1, 2, 0xfffe}));
    EXPECT_EQ(std::vector<int>({peer_.holding(120), peer_.holding(121)}), std::vector<int>({0x3344, 0x1122}));
    EXPECT_TRUE(peer_.coil(30) && !peer_.coil(31) && peer_.coil(32) && peer_.coil(40));

    // Read-only kinds are refused without a request; an exception reply is status 3.
    const size_t seen = peer_.requests().size();
    EXPECT_TRUE(itest::is_error(write_and_wait(*client_, rec(0, kStation, 2, 3, 0, 1), le16s({1})), 3));
    EXPECT_EQ(peer_.requests().size(), seen);
    EXPECT_TRUE(rig::eventually([&] { return itest::is_error(client_->com_read(rec(0, kStation, 2, 4, 2040, 20)), 3); }));

    // 200 registers travel as 125 + 75 read and 123 + 77 written.
    Bytes expected, values;
    for (int i = 0; i < 200; ++i) {
        peer_.set_holding(300 + i, static_cast<uint16_t>(0x100 + i));
        expected.insert(expected.end(), {static_cast<uint8_t>(i), 0x01});
        values.insert(values.end(), {static_cast<uint8_t>(i), 0x55});
    }
    EXPECT_EQ(read(rec(0, kStation, 2, 4, 300, 200)), expected);
    EXPECT_TRUE(write_and_wait(*client_, rec(0, kStation, 2, 4, 600, 200), values).ok);
    EXPECT_EQ(std::vector<int>({peer_.holding(600), peer_.holding(799)}), std::vector<int>({0x5500, 0x55c7}));
    std::set<std::tuple<int, int, int>> pieces;
    for (const auto& q : peer_.requests()) pieces.emplace(q.function, q.address, q.count);
    for (auto piece : {std::tuple(3, 300, 125), {3, 425, 75}, {16, 600, 123}, {16, 723, 77}})
        EXPECT_TRUE(pieces.count(piece)) << std::get<0>(piece) << " " << std::get<1>(piece);
}

TEST_F(ModbusTcp, StoppedStationTimesOutAndRecovers)
{
    peer_.set_holding(0, 42);
    const RegAddr r = rec(0, kStation, 2, 4, 0, 1);
    ASSERT_EQ(read(r), le16s({42}));
    peer_.stop();
    EXPECT_TRUE(rig::eventually([&] { return itest::is_error(client_->com_read(r), 2); }));
    peer_.set_holding(0, 43);
    peer_.start();
    EXPECT_TRUE(rig::eventually([&] { return client_->com_read(r).data == le16s({43}); }));
}

TEST_F(ModbusTcp, SlaveServesTheLocalAreasToSeveralMasters)
{
    auto master = [&] {
        modbus_t* m = modbus_new_tcp("127.0.0.1", slave_port_);
        // libmodbus waits 0.5 s by default; a loaded machine (sanitizers,
        // emulation) can answer later, and a late answer would then be taken
        // for the next request's.
        modbus_set_response_timeout(m, 10, 0);
        rig::eventually([&] { return modbus_connect(m) == 0; });
        return std::unique_ptr<modbus_t, void (*)(modbus_t*)>(m, [](modbus_t* x) { modbus_close(x); modbus_free(x); });
    };
    auto a = master();
    auto b = master();
    const uint16_t regs[] = {0x1111, 0x2222};
    const uint8_t coils[] = {1, 0, 1};
    ASSERT_EQ(modbus_write_registers(a.get(), 100, 2, regs), 2) << modbus_strerror(errno);
    ASSERT_EQ(modbus_write_bits(b.get(), 40, 3, coils), 3);
    EXPECT_EQ(read(rec(0, 0, 2, kWordArea, 100, 2)), le16s({0x1111, 0x2222}));
    EXPECT_EQ(read(rec(0, 0, 0, kBitArea, 40, 3)), (Bytes{0x05}));

    ASSERT_EQ(client_->write(rec(0, 0, 2, kWordArea, 200, 1), le16s({0xbeef})).err, 0);
    ASSERT_EQ(client_->write(rec(0, 0, 0, kBitArea, 50, 2), Bytes{0x02}).err, 0);
    uint16_t word = 0;
    uint8_t bits[2] = {9, 9};
    EXPECT_EQ(modbus_read_registers(b.get(), 200, 1, &word), 1);
    EXPECT_EQ(modbus_read_bits(a.get(), 50, 2, bits), 2);
    EXPECT_EQ(std::tuple(word, bits[0], bits[1]), std::tuple(0xbeef, 0, 1));

    // The last word and bit of each area answer; one past them is an illegal address.
    EXPECT_EQ(modbus_read_registers(a.get(), kLocalCount - 1, 1, &word), 1);
    EXPECT_EQ(modbus_read_bits(a.get(), kLocalCount - 1, 1, bits), 1);
    EXPECT_EQ(modbus_read_registers(a.get(), kLocalCount - 1, 2, &word), -1);
    EXPECT_EQ(errno, EMBXILADD);
    EXPECT_EQ(modbus_read_bits(b.get(), kLocalCount, 1, bits), -1);
    EXPECT_EQ(errno, EMBXILADD);
}

// Also a slave whose TCP port is taken: it keeps trying until the port is free.
TEST(ModbusRtu, PollsAndWritesOverASerialLine)
{
    // Two linked pseudo-terminals: the station on one, the server on the other.
    rig::Process socat("socat");
    socat.spawn({"socat", "-d", "-d", "pty,raw,echo=0", "pty,raw,echo=0"});
    std::vector<std::string> pty;
    ASSERT_TRUE(rig::eventually([&] {
        const std::string out = socat.output();
        pty.clear();
        for (size_t at = out.find("PTY is "); out.find('\n', at) != std::string::npos; at = out.find("PTY is ", at + 7))
            pty.push_back(out.substr(at + 7, out.find('\n', at) - at - 7));
        return pty.size() == 2;
    })) << socat.output();
    ModbusPeer peer(pty[0], 7);
    peer.set_holding(3, 0x0102);
    const int busy = rig::listen_socket(SOCK_CLOEXEC);  // not inherited by the server
    const std::string slave_port = std::to_string(rig::local_port(busy));

    rig::Config cfg;
    cfg.ports = {modbus_port("baud = 19200\nparity = \"E\"\ndata_bits = 8\nstop_bits = 1\ntimeout_ms = 300\n"
                             "modbus_server_port = " + slave_port)};
    cfg.env = {{"COMSERVER_SERIAL_PATH_0", pty[1]}, {"COMSERVER_SWEEP_SECONDS", "86400"},
               {"COMSERVER_MODBUS_LISTEN", "127.0.0.1"}};
    rig::Server server(cfg);
    server.start();
    EXPECT_TRUE(server.wait_for("dev=" + pty[1]));
    Client c = itest::connect(server);
    EXPECT_EQ(itest::read_until_data(c, rec(0, 7, 2, 4, 3, 1)).data, le16s({0x0102}));
    EXPECT_TRUE(write_and_wait(c, rec(0, 7, 0, 0, 9, 1), Bytes{0x01}).ok);
    EXPECT_TRUE(peer.coil(9));

    EXPECT_TRUE(server.wait_for("cannot listen on TCP port " + slave_port)) << server.output();
    ::close(busy);
    EXPECT_TRUE(server.wait_for("serving local areas on TCP port " + slave_port)) << server.output();
}

} // namespace
