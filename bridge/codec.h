// What combridge puts on and takes off the broker: topics, the JSON value
// payload, write payloads turned into register bytes, and the quality of a
// cached read. Pure functions; register bytes are in the server's buffer
// layout (little-endian, bits packed least significant first).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "comclient.h"
#include "config.h"

namespace bridge {

enum class Quality { good, no_data, timeout, error };

const char* quality_name(Quality q);

// The quality a cached read (command 3) answered: data of the tag's size
// is good; err 1 is no data yet, err 2 a station that did not answer, any
// other answer an error.
Quality quality_of(const comclient::Reply& reply, size_t expected_bytes);

// The record a tag reads and writes: element addresses (addr_unit 0);
// float values as pairs of 16-bit registers.
comclient::RegAddr tag_record(const Tag& tag);

// {"value": ..., "quality": ..., "ts": ...}. The value is the decoded data
// (an array when count > 1) for quality good, and null otherwise.
std::string value_payload(const Tag& tag, Quality q, std::span<const uint8_t> data, int64_t ts_ms);

// Register bytes for a JSON write payload, or the reason it cannot be
// written. The payload is the value itself, or an object {"value": ...}.
using Encoded = std::variant<std::vector<uint8_t>, std::string>;
Encoded encode_write(const Tag& tag, std::string_view payload);

// {"ok": true} or {"ok": false, "error": ...}.
std::string result_payload(const std::optional<std::string>& error);

std::string value_topic(const std::string& prefix, const Tag& tag);
std::string result_topic(const std::string& prefix, std::string_view tag_name);
std::string status_topic(const std::string& prefix);
std::string set_filter(const std::string& prefix);
// The tag name of "<prefix>/<name>/set", or nothing for any other topic.
std::optional<std::string_view> set_topic_tag(const std::string& prefix, std::string_view topic);

} // namespace bridge
