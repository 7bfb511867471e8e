// Configuration of comhost: the TOML file that describes the server's TCP
// port, its local areas and the 32-byte record of every port.
#pragma once

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "base/port_config.h"

// Which plug-in file is copied for a port.
enum class HostPlugin { sim, modbus, none, file };

struct HostPort {
    com_port_info record{};
    HostPlugin plugin = HostPlugin::sim;
    std::filesystem::path plugin_file;  // for HostPlugin::file
};

struct HostConfig {
    int mode = 1;
    uint16_t tcp_port = 0;
    std::filesystem::path plugin_dir;   // the server's working directory
    uint32_t local_word_count = 16384;
    uint32_t local_bit_count = 16384;
    std::filesystem::path server;       // empty: comserver next to comhost
    std::filesystem::path sim_plugin;   // empty: ../lib/sim_drv.so from comhost
    std::filesystem::path modbus_plugin; // empty: ../lib/modbus_drv.so from comhost
    std::vector<HostPort> ports;
    std::vector<uint32_t> initial_bits; // local bits set before the server starts
};

constexpr size_t HOST_MAX_PORTS = 255;
constexpr uint32_t HOST_MAX_LOCAL_COUNT = 1u << 24;

class HostConfigError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Parses TOML text. Relative paths in it are taken relative to base_dir.
// Throws HostConfigError with a message naming the line and field.
HostConfig host_config_parse(std::string_view text, const std::filesystem::path& base_dir);

// Reads and parses a configuration file; relative paths are relative to
// the file's directory.
HostConfig host_config_load(const std::filesystem::path& file);
