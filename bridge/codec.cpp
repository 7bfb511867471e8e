// Topics, JSON payloads and register bytes of combridge. A tag's data are
// always tag_bytes(tag) long here: the poller only hands over replies of
// that size as good values.
#include "codec.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

#include <nlohmann/json.hpp>

namespace bridge {
namespace {

using nlohmann::json;
using nlohmann::ordered_json;

// Bytes per value in the register buffer.
size_t value_width(TagType type)
{
    return type == TagType::word ? 2 : 4;
}

// The float as JSON shows it best: its shortest decimal form, so 0.1f is
// published as 0.1 rather than as the double nearest to the float.
double shortest_double(float f)
{
    char buf[32];
    const auto r = std::to_chars(buf, buf + sizeof buf, f);
    double d = 0;
    std::from_chars(buf, r.ptr, d);
    return d;
}

ordered_json decode_one(TagType type, std::span<const uint8_t> data, size_t i)
{
    if (type == TagType::bit)
        return (data[i / 8] >> (i % 8) & 1) != 0;
    const uint32_t raw = comclient::load_le(data.data() + i * value_width(type), value_width(type));
    if (type != TagType::float32)
        return raw;
    float f;
    std::memcpy(&f, &raw, sizeof f);
    if (!std::isfinite(f))
        return nullptr;  // JSON has no NaN or infinity
    return shortest_double(f);
}

ordered_json decode_value(const Tag& tag, std::span<const uint8_t> data)
{
    if (tag.count == 1)
        return decode_one(tag.type, data, 0);
    ordered_json arr = ordered_json::array();
    for (size_t i = 0; i < static_cast<size_t>(tag.count); ++i)
        arr.push_back(decode_one(tag.type, data, i));
    return arr;
}

// An integral JSON number (12 and 12.0 alike), or nothing.
std::optional<int64_t> as_integer(const json& v)
{
    if (v.is_number_integer())
        return v.is_number_unsigned() && v.get<uint64_t>() > uint64_t(std::numeric_limits<int64_t>::max())
            ? std::nullopt
            : std::optional<int64_t>(v.get<int64_t>());
    if (v.is_number_float()) {
        const double d = v.get<double>();
        if (std::trunc(d) == d && std::fabs(d) < 9.0e15)
            return static_cast<int64_t>(d);
    }
    return std::nullopt;
}

// Stores element i; returns the reason when the value does not fit the type.
std::optional<std::string> encode_one(TagType type, const json& v, size_t i, std::vector<uint8_t>& out)
{
    if (type == TagType::bit) {
        const auto n = v.is_boolean() ? std::optional<int64_t>(v.get<bool>()) : as_integer(v);
        if (!n || (*n != 0 && *n != 1))
            return "expected true, false, 0 or 1";
        if (*n)
            out[i / 8] = static_cast<uint8_t>(out[i / 8] | 1u << (i % 8));
        return std::nullopt;
    }
    uint32_t raw = 0;
    if (type == TagType::float32) {
        if (!v.is_number())
            return "expected a number";
        const double d = v.get<double>();
        if (std::fabs(d) > std::numeric_limits<float>::max())
            return "number out of float range";
        const auto f = static_cast<float>(d);
        std::memcpy(&raw, &f, sizeof raw);
    } else {
        // Negative values are taken as two's complement, so signed and
        // unsigned set-points both work.
        const int bits = type == TagType::word ? 16 : 32;
        const int64_t lo = -(int64_t{1} << (bits - 1));
        const int64_t hi = (int64_t{1} << bits) - 1;
        const auto n = as_integer(v);
        if (!n || *n < lo || *n > hi)
            return "expected an integer in " + std::to_string(lo) + ".." + std::to_string(hi);
        raw = static_cast<uint32_t>(*n);
    }
    comclient::store_le(out.data() + i * value_width(type), value_width(type), raw);
    return std::nullopt;
}

} // namespace

const char* quality_name(Quality q)
{
    switch (q) {
    case Quality::good:
        return "good";
    case Quality::no_data:
        return "no_data";
    case Quality::timeout:
        return "timeout";
    case Quality::error:
        return "error";
    }
    return "error";
}

Quality quality_of(const comclient::Reply& reply, size_t expected_bytes)
{
    if (reply.kind == comclient::ReplyKind::data)
        return reply.data.size() == expected_bytes ? Quality::good : Quality::error;
    if (reply.kind == comclient::ReplyKind::status && !reply.ok && reply.err == 1)
        return Quality::no_data;
    if (reply.kind == comclient::ReplyKind::status && !reply.ok && reply.err == 2)
        return Quality::timeout;
    return Quality::error;
}

comclient::RegAddr tag_record(const Tag& tag)
{
    // A float is read as two word registers per value.
    comclient::RegType type = comclient::RegType::word;
    if (tag.type == TagType::bit)
        type = comclient::RegType::bit;
    else if (tag.type == TagType::dword)
        type = comclient::RegType::dword;
    comclient::RegAddr r;
    r.port = tag.port;
    r.station = tag.station;
    r.addr_unit = 0;
    r.kind = tag.kind;
    r.start = tag.start;
    r.type = static_cast<uint8_t>(type);
    r.count = static_cast<int16_t>(tag.type == TagType::float32 ? 2 * tag.count : tag.count);
    return r;
}

std::string value_payload(const Tag& tag, Quality q, std::span<const uint8_t> data, int64_t ts_ms)
{
    ordered_json j;
    j["value"] = q == Quality::good ? decode_value(tag, data) : ordered_json(nullptr);
    j["quality"] = quality_name(q);
    j["ts"] = ts_ms;
    return j.dump();
}

Encoded encode_write(const Tag& tag, std::string_view payload)
{
    json v = json::parse(payload, nullptr, false);
    if (v.is_discarded())
        return std::string("payload is not JSON");
    if (v.is_object() && v.size() == 1 && v.contains("value"))
        v = v["value"];
    std::vector<uint8_t> out(tag_bytes(tag));
    if (tag.count == 1) {
        if (v.is_array() || v.is_object())
            return std::string("expected a single value");
        if (auto err = encode_one(tag.type, v, 0, out))
            return *err;
        return out;
    }
    if (!v.is_array() || v.size() != static_cast<size_t>(tag.count))
        return "expected an array of " + std::to_string(tag.count) + " values";
    for (size_t i = 0; i < v.size(); ++i)
        if (auto err = encode_one(tag.type, v[i], i, out))
            return "value [" + std::to_string(i) + "]: " + *err;
    return out;
}

std::string result_payload(const std::optional<std::string>& error)
{
    ordered_json j;
    j["ok"] = !error;
    if (error)
        j["error"] = *error;
    return j.dump();
}

std::string value_topic(const std::string& prefix, const Tag& tag)
{
    return prefix + "/" + tag.name;
}

std::string result_topic(const std::string& prefix, std::string_view tag_name)
{
    return prefix + "/" + std::string(tag_name) + "/set/result";
}

std::string status_topic(const std::string& prefix)
{
    return prefix + "/$status";
}

std::string set_filter(const std::string& prefix)
{
    return prefix + "/+/set";
}

std::optional<std::string_view> set_topic_tag(const std::string& prefix, std::string_view topic)
{
    constexpr std::string_view kSet = "/set";
    if (topic.size() <= prefix.size() + 1 + kSet.size() || topic.substr(0, prefix.size()) != prefix
        || topic[prefix.size()] != '/' || topic.substr(topic.size() - kSet.size()) != kSet)
        return std::nullopt;
    std::string_view name = topic.substr(prefix.size() + 1, topic.size() - prefix.size() - 1 - kSet.size());
    if (name.find('/') != std::string_view::npos)
        return std::nullopt;
    return name;
}

} // namespace bridge
