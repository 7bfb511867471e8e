// Local register areas and SRAM through a running server: com_read answers
// what the test puts into the shared segment or the SRAM file, and writes
// land there.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "itest_util.h"

using namespace std::chrono_literals;
using comclient::Client;
using comclient::RegAddr;
using comclient::ReplyKind;
using itest::Bytes;
using itest::rec;

namespace {

constexpr size_t kSramBytes = 64 * 1024;
constexpr off_t kSramData = 1024; // data word k lies at byte 1024 + 2k

class LocalAreas : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        server_ = std::make_unique<rig::Server>(rig::Config{});
        const int fd = ::open((server_->dir() + "/sram").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::ftruncate(fd, kSramBytes), 0);
        ::close(fd);
        server_->start();
        seg_ = std::make_unique<itest::Segment>(server_->shmid(), true);
    }
    static void TearDownTestSuite()
    {
        seg_.reset();
        server_.reset();
    }

    static itest::Segment& seg() { return *seg_; }
    static std::string sram() { return server_->dir() + "/sram"; }
    static Client client() { return itest::connect(*server_, 2s); }

    static void sram_put(int64_t data_word, const Bytes& bytes)
    {
        const int fd = ::open(sram().c_str(), O_WRONLY);
        ASSERT_EQ(::pwrite(fd, bytes.data(), bytes.size(), kSramData + 2 * data_word),
                  static_cast<ssize_t>(bytes.size()));
        ::close(fd);
    }
    static Bytes sram_get(int64_t data_word, size_t n)
    {
        Bytes out(n);
        const int fd = ::open(sram().c_str(), O_RDONLY);
        const ssize_t got = ::pread(fd, out.data(), n, kSramData + 2 * data_word);
        ::close(fd);
        out.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return out;
    }
    static void set_sram_base(uint32_t base)
    {
        seg().set_word(9000, static_cast<uint16_t>(base));
        seg().set_word(9001, static_cast<uint16_t>(base >> 16));
    }

    static comclient::Reply read(const RegAddr& r) { return client().com_read(r); }

    // A write on a fresh connection (a request that times out leaves its
    // connection unusable); empty when write_success came back.
    static std::string write(const RegAddr& r, const Bytes& data)
    {
        try {
            Client c = client();
            const comclient::Reply rep = c.write(r, data);
            if (rep.kind == ReplyKind::status && rep.command == 5 && rep.ok && rep.err == 0) {
                return {};
            }
            return "unexpected reply " + ::testing::PrintToString(rep.packet);
        } catch (const comclient::Error& e) {
            return std::string("no write_success: ") + e.what();
        }
    }

    static std::unique_ptr<rig::Server> server_;
    static std::unique_ptr<itest::Segment> seg_;
};

std::unique_ptr<rig::Server> LocalAreas::server_;
std::unique_ptr<itest::Segment> LocalAreas::seg_;

TEST_F(LocalAreas, ReadsAnswerTheSharedSegment)
{
    for (uint32_t i = 0; i < 4; ++i) {
        seg().set_word(100 + i, static_cast<uint16_t>(0xa000 + i));
    }
    comclient::Reply r = read(rec(0, 0, 2, 249, 100, 4));
    EXPECT_EQ(r.kind, ReplyKind::data);
    EXPECT_EQ(r.command, 3);
    EXPECT_EQ(r.data, itest::le16s({0xa000, 0xa001, 0xa002, 0xa003}));
    EXPECT_EQ(read(rec(0, 0, 2, 255, 101, 2)).data, itest::le16s({0xa001, 0xa002})); // words, not bits

    // Bits 30..49 of the bit area; 29 and 50 lie just outside.
    for (uint32_t b : {29u, 30u, 31u, 33u, 40u, 49u, 50u}) {
        seg().set_bit(b, true);
    }
    EXPECT_EQ(read(rec(0, 0, 0, 254, 30, 20)).data, (Bytes{0x0b, 0x04, 0x08}));
    EXPECT_EQ(read(rec(0, 0, 0, 255, 30, 20)).data, (Bytes{0x0b, 0x04, 0x08}));

    // Bits 30..49 of the word area: bit 30 is bit 14 of word 1.
    seg().set_word(1, 0xe000);           // bits 29, 30, 31
    seg().set_word(2, 0x0101);           // bits 32, 40
    seg().set_word(3, 0x0006);           // bits 49, 50
    EXPECT_EQ(read(rec(0, 0, 0, 249, 30, 20)).data, (Bytes{0x07, 0x04, 0x08}));
}

