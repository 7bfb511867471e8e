// Local register and SRAM access over a fake segment, a socketpair and a
// temporary SRAM file.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "server/globals.h"
#include "store/local_areas.h"
#include "store/local_mem.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t SHORT_OFF = 0x100;
constexpr uint32_t SHORT_BYTES = 20000;           // words 0..9999
constexpr uint32_t BIT_OFF = SHORT_OFF + SHORT_BYTES;
constexpr uint32_t BIT_BYTES = 2048;              // bits 0..16383
constexpr size_t SEG_SIZE = BIT_OFF + BIT_BYTES;
constexpr off_t SRAM_SIZE = 256 * 1024;

REG_ADDR rec(uint8_t reg_id, uint8_t reg_type, int32_t start, int16_t width)
{
    REG_ADDR r{};
    r.reg_id = reg_id;
    r.reg_type = reg_type;
    r.reg_addr_start = start;
    r.reg_data_width = width;
    return r;
}

// Expected packets, built by hand rather than with the builders under test.
Bytes packet(const Bytes& body)
{
    Bytes p{1, 0, 0, 0, 0, 0, 0, 0, static_cast<uint8_t>(body.size() + 1), 0};
    uint8_t sum = 0;
    for (uint8_t b : body) {
        p.push_back(b);
        sum = static_cast<uint8_t>(sum + b);
    }
    p.push_back(sum);
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
        seg_.assign(SEG_SIZE + 64, 0xEE);  // 64 guard bytes past the segment
        std::fill(seg_.begin(), seg_.begin() + SEG_SIZE, 0);
        local_short = seg_.data() + SHORT_OFF;
        local_bit = seg_.data() + BIT_OFF;
        local_areas_init(SEG_SIZE, SHORT_OFF, BIT_OFF);
        semid = -1;
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv_), 0);
        char tmpl[] = "/tmp/sram_test_XXXXXX";
        int fd = mkstemp(tmpl);
        ASSERT_GE(fd, 0);
        sram_file_ = tmpl;
        ASSERT_EQ(ftruncate(fd, SRAM_SIZE), 0);
        close(fd);
        setenv("COMSERVER_SRAM_PATH", sram_file_.c_str(), 1);
    }
    void TearDown() override
    {
        local_short = nullptr;
        local_bit = nullptr;
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
        ssize_t n = recv(sv_[1], buf, sizeof buf, MSG_DONTWAIT);
        return n > 0 ? Bytes(buf, buf + n) : Bytes{};
    }
    void set_word(size_t w, uint16_t v) { std::memcpy(local_short + 2 * w, &v, 2); }
    uint16_t word(size_t w) const { uint16_t v; std::memcpy(&v, local_short + 2 * w, 2); return v; }
    void sram_put(off_t off, const Bytes& b)
    {
        int fd = open(sram_file_.c_str(), O_RDWR);
        ASSERT_EQ(pwrite(fd, b.data(), b.size(), off), static_cast<ssize_t>(b.size()));
        close(fd);
    }
    Bytes sram_get(off_t off, size_t n)
    {
        Bytes b(n);
        int fd = open(sram_file_.c_str(), O_RDONLY);
        EXPECT_EQ(pread(fd, b.data(), n, off), static_cast<ssize_t>(n));
        close(fd);
        return b;
    }
    int fd() const { return sv_[0]; }

    Bytes seg_;
    int sv_[2] = {-1, -1};
    std::string sram_file_;
};

TEST(LocalAreas, SizesRunToTheOtherAreaOrTheSegmentEnd)
{
    local_areas_init(1000, 100, 501);
    EXPECT_EQ(local_short_size(), 400u);  // 401 cut to whole words
    EXPECT_EQ(local_bit_size(), 496u);    // 499 cut to whole 32-bit words
    local_areas_init(1000, 600, 200);
    EXPECT_EQ(local_short_size(), 400u);
    EXPECT_EQ(local_bit_size(), 400u);
    local_areas_init(1000, 2000, 200);    // offset beyond the segment
    EXPECT_EQ(local_short_size(), 0u);
    EXPECT_EQ(local_bit_size(), 800u);
    local_areas_init(0, 0, 0);
}

