// Parsing comhost's configuration into port records and the segment layout.
// Record bytes and refusal messages are written out by hand, never rebuilt.
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "host/config.h"
#include "host/segment.h"

namespace {

HostConfig parse(const std::string& text) { return host_config_parse(text, "/cfg/dir"); }

// The message a configuration is refused with, or "no error".
std::string error_of(const std::string& text)
{
    try {
        parse(text);
    } catch (const HostConfigError& e) {
        return e.what();
    }
    return "no error";
}

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
        {"tcp_port = 1\n[[port]]\ndeviceport = 256", "port[0].deviceport = 256 is out of range 0..255"},
        {"tcp_port = 1\n[[port]]\n[[port]]\nslave_arg = 40000", "line 4: port[1].slave_arg = 40000"},
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
        EXPECT_NE(error_of(text).find(message), std::string::npos) << text << "\n  gave: " << error_of(text);
    // Ports that share a line may share a plug-in, and "none" never clashes.
    EXPECT_NO_THROW(parse("tcp_port = 1\n[[port]]\ndeviceport = 2\n[[port]]\ndeviceport = 2\n"
                          "[[port]]\ndeviceport = 2\nplugin = \"none\""));
    EXPECT_EQ(parse(ports(255)).ports.size(), 255u);
}

TEST(HostConfig, ModbusKeysFillTheRecordOrNameTheBadValue)
{
    const HostConfig tcp = host_config_load(SOURCE_DIR "/examples/modbus-tcp.toml");
    const com_port_info& t = tcp.ports.at(0).record;
    EXPECT_EQ(tcp.ports[0].plugin, HostPlugin::modbus);
    EXPECT_EQ(std::tuple(t.working_mode, t.plc_driver_no, t.drv_param1, t.drv_param2, t.drv_param3, t.slave_flag,
                         t.slave_arg),
              std::tuple(85, 50, 0x0a00a8c0u, 502u, 500u, 1, 1502));
    const com_port_info s = parse("tcp_port = 1\n[[port]]\nplugin = \"modbus\"\nbaud = 19200\nparity = \"E\"\n"
                                  "data_bits = 7\nstop_bits = 2\nmodbus_server_port = 40000\n").ports.at(0).record;
    EXPECT_EQ(std::tuple(s.working_mode, s.line_value, s.line_param_lo, s.line_param_hi, s.line_option, s.slave_arg),
              std::tuple(1, 19200u, 'E', 7, 2, -25536));

    const std::pair<std::string, const char*> cases[] = {
        {"modbus_host = \"300.1.2.3\"", "port[0].modbus_host must be an IPv4 address"},
        {"modbus_port = 502\ndrv_param2 = 502", "modbus_port and port[0].drv_param2 fill the same record bytes"},
        {"working_mode = 1\nmodbus_host = \"10.0.0.1\"", "modbus_host needs a Modbus TCP port"},
        {"modbus_host = \"10.0.0.1\"\nbaud = 9600", "baud needs a serial port"},
        {"baud = 1234", "baud = 1234 is not one of 300, 600"},
        {"parity = \"X\"", "parity must be \"N\", \"E\" or \"O\""},
        {"data_bits = 9", "data_bits = 9 is out of range 5..8"},
    };
    for (const auto& [keys, message] : cases) {
        const std::string error = error_of("tcp_port = 1\n[[port]]\nplugin = \"modbus\"\n" + keys);
        EXPECT_NE(error.find(message), std::string::npos) << keys << "\n  gave: " << error;
    }
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
