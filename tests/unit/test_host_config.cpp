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

std::string ports(int n, std::string text = "tcp_port = 1\n")
{
    for (int i = 0; i < n; ++i)
        text += "[[port]]\n";
    return text;
}

} // namespace

TEST(HostConfig, MapsEveryFieldIntoTheRecordAndResolvesPaths)
{
    HostConfig cfg = parse("tcp_port = 5020\nplugin_dir = \"../run\"\nsim_plugin = \"lib/sim.so\"\n[[port]]\n"
                           "deviceport = 6\nworking_mode = 85\nline_param_lo = 0x11\nline_param_hi = 0x22\n"
                           "line_value = 0x33445566\nline_option = 0x77\nslave_flag = 1\nplc_driver_no = 1002\n"
                           "drv_param1 = 0xA1A2A3A4\ndrv_param2 = 2\ndrv_param3 = 3\nslave_arg = -2\n"
                           "max_words = 300\nmax_bits = 400\nword_gap = 200\nbit_gap = 255\nplugin = \"drivers/x.so\"\n");
    EXPECT_EQ(std::tuple(cfg.plugin_dir, cfg.sim_plugin, cfg.ports.at(0).plugin_file),
              std::tuple("/cfg/run", "/cfg/dir/lib/sim.so", "/cfg/dir/drivers/x.so"));
    const uint8_t expected[32] = {6, 85, 0x11, 0x22, 0x66, 0x55, 0x44, 0x33, 0x77, 1, 0xEA, 0x03,
                                  0xA4, 0xA3, 0xA2, 0xA1, 2, 0, 0, 0, 3, 0, 0, 0,
                                  0xFE, 0xFF, 0x2C, 0x01, 0x90, 0x01, 200, 255};
    EXPECT_EQ(std::memcmp(&cfg.ports[0].record, expected, 32), 0);
}

TEST(HostConfig, RejectsBadConfigurationsWithAMessageNamingTheField)
{
    const std::pair<std::string, const char*> cases[] = {
        {"mode = 1", "tcp_port is missing"},
        {"tcp_port = \"5020\"", "tcp_port must be an integer"},
        {"tcp_port = 0", "tcp_port = 0 is out of range"},
        {"tcp_port = 1\nplugin_dir = 3", "plugin_dir must be a string"},
        {"tcp_port = 1\n[[port]]\ndeviceport = 256", "port[0].deviceport = 256 is out of range 0..255"},
        {"tcp_port = 1\n[[port]]\n[[port]]\nslave_arg = 40000", "line 4: port[1].slave_arg = 40000"},
        {"tcp_port = 1\n[[port]]\nline_value = -1", "port[0].line_value = -1 is out of range"},
        {"tcp_port = 1\n[[port]]\nplugin = \"\"", "plugin must be"},
        {"tcp_port = 1\nport = [1]", "port[0] must be a table"},
        {"tcp_port = 1\nlocal_bit_count = 10\ninitial_bits = [10]", "initial bit 10 is outside"},
        {"tcp_port = 1\ninitial_bits = [\"a\"]", "initial_bits must be an array of integers"},
        {"tcp_port = 1\n[[port]]\ndeviceport = 2\n[[port]]\ndeviceport = 2\nplugin = \"/x.so\"",
         "same deviceport but different plugins"},
        {"tcp_port = = 1", "line 1:"},
        {ports(256), "256 ports configured, at most 255"},
    };
    for (const auto& [text, message] : cases) {
        std::string error = "no error";
        try {
            parse(text);
        } catch (const HostConfigError& e) {
            error = e.what();
        }
        EXPECT_NE(error.find(message), std::string::npos) << text << "\n  gave: " << error;
    }
    // Ports that share a line may share a plug-in, and "none" never clashes.
    EXPECT_NO_THROW(parse("tcp_port = 1\n[[port]]\ndeviceport = 2\n[[port]]\ndeviceport = 2\n"
                          "[[port]]\ndeviceport = 2\nplugin = \"none\""));
    EXPECT_EQ(parse(ports(255)).ports.size(), 255u);
}

TEST(HostSegment, LocalAreasStartOnAPageAfterTheRecords)
{
    // The bit area is rounded up to a 32-bit word: two such words hold 33 bits.
    SegmentLayout l = segment_layout(parse(ports(2, "tcp_port = 1\nlocal_word_count = 3\nlocal_bit_count = 33\n")));
    EXPECT_EQ(std::vector<size_t>({l.word_offset, l.word_bytes, l.bit_offset, l.bit_bytes, l.size}),
              std::vector<size_t>({4096, 6, 4104, 8, 4112}));
    // 127 records end past the first page, so the word area moves to the next one.
    SegmentLayout lb = segment_layout(parse(ports(127)));
    EXPECT_EQ(std::vector<size_t>({lb.word_offset, lb.bit_offset, lb.size}),
              std::vector<size_t>({8192, 8192 + 32768, 8192 + 32768 + 2048}));
}