TEST_F(LocalAreas, ReadsAnswerTheSramFile)
{
    sram_put(0, itest::le16s({0x1234, 0xff02, 0x0003}));
    EXPECT_EQ(read(rec(0, 0, 2, 253, 0, 2)).data, itest::le16s({0x1234, 0xff02}));
    // Bits 10..17 from data word 0: bits 10..15 of word 0, bits 0..1 of word 1.
    EXPECT_EQ(read(rec(0, 0, 0, 252, 10, 8)).data, (Bytes{0x84}));

    // Relative to the base in local words 9000/9001: word 5 is data word 105.
    set_sram_base(100);
    sram_put(105, itest::le16s({0x5555}));
    sram_put(101, itest::le16s({0x00f0}));
    EXPECT_EQ(read(rec(0, 0, 2, 251, 5, 1)).data, itest::le16s({0x5555}));
    EXPECT_EQ(read(rec(0, 0, 0, 250, 20, 8)).data, (Bytes{0x0f})); // bits 4..11 of data word 101
    set_sram_base(0);
}

TEST_F(LocalAreas, WritesLandInTheSegment)
{
    EXPECT_EQ(write(rec(0, 0, 2, 249, 200, 2), itest::le16s({0x4242, 0x0102})), "");
    EXPECT_EQ(seg().word(200), 0x4242);
    EXPECT_EQ(seg().word(201), 0x0102);
    EXPECT_EQ(seg().word(202), 0);

    // Bits 70..72 of the bit area become 1, 0, 1; the neighbours stay set.
    for (uint32_t b : {69u, 71u, 73u}) {
        seg().set_bit(b, true);
    }
    EXPECT_EQ(write(rec(0, 0, 0, 254, 70, 3), Bytes{0x05}), "");
    EXPECT_TRUE(seg().bit(69));
    EXPECT_TRUE(seg().bit(70));
    EXPECT_FALSE(seg().bit(71));
    EXPECT_TRUE(seg().bit(72));
    EXPECT_TRUE(seg().bit(73));

    // Bits of the word area across a word boundary: bits 94, 95 of word 5 and bit 0 of word 6.
    seg().set_word(5, 0x0001);
    seg().set_word(6, 0x8000);
    EXPECT_EQ(write(rec(0, 0, 0, 249, 94, 3), Bytes{0x07}), "");
    EXPECT_EQ(seg().word(5), 0xc001);
    EXPECT_EQ(seg().word(6), 0x8001);
}

TEST_F(LocalAreas, WritesLandInTheSramFile)
{
    EXPECT_EQ(write(rec(0, 0, 2, 253, 40, 2), itest::le16s({0xbeef, 0x0bad})), "");
    EXPECT_EQ(sram_get(40, 6), itest::le16s({0xbeef, 0x0bad, 0}));

    // Three bits from bit 14 of data word 50: bits 14, 15 of it and bit 0 of word 51.
    sram_put(50, itest::le16s({0x0f0f, 0xf0f0}));
    EXPECT_EQ(write(rec(0, 0, 0, 252, 50 * 16 + 14, 3), Bytes{0x05}), "");
    EXPECT_EQ(sram_get(50, 4), itest::le16s({0x4f0f, 0xf0f1}));

    set_sram_base(300);
    EXPECT_EQ(write(rec(0, 0, 2, 251, 2, 1), itest::le16s({0x7777})), "");
    EXPECT_EQ(sram_get(302, 2), itest::le16s({0x7777}));
    set_sram_base(0);
}

} // namespace
