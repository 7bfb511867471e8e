// Local register and SRAM access over a fake segment, a socketpair and a
// temporary SRAM file.
#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "server/globals.h"
#include "store/local_areas.h"
#include "store/local_mem.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t SHORT_OFF = 0x100;
constexpr uint32_t SHORT_BYTES = 20000; // words 0..9999
constexpr uint32_t BIT_OFF = SHORT_OFF + SHORT_BYTES;
constexpr uint32_t BIT_BYTES = 2048;    // bits 0..16383
constexpr size_t SEG_SIZE = BIT_OFF + BIT_BYTES;

REG_ADDR rec(uint8_t id, uint8_t type, int32_t start, int16_t width)
{
    return {.reg_type = type, .reg_id = id, .reg_addr_start = start, .reg_data_width = width};
}

// Expected packets, built by hand rather than with the builders under test.
Bytes packet(Bytes body)
{
    Bytes p{1, 0, 0, 0, 0, 0, 0, 0, static_cast<uint8_t>(body.size() + 1), 0};
    uint8_t sum = 0;
    for (uint8_t b : body) sum = static_cast<uint8_t>(sum + b);
    body.push_back(sum);
    p.insert(p.end(), body.begin(), body.end());
    return p;
}

Bytes data_reply(uint8_t cmd, const Bytes& data)
{
    Bytes body{cmd, 1, static_cast<uint8_t>(data.size()), static_cast<uint8_t>(data.size() >> 8)};
    body.insert(body.end(), data.begin(), data.end());
    return packet(body);
}

const Bytes WRITE_SUCCESS = packet({5, 1, 0});

class LocalMem : public ::testing::Test {
protected:
    void SetUp() override
    {
        seg_.assign(SEG_SIZE + 64, 0xEE); // 64 guard bytes past the segment
        std::fill(seg_.begin(), seg_.begin() + SEG_SIZE, 0);
        local_short = seg_.data() + SHORT_OFF;
        local_bit = seg_.data() + BIT_OFF;
        local_areas_init(SEG_SIZE, SHORT_OFF, BIT_OFF);
        semid = -1;
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv_), 0);
        char tmpl[] = "/tmp/sram_test_XXXXXX";
        const int fd = mkstemp(tmpl);
        ASSERT_EQ(ftruncate(fd, 256 * 1024), 0);
        close(fd);
        sram_file_ = tmpl;
        setenv("COMSERVER_SRAM_PATH", tmpl, 1);
    }
    void TearDown() override
    {
        local_short = local_bit = nullptr;
        local_areas_init(0, 0, 0);
        unsetenv("COMSERVER_SRAM_PATH");
        unlink(sram_file_.c_str());
        close(sv_[0]);
        close(sv_[1]);
    }

    // Replies are sent before the function returns, so whatever is queued now is all.
    Bytes reply()
    {
        uint8_t buf[4096];
        const ssize_t n = recv(sv_[1], buf, sizeof buf, MSG_DONTWAIT);
        return n > 0 ? Bytes(buf, buf + n) : Bytes{};
    }
    Bytes local(const REG_ADDR& r, uint8_t cmd) { read_local_mem(r, fd(), cmd); return reply(); }
    Bytes sram_read(const REG_ADDR& r, uint8_t cmd) { read_sram(r, fd(), cmd); return reply(); }
    void set_word(size_t w, uint16_t v) { std::memcpy(local_short + 2 * w, &v, 2); }
    uint16_t word(size_t w) const { uint16_t v; std::memcpy(&v, local_short + 2 * w, 2); return v; }
    void sram(off_t off, const Bytes& b)
    {
        const int fd = open(sram_file_.c_str(), O_RDWR);
        EXPECT_EQ(pwrite(fd, b.data(), b.size(), off), static_cast<ssize_t>(b.size()));
        close(fd);
    }
    int fd() const { return sv_[0]; }

    Bytes seg_;
    int sv_[2] = {-1, -1};
    std::string sram_file_;
};

