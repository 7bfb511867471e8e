// combridge's pure parts: configuration errors, value payloads and write
// payloads. Topics, polling and publishing are shown end to end.
#include <gtest/gtest.h>

#include "codec.h"
#include "config.h"

namespace {

using namespace bridge;
using Bytes = std::vector<uint8_t>;

const std::string kHead = "topic_prefix = \"p\"\n";
const std::string kTag = "[[tag]]\nname = \"t\"\nkind = 3\nstart = 0\n";

std::string error_of(const std::string& text)
{
    try {
        parse_config(text, "/");
    } catch (const ConfigError& e) {
        return e.what();
    }
    return "no error";
}

TEST(BridgeConfig, ErrorsNameTheLineAndTheField)
{
    const BridgeConfig cfg = parse_config(kHead + kTag, "/");
    ASSERT_EQ(cfg.tags.size(), 1u);
    EXPECT_EQ(cfg.tags[0].type, TagType::word);
    EXPECT_EQ(cfg.tags[0].period.count(), 1000);
    EXPECT_FALSE(cfg.tags[0].writable);
    EXPECT_EQ(cfg.broker.client_id.rfind("combridge", 0), 0u);

    EXPECT_EQ(error_of(kTag), "topic_prefix is missing");
    EXPECT_EQ(error_of(kHead), "no [[tag]] is configured");
    EXPECT_EQ(error_of("topic_prefix = \"a/#\"\n" + kTag).substr(0, 22), "line 1: topic_prefix \"");
    EXPECT_EQ(error_of(kHead + kTag + "perod_ms = 100\n"), "line 6: tag[0].perod_ms is not a known setting");
    EXPECT_EQ(error_of(kHead + kTag + "type = \"double\"\n"), "line 6: tag[0].type must be one of bit, word, dword, float");
    EXPECT_EQ(error_of(kHead + kTag + "period_ms = 10\n"), "line 6: tag[0].period_ms = 10 is out of range 50..30000");
    EXPECT_EQ(error_of(kHead + kTag + "count = 2041\n"),
              "line 6: tag[0].count = 2041 needs 4082 data bytes, one read carries at most 4081");
    EXPECT_EQ(error_of(kHead + "[[tag]]\nname = \"t\"\nkind = 245\nstart = 0\n"),
              "line 4: tag[0].kind = 245 names no register area (241..248)");
    EXPECT_EQ(error_of(kHead + kTag + kTag), "line 7: tag[1].name \"t\" is used by tag[0] already");
    EXPECT_NE(error_of(kHead + "[[tag]]\nname = \"a/b\"\nkind = 3\nstart = 0\n").find("one topic level"), std::string::npos);
    EXPECT_EQ(error_of(kHead + "[broker]\npassword = \"x\"\n" + kTag), "line 3: broker.password needs broker.username");
    EXPECT_EQ(error_of(kHead + "[broker]\nca_file = \"/no/such/ca.pem\"\n" + kTag),
              "line 3: broker.ca_file: cannot read /no/such/ca.pem");
}

Tag tag(TagType type, int16_t count)
{
    Tag t;
    // Move-assigned: GCC 12's -Wrestrict misfires on assigning a literal here
    // in optimised builds.
    t.name = std::string("t");
    t.type = type;
    t.count = count;
    return t;
}

// Every type and quality is published end to end; this is the exact text of
// floats: 0.1f shows as 0.1, not as the double nearest to it.
TEST(BridgeCodec, FloatValuesShowTheirShortestText)
{
    EXPECT_EQ(value_payload(tag(TagType::float32, 2), Quality::good, Bytes{0xcd, 0xcc, 0xcc, 0x3d, 0, 0, 0xc0, 0xbf}, 0),
              R"({"value":[0.1,-1.5],"quality":"good","ts":0})");
}

TEST(BridgeCodec, WritePayloadsBecomeRegisterBytesOrAReason)
{
    // Register bytes, or the reason the payload is refused.
    auto write = [](TagType type, int16_t count, const char* payload) {
        return encode_write(tag(type, count), payload);
    };
    EXPECT_EQ(write(TagType::word, 1, "-1"), Encoded(Bytes{0xff, 0xff}));
    EXPECT_EQ(write(TagType::word, 1, R"({"value": 12.0})"), Encoded(Bytes{12, 0}));
    EXPECT_EQ(write(TagType::dword, 1, "4294967295"), Encoded(Bytes{0xff, 0xff, 0xff, 0xff}));
    EXPECT_EQ(write(TagType::bit, 3, "[1, true, 0]"), Encoded(Bytes{0b011}));
    EXPECT_EQ(write(TagType::float32, 1, "1.5"), Encoded(Bytes{0, 0, 0xc0, 0x3f}));

    EXPECT_EQ(write(TagType::word, 1, "65536"), Encoded("expected an integer in -32768..65535"));
    EXPECT_EQ(write(TagType::word, 1, "12.5"), Encoded("expected an integer in -32768..65535"));
    EXPECT_EQ(write(TagType::dword, 1, "-2147483649"), Encoded("expected an integer in -2147483648..4294967295"));
    EXPECT_EQ(write(TagType::bit, 1, "2"), Encoded("expected true, false, 0 or 1"));
    EXPECT_EQ(write(TagType::float32, 1, "\"1.5\""), Encoded("expected a number"));
    EXPECT_EQ(write(TagType::float32, 1, "1e39"), Encoded("number out of float range"));
    EXPECT_EQ(write(TagType::word, 2, "[1]"), Encoded("expected an array of 2 values"));
    EXPECT_EQ(write(TagType::word, 1, "[1, 2]"), Encoded("expected a single value"));
    EXPECT_EQ(write(TagType::word, 2, "[1, true]"), Encoded("value [1]: expected an integer in -32768..65535"));
    EXPECT_EQ(write(TagType::word, 1, ""), Encoded("payload is not JSON"));

    EXPECT_EQ(set_topic_tag("a/b", "a/b/t/set"), "t");
    EXPECT_FALSE(set_topic_tag("a/b", "a/b/t/set/result"));
    EXPECT_FALSE(set_topic_tag("a/b", "a/b/x/t/set"));
    EXPECT_FALSE(set_topic_tag("a/b", "a/bc/set"));
}

} // namespace
