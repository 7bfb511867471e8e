// Parsing of comhost's TOML file into HostConfig. Every key is checked here,
// with its place in the file in the message, so later code trusts HostConfig.
#include "host/config.h"

#include <cstring>
#include <fstream>
#include <limits>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>

#include <arpa/inet.h>
#include <toml++/toml.h>

#include "driver/driver_traits.h"

namespace fs = std::filesystem;

namespace {

[[noreturn]] void fail(const toml::node* node, const std::string& msg)
{
    if (node && node->source().begin.line)
        throw HostConfigError("line " + std::to_string(node->source().begin.line) + ": " + msg);
    throw HostConfigError(msg);
}

std::optional<int64_t> get_int(const toml::table& t, std::string_view key, const std::string& where,
                               int64_t lo, int64_t hi)
{
    const toml::node* node = t.get(key);
    if (!node)
        return std::nullopt;
    std::string name = where + std::string(key);
    const auto* v = node->as_integer();
    if (!v)
        fail(node, name + " must be an integer");
    int64_t x = v->get();
    if (x < lo || x > hi)
        fail(node, name + " = " + std::to_string(x) + " is out of range " + std::to_string(lo) + ".."
                       + std::to_string(hi));
    return x;
}

template <class T>
void set_int(const toml::table& t, std::string_view key, const std::string& where, T& out)
{
    using L = std::numeric_limits<T>;
    if (auto v = get_int(t, key, where, L::min(), L::max()))
        out = static_cast<T>(*v);
}

std::optional<std::string> get_string(const toml::table& t, std::string_view key, const std::string& where)
{
    const toml::node* node = t.get(key);
    if (!node)
        return std::nullopt;
    const auto* v = node->as_string();
    if (!v)
        fail(node, where + std::string(key) + " must be a string");
    return v->get();
}

constexpr int64_t MODBUS_TIMEOUT_MAX_MS = 600000;
constexpr int64_t SERIAL_BAUDS[] = {300, 600, 1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200, 230400, 460800, 921600};

fs::path resolve(const fs::path& base, const std::string& p)
{
    return fs::path(p).is_absolute() ? fs::path(p) : (base / p).lexically_normal();
}

enum class Line { tcp, serial, any };

// A friendly Modbus key, when given: it must not come with the raw key that
// fills the same record bytes, and it must suit the port's kind of line.
const toml::node* modbus_key(const toml::table& t, std::string_view key, std::string_view raw, Line line,
                             bool tcp, const std::string& where)
{
    const toml::node* node = t.get(key);
    if (!node)
        return nullptr;
    const std::string name = where + std::string(key);
    if (t.contains(raw))
        fail(node, name + " and " + where + std::string(raw) + " fill the same record bytes: give one of them");
    if (line == Line::tcp && !tcp)
        fail(node, name + " needs a Modbus TCP port (working_mode 85)");
    if (line == Line::serial && tcp)
        fail(node, name + " needs a serial port (working_mode other than 85)");
    return node;
}

// The record keeps the address with its first octet in byte 12.
uint32_t ipv4_param(const toml::node* node, const std::string& name)
{
    const auto* v = node->as_string();
    in_addr a{};
    if (!v || inet_pton(AF_INET, v->get().c_str(), &a) != 1)
        fail(node, name + " must be an IPv4 address such as \"192.168.0.10\"");
    uint8_t b[4];
    std::memcpy(b, &a, 4);
    return uint32_t{b[0]} | uint32_t{b[1]} << 8 | uint32_t{b[2]} << 16 | uint32_t{b[3]} << 24;
}

uint8_t parity_param(const toml::node* node, const std::string& name)
{
    const auto* v = node->as_string();
    if (!v || (v->get() != "N" && v->get() != "E" && v->get() != "O"))
        fail(node, name + " must be \"N\", \"E\" or \"O\"");
    return static_cast<uint8_t>(v->get()[0]);
}

uint32_t baud_param(const toml::table& t, const std::string& where)
{
    const int64_t baud = *get_int(t, "baud", where, 1, std::numeric_limits<uint32_t>::max());
    std::string rates;
    for (int64_t r : SERIAL_BAUDS) {
        if (r == baud)
            return static_cast<uint32_t>(baud);
        rates += (rates.empty() ? "" : ", ") + std::to_string(r);
    }
    fail(t.get("baud"), where + "baud = " + std::to_string(baud) + " is not one of " + rates);
}

// Friendly keys of a Modbus port, filling the record bytes the Modbus
// plug-in reads. plugin = "modbus" makes the driver number 50 and a TCP
// key makes the port a 'U'-mode port, unless the raw keys say otherwise.
void parse_modbus_keys(const toml::table& t, const std::string& where, HostPort& port)
{
    com_port_info& r = port.record;
    if (port.plugin == HostPlugin::modbus && !t.contains("plc_driver_no"))
        r.plc_driver_no = MODBUS_DRIVER_NO;
    if ((t.contains("modbus_host") || t.contains("modbus_port")) && !t.contains("working_mode"))
        r.working_mode = WORKING_MODE_U;
    const bool tcp = r.working_mode == WORKING_MODE_U;
    if (const auto* n = modbus_key(t, "modbus_host", "drv_param1", Line::tcp, tcp, where))
        r.drv_param1 = ipv4_param(n, where + "modbus_host");
    if (modbus_key(t, "modbus_port", "drv_param2", Line::tcp, tcp, where))
        r.drv_param2 = static_cast<uint32_t>(*get_int(t, "modbus_port", where, 1, 65535));
    if (modbus_key(t, "timeout_ms", "drv_param3", Line::any, tcp, where))
        r.drv_param3 = static_cast<uint32_t>(*get_int(t, "timeout_ms", where, 1, MODBUS_TIMEOUT_MAX_MS));
    if (modbus_key(t, "baud", "line_value", Line::serial, tcp, where))
        r.line_value = baud_param(t, where);
    if (const auto* n = modbus_key(t, "parity", "line_param_lo", Line::serial, tcp, where))
        r.line_param_lo = parity_param(n, where + "parity");
    if (modbus_key(t, "data_bits", "line_param_hi", Line::serial, tcp, where))
        r.line_param_hi = static_cast<uint8_t>(*get_int(t, "data_bits", where, 5, 8));
    if (modbus_key(t, "stop_bits", "line_option", Line::serial, tcp, where))
        r.line_option = static_cast<uint8_t>(*get_int(t, "stop_bits", where, 1, 2));
    if (modbus_key(t, "modbus_server_port", "slave_arg", Line::any, tcp, where)) {
        // Record bytes 24..25 hold the port as a signed 16-bit field.
        r.slave_arg = static_cast<int16_t>(*get_int(t, "modbus_server_port", where, 1, 65535));
        r.slave_flag = 1;
    }
}

HostPort parse_port(const toml::table& t, size_t index, const fs::path& base)
{
    std::string where = "port[" + std::to_string(index) + "].";
    HostPort port;
    com_port_info& r = port.record;
    r.deviceport = static_cast<uint8_t>(index);
    r.working_mode = 1;
    r.plc_driver_no = 5;
    r.max_words = 64;
    r.max_bits = 256;
    r.word_gap = 4;
    r.bit_gap = 16;
    set_int(t, "deviceport", where, r.deviceport);
    set_int(t, "working_mode", where, r.working_mode);
    set_int(t, "line_param_lo", where, r.line_param_lo);
    set_int(t, "line_param_hi", where, r.line_param_hi);
    set_int(t, "line_value", where, r.line_value);
    set_int(t, "line_option", where, r.line_option);
    set_int(t, "slave_flag", where, r.slave_flag);
    set_int(t, "plc_driver_no", where, r.plc_driver_no);
    set_int(t, "drv_param1", where, r.drv_param1);
    set_int(t, "drv_param2", where, r.drv_param2);
    set_int(t, "drv_param3", where, r.drv_param3);
    set_int(t, "slave_arg", where, r.slave_arg);
    set_int(t, "max_words", where, r.max_words);
    set_int(t, "max_bits", where, r.max_bits);
    set_int(t, "word_gap", where, r.word_gap);
    set_int(t, "bit_gap", where, r.bit_gap);
    if (auto p = get_string(t, "plugin", where)) {
        if (*p == "sim") {
            port.plugin = HostPlugin::sim;
        } else if (*p == "modbus") {
            port.plugin = HostPlugin::modbus;
        } else if (*p == "none") {
            port.plugin = HostPlugin::none;
        } else if (p->empty()) {
            fail(t.get("plugin"), where + "plugin must be \"sim\", \"modbus\", \"none\" or a file path");
        } else {
            port.plugin = HostPlugin::file;
            port.plugin_file = resolve(base, *p);
        }
    }
    parse_modbus_keys(t, where, port);
    return port;
}

bool same_plugin(const HostPort& a, const HostPort& b)
{
    return a.plugin == b.plugin && a.plugin_file == b.plugin_file;
}

void parse_ports(const toml::table& root, const fs::path& base, HostConfig& cfg)
{
    const toml::node* node = root.get("port");
    if (!node)
        return;
    const toml::array* ports = node->as_array();
    if (!ports)
        fail(node, "port must be an array of tables ([[port]])");
    if (ports->size() > HOST_MAX_PORTS)
        fail(node, std::to_string(ports->size()) + " ports configured, at most "
                       + std::to_string(HOST_MAX_PORTS) + " are allowed");
    for (size_t i = 0; i < ports->size(); ++i) {
        const toml::table* t = (*ports)[i].as_table();
        if (!t)
            fail(&(*ports)[i], "port[" + std::to_string(i) + "] must be a table");
        cfg.ports.push_back(parse_port(*t, i, base));
    }
    // Ports on the same line share one plug-in file name in the plug-in directory.
    for (size_t i = 0; i < cfg.ports.size(); ++i)
        for (size_t j = 0; j < i; ++j)
            if (cfg.ports[i].record.deviceport == cfg.ports[j].record.deviceport
                && cfg.ports[i].plugin != HostPlugin::none && cfg.ports[j].plugin != HostPlugin::none
                && !same_plugin(cfg.ports[i], cfg.ports[j]))
                fail(&(*ports)[i], "port[" + std::to_string(i) + "] and port[" + std::to_string(j)
                                       + "] have the same deviceport but different plugins");
}

void parse_initial_bits(const toml::table& root, HostConfig& cfg)
{
    const toml::node* node = root.get("initial_bits");
    if (!node)
        return;
    const toml::array* bits = node->as_array();
    if (!bits)
        fail(node, "initial_bits must be an array of integers");
    for (const toml::node& b : *bits) {
        const auto* v = b.as_integer();
        if (!v)
            fail(&b, "initial_bits must be an array of integers");
        if (v->get() < 0 || v->get() >= int64_t{cfg.local_bit_count})
            fail(&b, "initial bit " + std::to_string(v->get()) + " is outside the local bit area (0.."
                         + std::to_string(cfg.local_bit_count - 1) + ")");
        cfg.initial_bits.push_back(static_cast<uint32_t>(v->get()));
    }
}

} // namespace