TEST(LocalAreas, SizesRunToTheOtherAreaOrTheSegmentEnd)
{
    using Sizes = std::pair<size_t, size_t>;
    auto sizes = [](size_t seg, uint32_t words, uint32_t bits) {
        local_areas_init(seg, words, bits);
        return Sizes(local_short_size(), local_bit_size());
    };
    EXPECT_EQ(sizes(1000, 100, 501), Sizes(400, 496)); // 401 and 499 cut to whole 16- and 32-bit words
    EXPECT_EQ(sizes(1000, 600, 200), Sizes(400, 400));
    EXPECT_EQ(sizes(1000, 2000, 200), Sizes(0, 800));  // offset beyond the segment
    local_areas_init(0, 0, 0);
}

TEST_F(LocalMem, ReadsComeFromTheRightAreaBitsPackedLsbFirst)
{
    for (int b : {30, 31, 33, 49, 50}) local_bit[b / 8] |= static_cast<uint8_t>(1u << (b % 8));
    set_word(1, 0x4000); // word-area bit 30
    set_word(2, 0x0100); // bit 40
    set_word(3, 0x000A); // bits 49 and 51
    EXPECT_EQ(local(rec(254, 0, 30, 20), 3), data_reply(3, {0x0B, 0x00, 0x08})); // bit 50 stays out
    EXPECT_EQ(local(rec(249, 0, 30, 20), 3), data_reply(3, {0x01, 0x04, 0x08}));
    // Word access of 255 reads the word area.
    EXPECT_EQ(local(rec(255, 2, 1, 3), 4), data_reply(4, {0x00, 0x40, 0x00, 0x01, 0x0A, 0x00}));
}

TEST_F(LocalMem, LocalWritesAndReadModifyWrite)
{
    const uint8_t bits[] = {0x05};
    testing::internal::CaptureStdout();
    write_local_mem(rec(249, 0, 14, 3), fd(), bits, 1); // bits 14, 16 set, 15 cleared
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "start=14\r\nlength=3\r\n");
    EXPECT_EQ(reply(), WRITE_SUCCESS);
    EXPECT_EQ(word(0), 0x4000);
    EXPECT_EQ(word(1), 0x0001);

    local_bit[0] = 0xFF;
    uint8_t buf[LOCAL_RW_BUF_SIZE] = {};
    ASSERT_TRUE(read_local_mem_rw(rec(254, 0, 5, 1), buf));
    buf[0] ^= 1;
    ASSERT_TRUE(write_local_mem_rw(rec(254, 0, 5, 1), buf));
    EXPECT_EQ(local_bit[0], 0xDF);
}

TEST_F(LocalMem, SramWordAddressing)
{
    sram(1024, {0xA1, 0xA2, 0xB1, 0xB2});
    EXPECT_EQ(sram_read(rec(253, 2, 0, 2), 3), data_reply(3, {0xA1, 0xA2, 0xB1, 0xB2}));
    set_word(9000, 100);
    sram(1234, {0x5A, 0xA5}); // file word 617 = data word 105
    EXPECT_EQ(sram_read(rec(251, 2, 5, 1), 8), data_reply(8, {0x5A, 0xA5}));
    set_word(9000, 0xFFFF);   // base taken unsigned: 65535, not -1
    sram((65535 + 1 + 512) * 2, {0x3C, 0xC3});
    EXPECT_EQ(sram_read(rec(251, 2, 1, 1), 3), data_reply(3, {0x3C, 0xC3}));
    sram(1024, {0x00, 0xAC, 0x07, 0x00}); // word 0 bits 10,11,13,15; word 1 bits 0..2
    EXPECT_EQ(sram_read(rec(252, 0, 10, 8), 3), data_reply(3, {0xEB}));
}

