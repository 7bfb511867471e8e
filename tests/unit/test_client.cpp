// Client library: exact request bytes and reply parsing. The framed
// exchange with a running server is exercised by every integration test.
#include <gtest/gtest.h>

#include <vector>

#include "comclient.h"

namespace {

using namespace comclient;
using Bytes = std::vector<uint8_t>;

// Header + body; the body carries its own checksum byte.
Bytes wire(const Bytes& body)
{
    Bytes b{0x01, 0, 0, 0, 0, 0, 0, 0, uint8_t(body.size() & 0xff), uint8_t(body.size() >> 8)};
    b.insert(b.end(), body.begin(), body.end());
    return b;
}

const RegAddr kSample{.tag = 0x11, .port = 2, .station = 7, .addr_unit = 1, .type = 4, .kind = 0x83,
                      .byte_offset = 0x0201, .start = -2, .count = 0x0304, .bcd = 1, .reserved = 0x99};
const Bytes kSampleBytes{0x11, 2, 7, 1, 4, 0x83, 0x01, 0x02, 0xfe, 0xff, 0xff, 0xff, 0x04, 0x03, 1, 0x99};
const Bytes kData4 = wire({3, 1, 4, 0, 0x11, 0x22, 0x33, 0x44, 0xb2});

TEST(ClientEncode, RequestBytes)
{
    auto enc = kSample.encode();
    EXPECT_EQ(Bytes(enc.begin(), enc.end()), kSampleBytes);
    EXPECT_EQ(RegAddr::decode(enc.data()), kSample);

    Bytes expect{3};
    expect.insert(expect.end(), kSampleBytes.begin(), kSampleBytes.end());
    expect.push_back(check_sum(expect));
    EXPECT_EQ(encode_record(Command::com_read, kSample), wire(expect));
    EXPECT_EQ(encode_areas(Command::sub_read, {}), wire({19, 0, 19}));

    // A record count byte, then the records; written data follow the record.
    const RegAddr two[] = {RegAddr{.station = 1, .kind = 3, .start = 10, .count = 2}, kSample};
    Bytes p = encode_areas(Command::register_areas, two);
    ASSERT_EQ(p.size(), 10u + 35u);
    EXPECT_EQ(Bytes(p.begin() + 10, p.begin() + 28), (Bytes{1, 2, 0, 0, 1, 0, 2, 3, 0, 0, 10, 0, 0, 0, 2, 0, 0, 0}));
    EXPECT_EQ(Bytes(p.begin() + 28, p.begin() + 44), kSampleBytes);
    p = encode_write(kSample, Bytes{0xaa, 0xbb, 0xcc});
    EXPECT_EQ(p[8], 21);
    EXPECT_EQ(Bytes(p.begin() + 27, p.begin() + 30), (Bytes{0xaa, 0xbb, 0xcc}));
    EXPECT_THROW(encode_record(Command::sub_read, kSample), Error);
    EXPECT_THROW(encode_write(kSample, Bytes(4096)), Error);

    // Read-modify-write block: six little-endian int32; the short form drops the last.
    RwOper op{.op = 4, .step = 1, .high = RwOper::float_bits(1.5f), .low = -1, .direction = 1, .value_type = 2};
    Bytes full = encode_rw(Command::realtime_rw, RegAddr{}, op);
    ASSERT_EQ(full.size(), 52u);
    EXPECT_EQ(full[8], 42);
    EXPECT_EQ(Bytes(full.begin() + 27, full.end()),
              (Bytes{4, 0, 0, 0, 1, 0, 0, 0, 0x00, 0x00, 0xc0, 0x3f, 0xff, 0xff, 0xff, 0xff, 1, 0, 0, 0, 2, 0, 0, 0,
                     check_sum(std::span<const uint8_t>(full).subspan(10, 41))}));
    EXPECT_EQ(encode_rw(Command::realtime_rw_check, RegAddr{}, op, RwForm::short_form).size(), 48u);
}

TEST(ClientParse, Replies)
{
    Reply r = parse_reply(wire({3, 0, 1, 4}));
    EXPECT_TRUE(r.kind == ReplyKind::status && r.pending());
    r = parse_reply(kData4);
    EXPECT_EQ(r.kind, ReplyKind::data);
    EXPECT_EQ(r.data, (Bytes{0x11, 0x22, 0x33, 0x44}));
    // write_success is a status with ok set; a 9 with ok set is a result.
    r = parse_reply(wire({5, 1, 0, 6}));
    EXPECT_TRUE(r.kind == ReplyKind::status && r.ok && !r.pending());
    r = parse_reply(wire({9, 1, 2, 12}));
    EXPECT_TRUE(r.kind == ReplyKind::result && r.result == 2);

    try {
        parse_reply(wire({3, 0, 1, 5}));
        ADD_FAILURE() << "a bad checksum was accepted";
    } catch (const Error& e) {
        EXPECT_EQ(e.kind(), ErrorKind::checksum);
    }
    EXPECT_THROW(parse_reply(make_packet(3, Bytes{1, 5, 0, 0x11})), Error);  // size field vs package_len

    // sub_read: data at 10, none, error at 17, a bit-view entry at 19 whose
    // size field counts 16 bits in a 4-byte slot.
    r = parse_reply(make_packet(19, Bytes{4, 10, 0, 0, 0, 17, 0, 19, 0, 1, 4, 0, 0x11, 0x22, 0x33, 0x44,
                                          0, 2, 1, 16, 0, 0xaa, 0x55, 0, 0}));
    ASSERT_EQ(r.kind, ReplyKind::multi_area);
    ASSERT_EQ(r.entries.size(), 4u);
    EXPECT_TRUE(r.entries[0].present && r.entries[0].ok);
    EXPECT_EQ(r.entries[0].data, (Bytes{0x11, 0x22, 0x33, 0x44}));
    EXPECT_FALSE(r.entries[1].present);
    EXPECT_TRUE(r.entries[2].present && !r.entries[2].ok && r.entries[2].err == 2);
    EXPECT_EQ(r.entries[3].size, 16);
    EXPECT_EQ(r.entries[3].data, (Bytes{0xaa, 0x55, 0, 0}));
    // An offset inside the table or past the end is refused.
    EXPECT_THROW(parse_reply(make_packet(19, Bytes{1, 1, 0, 0, 2})), Error);
    EXPECT_THROW(parse_reply(make_packet(19, Bytes{1, 40, 0, 0, 2})), Error);
}

}  // namespace