TEST_F(LocalMem, ReadsComeFromTheRightAreaBitsPackedLsbFirst)
{
    for (int b : {30, 31, 33, 49, 50}) {
        local_bit[b / 8] |= static_cast<uint8_t>(1u << (b % 8));
    }
    set_word(1, 0x4000);  // word-area bit 30
    set_word(2, 0x0100);  // bit 40
    set_word(3, 0x000A);  // bits 49 and 51
    read_local_mem(rec(254, 0, 30, 20), fd(), 3);
    EXPECT_EQ(reply(), data_reply(3, {0x0B, 0x00, 0x08}));  // bit 50 stays out
    read_local_mem(rec(249, 0, 30, 20), fd(), 3);
    EXPECT_EQ(reply(), data_reply(3, {0x01, 0x04, 0x08}));
    read_local_mem(rec(255, 2, 1, 3), fd(), 4);  // word access of 255 reads the word area
    EXPECT_EQ(reply(), data_reply(4, {0x00, 0x40, 0x00, 0x01, 0x0A, 0x00}));
}

TEST_F(LocalMem, LocalWritesAndReadModifyWrite)
{
    const uint8_t bits[] = {0x05};
    testing::internal::CaptureStdout();
    write_local_mem(rec(249, 0, 14, 3), fd(), bits, 1);  // bits 14, 16 set, 15 cleared
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "start=14\r\nlength=3\r\n");
    EXPECT_EQ(reply(), WRITE_SUCCESS);
    EXPECT_EQ(word(0), 0x4000);
    EXPECT_EQ(word(1), 0x0001);

    local_bit[0] = 0xFF;
    const uint8_t clear[] = {0x00};
    testing::internal::CaptureStdout();
    write_local_mem(rec(254, 0, 3, 0), fd(), clear, 1);  // zero bits: nothing changes
    EXPECT_EQ(reply(), WRITE_SUCCESS);
    EXPECT_EQ(local_bit[0], 0xFF);

    const uint8_t w[] = {0x11, 0x22};
    write_local_mem(rec(254, 2, 5, 1), fd(), w, 2);  // word write goes to the word area
    EXPECT_EQ(word(5), 0x2211);
    testing::internal::GetCapturedStdout();

    uint8_t buf[LOCAL_RW_BUF_SIZE] = {};
    ASSERT_TRUE(read_local_mem_rw(rec(254, 0, 5, 1), buf));
    buf[0] ^= 1;
    ASSERT_TRUE(write_local_mem_rw(rec(254, 0, 5, 1), buf));
    EXPECT_EQ(local_bit[0], 0xDF);
}

TEST_F(LocalMem, SramWordAddressing)
{
    sram_put(1024, {0xA1, 0xA2, 0xB1, 0xB2});
    read_sram(rec(253, 2, 0, 2), fd(), 3);
    EXPECT_EQ(reply(), data_reply(3, {0xA1, 0xA2, 0xB1, 0xB2}));

    set_word(9000, 100);
    set_word(9001, 0);
    sram_put(1234, {0x5A, 0xA5});  // file word 617 = data word 105
    read_sram(rec(251, 2, 5, 1), fd(), 8);
    EXPECT_EQ(reply(), data_reply(8, {0x5A, 0xA5}));

    set_word(9000, 0xFFFF);  // base taken unsigned: 65535, not -1
    sram_put((65535 + 1 + 512) * 2, {0x3C, 0xC3});
    read_sram(rec(251, 2, 1, 1), fd(), 3);
    EXPECT_EQ(reply(), data_reply(3, {0x3C, 0xC3}));
}

TEST_F(LocalMem, SramBitsAcrossWords)
{
    sram_put(1024, {0x00, 0xAC, 0x07, 0x00});  // word 0 bits 10,11,13,15; word 1 bits 0..2
    read_sram(rec(252, 0, 10, 8), fd(), 3);
    EXPECT_EQ(reply(), data_reply(3, {0xEB}));

    sram_put(1024, {0xFF, 0x7F, 0xFE, 0xFF, 0x34, 0x12});
    const uint8_t bits[] = {0x06};  // bit 14 cleared, bit 15 and bit 16 set
    write_sram(rec(252, 0, 14, 3), fd(), bits, 1);
    EXPECT_EQ(reply(), WRITE_SUCCESS);
    EXPECT_EQ(sram_get(1024, 6), (Bytes{0xFF, 0xBF, 0xFF, 0xFF, 0x34, 0x12}));
}