TEST_F(LocalMem, MissingSramPrintsAndAnswersNothing)
{
    setenv("COMSERVER_SRAM_PATH", "/nonexistent/sram", 1);
    uint8_t pkt[4096] = {};
    uint16_t off = 40;
    uint8_t buf[LOCAL_RW_BUF_SIZE] = {0x42};
    testing::internal::CaptureStdout();
    EXPECT_TRUE(sram_read(rec(252, 0, 0, 8), 3).empty());
    EXPECT_EQ(bat_read_sram(rec(253, 2, 0, 1), pkt, 50, 1, off), 0u);
    EXPECT_TRUE(read_sram_rw(rec(253, 2, 0, 1), buf));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "SRAM open error\r\nSRAM open error\r\nSRAM open error\r\n");
    EXPECT_EQ(off, 40);
    EXPECT_EQ(buf[0], 0x42);
}

TEST_F(LocalMem, SubReadEntriesAndOffsets)
{
    uint8_t pkt[4096] = {};
    set_word(7, 0xBEEF);
    uint16_t off = 6; // body offset after a 2-record offset table
    EXPECT_EQ(sub_read_local_mem(rec(249, 2, 7, 1), pkt, 16, 0, off), 5u);
    EXPECT_EQ(off, 11);
    EXPECT_EQ(Bytes(pkt + 12, pkt + 14), (Bytes{6, 0}));
    EXPECT_EQ(Bytes(pkt + 16, pkt + 21), (Bytes{1, 2, 0, 0xEF, 0xBE}));
    // Out of the area: error entry [0][3].
    EXPECT_EQ(sub_read_local_mem(rec(249, 2, 9999, 2), pkt, 21, 1, off), 2u);
    EXPECT_EQ(off, 13);
    EXPECT_EQ(Bytes(pkt + 14, pkt + 16), (Bytes{11, 0}));
    EXPECT_EQ(Bytes(pkt + 21, pkt + 23), (Bytes{0, 3}));
    // An entry that would overrun the reply buffer becomes the error entry; no room at all: nothing.
    EXPECT_EQ(sub_read_local_mem(rec(249, 2, 0, 100), pkt, 4000, 2, off), 2u);
    EXPECT_EQ(bat_read_sram(rec(253, 2, 0, 1), pkt, 4094, 3, off), 0u);
}

TEST_F(LocalMem, OutOfBoundsRequestsAreRefusedWithoutTouchingMemory)
{
    const Bytes before = seg_;
    const struct { bool sram; REG_ADDR r; uint8_t cmd; } refused[] = {
        {false, rec(254, 0, BIT_BYTES * 8 - 4, 5), 3},
        {false, rec(249, 2, SHORT_BYTES / 2 - 1, 2), 4},
        {false, rec(249, 2, 0, 257), 8},  // over 512 data bytes
        {false, rec(249, 2, -1, 1), 3},
        {true, rec(253, 2, 0, -1), 3},
        {true, rec(252, 0, 15, 2034), 3}, // (s mod 16) + n = 2049 bits
    };
    for (const auto& c : refused) {
        EXPECT_EQ(c.sram ? sram_read(c.r, c.cmd) : local(c.r, c.cmd), packet({c.cmd, 0, 3}))
            << int(c.r.reg_id) << "@" << c.r.reg_addr_start;
    }
    EXPECT_EQ(sram_read(rec(252, 0, 14, 2034), 3).size(), 255u + 15u); // 2048 bits still fit

    const uint8_t ones[LOCAL_DATA_MAX] = {0xFF};
    testing::internal::CaptureStdout();
    write_local_mem(rec(254, 0, BIT_BYTES * 8 - 1, 2), fd(), ones, 1);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(reply(), packet({5, 0, 3}));
    EXPECT_FALSE(write_local_mem_rw(rec(249, 2, 0, 65), ones)); // beyond the 128-byte value buffer
    uint8_t buf[LOCAL_RW_BUF_SIZE] = {};
    EXPECT_FALSE(read_local_mem_rw(rec(249, 2, SHORT_BYTES / 2, 1), buf));
    EXPECT_EQ(seg_, before);

    local_areas_init(0, 0, 0); // sizes unknown: no local access at all, base words included
    EXPECT_EQ(local(rec(254, 0, 0, 1), 3), packet({3, 0, 3}));
    EXPECT_EQ(sram_read(rec(250, 2, 0, 1), 3), packet({3, 0, 3}));
}

} // namespace
