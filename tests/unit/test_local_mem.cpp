// Local register and SRAM access over a fake segment and a temporary SRAM
// file: the bounds, offsets and entries a running server cannot show exactly.
// Expected replies are built by hand (unit_util.h), never by the builders.
#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <numeric>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include "store/local_mem.h"
#include "unit_util.h"

using namespace table_test;

namespace {

constexpr uint32_t SHORT_OFF = 0x100;
constexpr uint32_t SHORT_BYTES = 20000; // words 0..9999
constexpr uint32_t BIT_OFF = SHORT_OFF + SHORT_BYTES;
constexpr uint32_t BIT_BYTES = 2048;    // bits 0..16383

REG_ADDR rec(uint8_t id, uint8_t type, int32_t start, int16_t width)
{
    return {.reg_type = type, .reg_id = id, .reg_addr_start = start, .reg_data_width = width};
}

class LocalMem : public ::testing::Test {
protected:
    void SetUp() override
    {
        seg_.assign(BIT_OFF + BIT_BYTES + 64, 0); // 64 guard bytes past the segment
        local_short = seg_.data() + SHORT_OFF;
        local_bit = seg_.data() + BIT_OFF;
        local_areas_init(BIT_OFF + BIT_BYTES, SHORT_OFF, BIT_OFF);
        semid = -1;
        char tmpl[] = "/tmp/sram_test_XXXXXX";
        close(mkstemp(tmpl)); // empty: short reads leave zeros
        sram_file_ = tmpl;
        setenv("COMSERVER_SRAM_PATH", tmpl, 1);
    }
    void TearDown() override
    {
        local_short = local_bit = nullptr;
        local_areas_init(0, 0, 0);
        unsetenv("COMSERVER_SRAM_PATH");
        unlink(sram_file_.c_str());
    }

    // The first n bytes of the reply buffer: the reply a function built.
    Bytes reply(size_t n) const { return Bytes(reply_, reply_ + n); }
    Bytes local(const REG_ADDR& r, uint8_t cmd) { return reply(read_local_mem(r, cmd, reply_)); }
    Bytes sram_read(const REG_ADDR& r, uint8_t cmd) { return reply(read_sram(r, cmd, reply_)); }
    void set_word(size_t w, uint16_t v) { std::memcpy(local_short + 2 * w, &v, 2); }

    Bytes seg_;
    uint8_t reply_[4096] = {};
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

TEST_F(LocalMem, SramWordAddressing)
{
    // Base 0xFFFF + 65536 * 1 = 131071, taken unsigned: file word 512 + 131072.
    set_word(9000, 0xFFFF);
    set_word(9001, 1);
    const int fd = open(sram_file_.c_str(), O_RDWR);
    ASSERT_EQ(pwrite(fd, "\x3C\xC3", 2, (512 + 131072) * 2), 2);
    close(fd);
    EXPECT_EQ(sram_read(rec(251, 2, 1, 1), 8), data_reply(8, {0x3C, 0xC3}));

    // A missing SRAM file is reported and nothing is answered.
    setenv("COMSERVER_SRAM_PATH", "/nonexistent/sram", 1);
    testing::internal::CaptureStdout();
    EXPECT_TRUE(sram_read(rec(252, 0, 0, 8), 3).empty());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "SRAM open error\r\n");
}

TEST_F(LocalMem, SubReadEntriesAndOffsets)
{
    uint8_t pkt[4096] = {};
    set_word(7, 0xBEEF);
    uint16_t off = 6; // body offset after a 2-record offset table
    EXPECT_EQ(sub_read_local_mem(rec(249, 2, 7, 1), pkt, 16, 0, off), 5u);
    EXPECT_EQ(sub_read_local_mem(rec(249, 2, 9999, 2), pkt, 21, 1, off), 2u); // out of the area
    EXPECT_EQ(off, 13);
    // The offset table at 12, then the entries [1][length][data] and the error entry [0][3].
    EXPECT_EQ(Bytes(pkt + 12, pkt + 23), (Bytes{6, 0, 11, 0, 1, 2, 0, 0xEF, 0xBE, 0, 3}));
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
    for (const auto& c : refused)
        EXPECT_EQ(c.sram ? sram_read(c.r, c.cmd) : local(c.r, c.cmd), packet({c.cmd, 0, 3}))
            << int(c.r.reg_id) << "@" << c.r.reg_addr_start;
    EXPECT_EQ(sram_read(rec(252, 0, 14, 2034), 3).size(), 255u + 15u); // 2048 bits still fit

    const uint8_t ones[LOCAL_DATA_MAX] = {0xFF};
    testing::internal::CaptureStdout();
    const Bytes write_refused = reply(write_local_mem(rec(254, 0, BIT_BYTES * 8 - 1, 2), ones, 1, reply_));
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(write_refused, packet({5, 0, 3}));
    EXPECT_FALSE(write_local_mem_rw(rec(249, 2, 0, 65), ones)); // beyond the 128-byte value buffer
    uint8_t buf[LOCAL_RW_BUF_SIZE] = {};
    EXPECT_FALSE(read_local_mem_rw(rec(249, 2, SHORT_BYTES / 2, 1), buf));
    EXPECT_EQ(seg_, before);

    local_areas_init(0, 0, 0); // sizes unknown: no local access at all, base words included
    EXPECT_EQ(local(rec(254, 0, 0, 1), 3), packet({3, 0, 3}));
    EXPECT_EQ(sram_read(rec(250, 2, 0, 1), 3), packet({3, 0, 3}));
}

} // namespace
