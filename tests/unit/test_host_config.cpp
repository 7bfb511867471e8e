#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/config.h"
#include "host/segment.h"

namespace {

const std::filesystem::path base = "/cfg/dir";

HostConfig parse(const std::string& text)
{
    return host_config_parse(text, base);
}

std::string parse_error(const std::string& text)
{
    try {
        parse(text);
    } catch (const HostConfigError& e) {
        return e.what();
    }
    return "no error";
}

} // namespace

TEST(HostConfig, MapsEveryFieldIntoTheRecordAndFillsDefaults)
{
    HostConfig cfg = parse(R"(
        mode = 0
        tcp_port = 5020
        plugin_dir = "../run"
        server = "/opt/comserver"
        sim_plugin = "lib/sim.so"
        local_word_count = 100
        local_bit_count = 40
        initial_bits = [3, 39]
        [[port]]
        deviceport = 6
        working_mode = 85
        line_param_lo = 0x11
        line_param_hi = 0x22
        line_value = 0x33445566
        line_option = 0x77
        slave_flag = 1
        plc_driver_no = 1002
        drv_param1 = 0xA1A2A3A4
        drv_param2 = 2
        drv_param3 = 3
        slave_arg = -2
        max_words = 300
        max_bits = 400
        word_gap = 200
        bit_gap = 255
        plugin = "drivers/x.so"
        [[port]]
        plugin = "none"
    )");
    EXPECT_EQ(cfg.mode, 0);
    EXPECT_EQ(cfg.tcp_port, 5020);
    EXPECT_EQ(cfg.plugin_dir, "/cfg/run");
    EXPECT_EQ(cfg.server, "/opt/comserver");
    EXPECT_EQ(cfg.sim_plugin, "/cfg/dir/lib/sim.so");
    EXPECT_EQ(cfg.local_word_count, 100u);
    EXPECT_EQ(cfg.local_bit_count, 40u);
    EXPECT_EQ(cfg.initial_bits, (std::vector<uint32_t>{3, 39}));
    ASSERT_EQ(cfg.ports.size(), 2u);

    const uint8_t expected[32] = {6, 85, 0x11, 0x22, 0x66, 0x55, 0x44, 0x33, 0x77, 1, 0xEA, 0x03,
                                  0xA4, 0xA3, 0xA2, 0xA1, 2, 0, 0, 0, 3, 0, 0, 0,
                                  0xFE, 0xFF, 0x2C, 0x01, 0x90, 0x01, 200, 255};
    EXPECT_EQ(std::memcmp(&cfg.ports[0].record, expected, 32), 0);
    EXPECT_EQ(cfg.ports[0].plugin, HostPlugin::file);
    EXPECT_EQ(cfg.ports[0].plugin_file, "/cfg/dir/drivers/x.so");

    const com_port_info& d = cfg.ports[1].record;
    EXPECT_EQ(d.deviceport, 1);     // its index
    EXPECT_EQ(d.working_mode, 1);
    EXPECT_EQ(d.plc_driver_no, 5);
    EXPECT_EQ(d.max_words, 64);
    EXPECT_EQ(d.max_bits, 256);
    EXPECT_EQ(d.word_gap, 4);
    EXPECT_EQ(d.bit_gap, 16);
    EXPECT_EQ(d.drv_param1, 0u);
    EXPECT_EQ(cfg.ports[1].plugin, HostPlugin::none);

    HostConfig minimal = parse("tcp_port = 1");
    EXPECT_EQ(minimal.mode, 1);
    EXPECT_EQ(minimal.plugin_dir, base);
    EXPECT_TRUE(minimal.server.empty());
    EXPECT_EQ(minimal.local_word_count, 16384u);
    EXPECT_EQ(minimal.local_bit_count, 16384u);
    EXPECT_TRUE(minimal.ports.empty());
}

