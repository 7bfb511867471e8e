// Local register areas and SRAM through a running server: com_read answers
// what the test puts into the shared segment or the SRAM file, and writes
// land there, through the C++ client library and the C interface.
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <unistd.h>

#include "comclient_c.h"
#include "itest_util.h"

using namespace std::chrono_literals;
using comclient::ReplyKind;
using itest::Bytes;
using itest::le16s;
using itest::rec;

namespace {

TEST(LocalAreas, ReadsAndWritesReachTheSegmentAndTheSramFile)
{
    rig::Server server{rig::Config{}};
    const std::string sram = server.dir() + "/sram";
    std::ofstream(sram).close();
    std::filesystem::resize_file(sram, 64 * 1024);
    server.start();
    const itest::Segment seg(server.shmid(), true);
    // Puts bytes at a data word of the SRAM file (byte 1024 + 2k), or reads them back.
    auto sram_io = [&](int64_t data_word, Bytes bytes, bool put = true) {
        const int fd = ::open(sram.c_str(), O_RDWR);
        const off_t at = 1024 + 2 * data_word;
        EXPECT_EQ(put ? ::pwrite(fd, bytes.data(), bytes.size(), at) : ::pread(fd, bytes.data(), bytes.size(), at),
                  static_cast<ssize_t>(bytes.size()));
        ::close(fd);
        return bytes;
    };
    auto read = [&](const comclient::RegAddr& r) {
        const comclient::Reply rep = itest::connect(server, 2s).com_read(r);
        EXPECT_EQ(rep.kind, ReplyKind::data);
        return rep.data;
    };
    // A write on a fresh connection; true when write_success came back.
    auto write = [&](const comclient::RegAddr& r, const Bytes& data) {
        return itest::is_status(itest::connect(server, 2s).write(r, data), 5, 0);
    };

    for (uint32_t b : {29u, 30u, 31u, 33u, 49u, 50u}) seg.set_bit(b, true);
    EXPECT_EQ(read(rec(0, 0, 0, 254, 30, 20)), (Bytes{0x0b, 0x00, 0x08}));
    seg.set_bit(71, true);
    EXPECT_TRUE(write(rec(0, 0, 0, 254, 70, 3), Bytes{0x05})); // bits 70..72 become 1, 0, 1
    EXPECT_TRUE(seg.bit(70) && !seg.bit(71) && seg.bit(72));
    EXPECT_TRUE(write(rec(0, 0, 2, 249, 200, 2), le16s({0x4242, 0x0102})));
    EXPECT_EQ(seg.word(201), 0x0102);

    sram_io(0, le16s({0x1234, 0xff02}));
    EXPECT_EQ(read(rec(0, 0, 2, 253, 0, 2)), le16s({0x1234, 0xff02}));
    EXPECT_EQ(read(rec(0, 0, 0, 252, 10, 8)), (Bytes{0x84})); // bits 10..15 of word 0, 0..1 of word 1
    sram_io(50, le16s({0x0f0f, 0xf0f0}));
    EXPECT_TRUE(write(rec(0, 0, 0, 252, 50 * 16 + 14, 3), Bytes{0x05})); // bits 14, 15 of word 50, 0 of 51
    EXPECT_EQ(sram_io(50, Bytes(4), false), le16s({0x4f0f, 0xf0f1}));
    // Relative to the base in local words 9000/9001: word 2 is data word 102.
    seg.set_word(9000, 100);
    EXPECT_TRUE(write(rec(0, 0, 2, 251, 2, 1), le16s({0x7777})));
    EXPECT_EQ(sram_io(102, Bytes(2), false), le16s({0x7777}));
    seg.set_word(9000, 0);

    // The C interface: a local word written and read back, a buffer too
    // small for the reply, and a refused connection.
    comclient_conn* c = comclient_connect("127.0.0.1", static_cast<uint16_t>(server.tcp_port()), 2000);
    ASSERT_NE(c, nullptr);
    const comclient_reg_addr r{.type = 2, .kind = 255, .start = 40, .count = 1};
    const uint8_t value[2] = {0x34, 0x12};
    EXPECT_EQ(comclient_write(c, &r, value, sizeof value), 0);
    uint8_t buf[2] = {};
    size_t len = 0;
    EXPECT_EQ(comclient_com_read(c, &r, buf, sizeof buf, &len), 0);
    EXPECT_EQ(Bytes(buf, buf + len), le16s({0x1234}));
    EXPECT_EQ(comclient_com_read(c, &r, buf, 1, &len), COMCLIENT_E_SPACE);
    EXPECT_EQ(len, 2u);
    comclient_close(c);
    EXPECT_EQ(comclient_connect("127.0.0.1", 1, 500), nullptr);
}

} // namespace