TEST_F(LocalMem, MissingSramPrintsAndAnswersNothing)
{
    setenv("COMSERVER_SRAM_PATH", "/nonexistent/sram", 1);
    uint8_t pkt[4096] = {};
    uint16_t off = 40;
    uint8_t buf[LOCAL_RW_BUF_SIZE] = {0x42};
    const uint8_t data[] = {1, 2};
    testing::internal::CaptureStdout();
    read_sram(rec(252, 0, 0, 8), fd(), 3);
    write_sram(rec(253, 2, 0, 1), fd(), data, 2);
    EXPECT_EQ(bat_read_sram(rec(253, 2, 0, 1), pkt, 50, 1, off), 0u);
    EXPECT_TRUE(read_sram_rw(rec(253, 2, 0, 1), buf));
    std::string expected;
    for (int i = 0; i < 4; ++i) {
        expected += "SRAM open error\r\n";
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), expected);
    EXPECT_TRUE(reply().empty());
    EXPECT_EQ(off, 40);
    EXPECT_EQ(pkt[14], 0);
    EXPECT_EQ(buf[0], 0x42);
}

TEST_F(LocalMem, SubReadEntriesAndOffsets)
{
    uint8_t pkt[4096] = {};
    set_word(7, 0xBEEF);
    uint16_t off = 6;  // body offset after a 2-record offset table
    EXPECT_EQ(sub_read_local_mem(rec(249, 2, 7, 1), pkt, 16, 0, off), 5u);
    EXPECT_EQ(off, 11);
    EXPECT_EQ(Bytes(pkt + 12, pkt + 14), (Bytes{6, 0}));
    EXPECT_EQ(Bytes(pkt + 16, pkt + 21), (Bytes{1, 2, 0, 0xEF, 0xBE}));
    // Out of the area: error entry [0][3].
    EXPECT_EQ(sub_read_local_mem(rec(249, 2, 9999, 2), pkt, 21, 1, off), 2u);
    EXPECT_EQ(off, 13);
    EXPECT_EQ(Bytes(pkt + 14, pkt + 16), (Bytes{11, 0}));
    EXPECT_EQ(Bytes(pkt + 21, pkt + 23), (Bytes{0, 3}));
    // An entry that would overrun the reply buffer becomes the error entry.
    EXPECT_EQ(sub_read_local_mem(rec(249, 2, 0, 100), pkt, 4000, 2, off), 2u);
    EXPECT_EQ(bat_read_sram(rec(253, 2, 0, 1), pkt, 4094, 3, off), 0u);
}

TEST_F(LocalMem, OutOfBoundsRequestsAreRefusedWithoutTouchingMemory)
{
    const Bytes before = seg_;
    const uint8_t ones[LOCAL_DATA_MAX] = {0xFF};
    read_local_mem(rec(254, 0, BIT_BYTES * 8 - 4, 5), fd(), 3);
    EXPECT_EQ(reply(), packet({3, 0, 3}));
    read_local_mem(rec(249, 2, SHORT_BYTES / 2 - 1, 2), fd(), 4);
    EXPECT_EQ(reply(), packet({4, 0, 3}));
    read_local_mem(rec(249, 2, 0, 257), fd(), 8);  // over 512 data bytes
    EXPECT_EQ(reply(), packet({8, 0, 3}));
    read_local_mem(rec(249, 2, -1, 1), fd(), 3);
    EXPECT_EQ(reply(), packet({3, 0, 3}));
    read_sram(rec(253, 2, 0, -1), fd(), 3);
    EXPECT_EQ(reply(), packet({3, 0, 3}));
    read_sram(rec(252, 0, 15, 2034), fd(), 3);  // (s mod 16) + n = 2049 bits
    EXPECT_EQ(reply(), packet({3, 0, 3}));
    read_sram(rec(252, 0, 14, 2034), fd(), 3);  // 2048 bits still fit
    EXPECT_EQ(reply().size(), 255u + 15u);

    testing::internal::CaptureStdout();
    write_local_mem(rec(254, 0, BIT_BYTES * 8 - 1, 2), fd(), ones, 1);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(reply(), packet({5, 0, 3}));
    EXPECT_FALSE(write_local_mem_rw(rec(249, 2, 0, 65), ones));  // beyond the 128-byte value buffer
    uint8_t buf[LOCAL_RW_BUF_SIZE] = {};
    EXPECT_FALSE(read_local_mem_rw(rec(249, 2, SHORT_BYTES / 2, 1), buf));
    EXPECT_EQ(seg_, before);

    local_areas_init(0, 0, 0);  // sizes unknown: no local access at all
    read_local_mem(rec(254, 0, 0, 1), fd(), 3);
    EXPECT_EQ(reply(), packet({3, 0, 3}));
    read_sram(rec(250, 2, 0, 1), fd(), 3);  // base words are out of reach too
    EXPECT_EQ(reply(), packet({3, 0, 3}));
}

} // namespace