TEST(HostConfig, RejectsBadConfigurationsWithAMessageNamingTheField)
{
    struct Case {
        const char* text;
        const char* message;
    };
    const Case cases[] = {
        {"mode = 1", "tcp_port is missing"},
        {"tcp_port = \"5020\"", "tcp_port must be an integer"},
        {"tcp_port = 0", "tcp_port = 0 is out of range"},
        {"tcp_port = 1\nlocal_word_count = 0", "local_word_count = 0 is out of range"},
        {"tcp_port = 1\nplugin_dir = 3", "plugin_dir must be a string"},
        {"tcp_port = 1\n[[port]]\ndeviceport = 256", "port[0].deviceport = 256 is out of range 0..255"},
        {"tcp_port = 1\n[[port]]\n[[port]]\nslave_arg = 40000", "line 4: port[1].slave_arg = 40000"},
        {"tcp_port = 1\n[[port]]\nline_value = -1", "port[0].line_value = -1 is out of range"},
        {"tcp_port = 1\n[[port]]\nmax_words = 1.5", "port[0].max_words must be an integer"},
        {"tcp_port = 1\n[[port]]\nplugin = \"\"", "plugin must be"},
        {"tcp_port = 1\nport = [1]", "port[0] must be a table"},
        {"tcp_port = 1\nlocal_bit_count = 10\ninitial_bits = [10]", "initial bit 10 is outside"},
        {"tcp_port = 1\ninitial_bits = [\"a\"]", "initial_bits must be an array of integers"},
        {"tcp_port = 1\n[[port]]\ndeviceport = 2\n[[port]]\ndeviceport = 2\nplugin = \"/x.so\"",
         "same deviceport but different plugins"},
        {"tcp_port = = 1", "line 1:"},
    };
    for (const Case& c : cases)
        EXPECT_NE(parse_error(c.text).find(c.message), std::string::npos)
            << c.text << "\n  gave: " << parse_error(c.text);

    // Ports that share a line may share a plug-in, and "none" never clashes.
    EXPECT_NO_THROW(parse("tcp_port = 1\n[[port]]\ndeviceport = 2\n[[port]]\ndeviceport = 2\n"
                          "[[port]]\ndeviceport = 2\nplugin = \"none\""));

    std::string many = "tcp_port = 1\n";
    for (int i = 0; i < 255; ++i)
        many += "[[port]]\n";
    EXPECT_EQ(parse(many).ports.size(), 255u);
    EXPECT_NE(parse_error(many + "[[port]]\n").find("256 ports configured, at most 255"), std::string::npos);
}

TEST(HostSegment, LaysOutHeaderRecordsAndLocalAreas)
{
    HostConfig cfg = parse("tcp_port = 40000\nlocal_word_count = 3\nlocal_bit_count = 33\n"
                           "initial_bits = [0, 9, 32]\n[[port]]\n[[port]]\ndrv_param1 = 9");
    SegmentLayout l = segment_layout(cfg);
    EXPECT_EQ(l.word_offset, 4096u);
    EXPECT_EQ(l.word_bytes, 6u);
    EXPECT_EQ(l.bit_offset, 4104u);   // rounded up to a 32-bit word
    EXPECT_EQ(l.bit_bytes, 8u);       // two 32-bit words for 33 bits
    EXPECT_EQ(l.size, 4112u);

    std::vector<uint8_t> seg(l.size, 0xAA);
    segment_fill(seg.data(), l, cfg);
    shm_head head;
    std::memcpy(&head, seg.data(), sizeof head);
    EXPECT_EQ(head.local_short_offset, 4096u);
    EXPECT_EQ(head.local_bit_offset, 4104u);
    EXPECT_EQ(head.PORT, 40000);
    EXPECT_EQ(head.port_num, 2);
    EXPECT_EQ(head.server_pid, 0u);
    EXPECT_EQ(std::memcmp(seg.data() + 0x30 + 32, &cfg.ports[1].record, 32), 0);
    EXPECT_EQ(seg[0x30 + 32 + 12], 9);
    EXPECT_EQ(seg[4096], 0);    // word area zeroed
    const uint8_t bits[8] = {0x01, 0x02, 0, 0, 0x01, 0, 0, 0};
    EXPECT_EQ(std::memcmp(seg.data() + l.bit_offset, bits, 8), 0);

    // 127 records end past the first page, so the word area moves to the next one.
    std::string big = "tcp_port = 1\n";
    for (int i = 0; i < 127; ++i)
        big += "[[port]]\n";
    SegmentLayout lb = segment_layout(parse(big));
    EXPECT_EQ(lb.word_offset, 8192u);
    EXPECT_EQ(lb.bit_offset, 8192u + 32768u);
    EXPECT_EQ(lb.size, lb.bit_offset + 2048u);
}
