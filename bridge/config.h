// Configuration of combridge: the TOML file naming the comserver, the MQTT
// broker, the topic prefix and the tags. Everything is checked here, once,
// so the rest of the bridge may take every value as valid: a tag's range
// always fits one data reply and its name is always a single topic level.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace bridge {

// How a tag's registers are read and shown. float takes two 16-bit
// registers per value, the low-order word first.
enum class TagType { bit, word, dword, float32 };

struct Tag {
    std::string name;       // one topic level: <prefix>/<name>
    uint8_t port = 0;       // deviceport_id
    uint8_t station = 0;    // plc_id
    uint8_t kind = 0;       // reg_id
    TagType type = TagType::word;
    int32_t start = 0;      // first register (element address)
    int16_t count = 1;      // number of values
    std::chrono::milliseconds period{1000};
    bool writable = false;
};

struct ComserverConfig {
    std::string host = "127.0.0.1";
    uint16_t port = 5020;
    std::chrono::milliseconds reply_timeout{3000};
};

struct BrokerConfig {
    std::string host = "127.0.0.1";
    uint16_t port = 1883;
    std::string client_id;                  // default: "combridge-" + host name
    std::optional<std::string> username;
    std::optional<std::string> password;
    std::optional<std::filesystem::path> ca_file;  // set: TLS with this CA
    int keepalive_s = 30;
};

struct WriteConfig {
    size_t queue = 64;                      // pending writes; more are answered "write queue full"
    std::chrono::milliseconds timeout{5000}; // how long a queued PLC write is checked
};

struct BridgeConfig {
    std::string topic_prefix;
    ComserverConfig comserver;
    BrokerConfig broker;
    WriteConfig writes;
    std::vector<Tag> tags;
};

// A range is read with one cached read; its data must fit one data reply.
inline constexpr size_t kMaxTagBytes = 4081;
// The server retires a range 60 s after its last cached read at the
// earliest; reading at least twice as often keeps every tag registered.
inline constexpr std::chrono::milliseconds kMaxPeriod{30000};
inline constexpr std::chrono::milliseconds kMinPeriod{50};
inline constexpr size_t kMaxWriteQueue = 10000;

class ConfigError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Data bytes of a tag's range on the wire.
size_t tag_bytes(const Tag& tag);
const char* type_name(TagType type);

// Parses TOML text; relative paths are taken relative to base_dir. Throws
// ConfigError with a message naming the line and the field.
BridgeConfig parse_config(std::string_view text, const std::filesystem::path& base_dir);
BridgeConfig load_config(const std::filesystem::path& file);

} // namespace bridge
