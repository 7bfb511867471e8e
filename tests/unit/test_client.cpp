// Client library: parsing of multi-area and malformed replies. Plain status,
// data and result replies and the framed exchange are exercised by every
// integration test.
#include <gtest/gtest.h>

#include <vector>

#include "comclient.h"

namespace {

using namespace comclient;
using Bytes = std::vector<uint8_t>;

TEST(ClientParse, MultiAreaAndMalformedReplies)
{
    Bytes bad_sum = make_packet(3, Bytes{0, 1});
    ++bad_sum.back();
    try {
        parse_reply(bad_sum);
        ADD_FAILURE() << "a bad checksum was accepted";
    } catch (const Error& e) {
        EXPECT_EQ(e.kind(), ErrorKind::checksum);
    }
    EXPECT_THROW(parse_reply(make_packet(3, Bytes{1, 5, 0, 0x11})), Error);  // size field vs package_len

    // sub_read: data at 10, none, error at 17, a bit-view entry at 19 whose
    // size field counts 16 bits in a 4-byte slot.
    const Reply r = parse_reply(make_packet(19, Bytes{4, 10, 0, 0, 0, 17, 0, 19, 0, 1, 4, 0, 0x11, 0x22, 0x33, 0x44,
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
