#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "host/config.h"
#include "host/segment.h"

namespace {

const std::filesystem::path base = "/cfg/dir";

HostConfig parse(const std::string& text) { return host_config_parse(text, base); }

std::string parse_error(const std::string& text)
{
    try {
        parse(text);
    } catch (const HostConfigError& e) {
        return e.what();
    }
    return "no error";
}

std::string lines(std::initializer_list<std::string> items)
{
    std::string text;
    for (const std::string& item : items)
        text += item + "\n";
    return text;
}

std::string ports(int n, std::string text = "tcp_port = 1\n")
{
    for (int i = 0; i < n; ++i)
        text += "[[port]]\n";
    return text;
}

} // namespace

TEST(HostConfig, MapsEveryFieldIntoTheRecordAndFillsDefaults)
{
    HostConfig cfg = parse(lines({"mode = 0", "tcp_port = 5020", "plugin_dir = \"../run\"",
                                  "server = \"/opt/comserver\"", "sim_plugin = \"lib/sim.so\"",
                                  "local_word_count = 100", "local_bit_count = 40", "initial_bits = [3, 39]",
                                  "[[port]]", "deviceport = 6", "working_mode = 85", "line_param_lo = 0x11",
                                  "line_param_hi = 0x22", "line_value = 0x33445566", "line_option = 0x77",
                                  "slave_flag = 1", "plc_driver_no = 1002", "drv_param1 = 0xA1A2A3A4",
                                  "drv_param2 = 2", "drv_param3 = 3", "slave_arg = -2", "max_words = 300",
                                  "max_bits = 400", "word_gap = 200", "bit_gap = 255",
                                  "plugin = \"drivers/x.so\"", "[[port]]", "plugin = \"none\""}));
    EXPECT_EQ(std::tuple(cfg.mode, cfg.tcp_port, cfg.plugin_dir, cfg.server, cfg.sim_plugin),
              std::tuple(0, 5020, "/cfg/run", "/opt/comserver", "/cfg/dir/lib/sim.so"));
    EXPECT_EQ(std::pair(cfg.local_word_count, cfg.local_bit_count), std::pair(100u, 40u));
    EXPECT_EQ(cfg.initial_bits, (std::vector<uint32_t>{3, 39}));
    ASSERT_EQ(cfg.ports.size(), 2u);

    const uint8_t expected[32] = {6, 85, 0x11, 0x22, 0x66, 0x55, 0x44, 0x33, 0x77, 1, 0xEA, 0x03,
                                  0xA4, 0xA3, 0xA2, 0xA1, 2, 0, 0, 0, 3, 0, 0, 0,
                                  0xFE, 0xFF, 0x2C, 0x01, 0x90, 0x01, 200, 255};
    EXPECT_EQ(std::memcmp(&cfg.ports[0].record, expected, 32), 0);
    EXPECT_EQ(cfg.ports[0].plugin, HostPlugin::file);
    EXPECT_EQ(cfg.ports[0].plugin_file, "/cfg/dir/drivers/x.so");

    // Defaults: deviceport is the port's index.
    const com_port_info& d = cfg.ports[1].record;
    EXPECT_EQ(std::vector<int>({d.deviceport, d.working_mode, d.plc_driver_no, d.max_words, d.max_bits,
                                d.word_gap, d.bit_gap, int(d.drv_param1)}),
              std::vector<int>({1, 1, 5, 64, 256, 4, 16, 0}));
    EXPECT_EQ(cfg.ports[1].plugin, HostPlugin::none);

    HostConfig minimal = parse("tcp_port = 1");
    EXPECT_EQ(minimal.mode, 1);
    EXPECT_EQ(minimal.plugin_dir, base);
    EXPECT_TRUE(minimal.server.empty());
    EXPECT_EQ(std::pair(minimal.local_word_count, minimal.local_bit_count), std::pair(16384u, 16384u));
}

TEST(HostConfig, RejectsBadConfigurationsWithAMessageNamingTheField)
{
    const std::pair<std::string, const char*> cases[] = {
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
        {ports(256), "256 ports configured, at most 255"},
    };
    for (const auto& [text, message] : cases)
        EXPECT_NE(parse_error(text).find(message), std::string::npos) << text << "\n  gave: " << parse_error(text);

    // Ports that share a line may share a plug-in, and "none" never clashes.
    EXPECT_NO_THROW(parse("tcp_port = 1\n[[port]]\ndeviceport = 2\n[[port]]\ndeviceport = 2\n"
                          "[[port]]\ndeviceport = 2\nplugin = \"none\""));
    EXPECT_EQ(parse(ports(255)).ports.size(), 255u);
}

TEST(HostSegment, LaysOutHeaderRecordsAndLocalAreas)
{
    HostConfig cfg = parse(ports(2, "tcp_port = 40000\nlocal_word_count = 3\nlocal_bit_count = 33\n"
                                    "initial_bits = [0, 9, 32]\n") + "drv_param1 = 9");
    SegmentLayout l = segment_layout(cfg);
    // Bit area rounded up to a 32-bit word; two such words hold 33 bits.
    EXPECT_EQ(std::vector<size_t>({l.word_offset, l.word_bytes, l.bit_offset, l.bit_bytes, l.size}),
              std::vector<size_t>({4096, 6, 4104, 8, 4112}));

    std::vector<uint8_t> seg(l.size, 0xAA);
    segment_fill(seg.data(), l, cfg);
    shm_head head;
    std::memcpy(&head, seg.data(), sizeof head);
    EXPECT_EQ(std::tuple(head.local_short_offset, head.local_bit_offset, head.PORT, head.port_num, head.server_pid),
              std::tuple(4096u, 4104u, 40000, 2, 0u));
    EXPECT_EQ(std::memcmp(seg.data() + 0x30 + 32, &cfg.ports[1].record, 32), 0);
    EXPECT_EQ(seg[0x30 + 32 + 12], 9);
    EXPECT_EQ(seg[4096], 0);  // word area zeroed
    const uint8_t bits[8] = {0x01, 0x02, 0, 0, 0x01, 0, 0, 0};
    EXPECT_EQ(std::memcmp(seg.data() + l.bit_offset, bits, 8), 0);

    // 127 records end past the first page, so the word area moves to the next one.
    SegmentLayout lb = segment_layout(parse(ports(127)));
    EXPECT_EQ(lb.word_offset, 8192u);
    EXPECT_EQ(lb.bit_offset, 8192u + 32768u);
    EXPECT_EQ(lb.size, lb.bit_offset + 2048u);
}