HostConfig host_config_parse(std::string_view text, const fs::path& base_dir)
{
    toml::table root;
    try {
        root = toml::parse(text);
    } catch (const toml::parse_error& e) {
        throw HostConfigError("line " + std::to_string(e.source().begin.line) + ": "
                              + std::string(e.description()));
    }
    HostConfig cfg;
    cfg.plugin_dir = base_dir;
    set_int(root, "mode", "", cfg.mode);
    auto port = get_int(root, "tcp_port", "", 1, 65535);
    if (!port)
        throw HostConfigError("tcp_port is missing");
    cfg.tcp_port = static_cast<uint16_t>(*port);
    if (auto v = get_int(root, "local_word_count", "", 1, HOST_MAX_LOCAL_COUNT))
        cfg.local_word_count = static_cast<uint32_t>(*v);
    if (auto v = get_int(root, "local_bit_count", "", 1, HOST_MAX_LOCAL_COUNT))
        cfg.local_bit_count = static_cast<uint32_t>(*v);
    if (auto v = get_string(root, "plugin_dir", ""))
        cfg.plugin_dir = resolve(base_dir, *v);
    if (auto v = get_string(root, "server", ""))
        cfg.server = resolve(base_dir, *v);
    if (auto v = get_string(root, "sim_plugin", ""))
        cfg.sim_plugin = resolve(base_dir, *v);
    if (auto v = get_string(root, "modbus_plugin", ""))
        cfg.modbus_plugin = resolve(base_dir, *v);
    parse_ports(root, base_dir, cfg);
    parse_initial_bits(root, cfg);
    return cfg;
}

HostConfig host_config_load(const fs::path& file)
{
    std::error_code ec;
    std::ifstream in(file, std::ios::binary);
    if (!fs::is_regular_file(file, ec) || !in)
        throw HostConfigError("cannot read the file");
    std::ostringstream text;
    text << in.rdbuf();
    fs::path base = fs::absolute(file).parent_path();
    return host_config_parse(text.str(), base);
}
