// Reads combridge's TOML configuration. Every error names the line and the
// field ("line 12: tag[3].type must be ..."), as comhost's reader does;
// keys the bridge does not know are errors too, so a misspelt setting is
// never silently ignored.
#include "config.h"

#include <fstream>
#include <initializer_list>
#include <limits>
#include <map>
#include <sstream>
#include <unistd.h>

#include <toml++/toml.h>

namespace fs = std::filesystem;

namespace bridge {
namespace {

[[noreturn]] void fail(const toml::node* node, const std::string& msg)
{
    if (node && node->source().begin.line)
        throw ConfigError("line " + std::to_string(node->source().begin.line) + ": " + msg);
    throw ConfigError(msg);
}

void check_keys(const toml::table& t, const std::string& where, std::initializer_list<std::string_view> known)
{
    for (const auto& [key, node] : t) {
        bool ok = false;
        for (std::string_view k : known)
            ok = ok || key.str() == k;
        if (!ok)
            fail(&node, where + std::string(key.str()) + " is not a known setting");
    }
}

std::optional<int64_t> get_int(const toml::table& t, std::string_view key, const std::string& where,
                               int64_t lo, int64_t hi)
{
    const toml::node* node = t.get(key);
    if (!node)
        return std::nullopt;
    const std::string name = where + std::string(key);
    const auto* v = node->as_integer();
    if (!v)
        fail(node, name + " must be an integer");
    const int64_t x = v->get();
    if (x < lo || x > hi)
        fail(node, name + " = " + std::to_string(x) + " is out of range " + std::to_string(lo) + ".."
                       + std::to_string(hi));
    return x;
}

template <class T>
void set_int(const toml::table& t, std::string_view key, const std::string& where, T& out,
             int64_t lo = std::numeric_limits<T>::min(), int64_t hi = std::numeric_limits<T>::max())
{
    if (auto v = get_int(t, key, where, lo, hi))
        out = static_cast<T>(*v);
}

void set_ms(const toml::table& t, std::string_view key, const std::string& where, std::chrono::milliseconds& out,
            int64_t lo, int64_t hi)
{
    if (auto v = get_int(t, key, where, lo, hi))
        out = std::chrono::milliseconds(*v);
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

const toml::table* get_table(const toml::table& root, std::string_view key)
{
    const toml::node* node = root.get(key);
    if (node && !node->as_table())
        fail(node, std::string(key) + " must be a table ([" + std::string(key) + "])");
    return node ? node->as_table() : nullptr;
}

// A topic level of our own: no separators, no wildcards, and not a
// $-topic, which brokers keep for themselves and we use for the status.
bool bad_level(std::string_view s)
{
    return s.empty() || s.front() == '$' || s.find_first_of("/+#") != std::string_view::npos
        || s.find('\0') != std::string_view::npos;
}

void parse_comserver(const toml::table& root, ComserverConfig& c)
{
    const toml::table* t = get_table(root, "comserver");
    if (!t)
        return;
    check_keys(*t, "comserver.", {"host", "port", "reply_timeout_ms"});
    if (auto v = get_string(*t, "host", "comserver."))
        c.host = *v;
    set_int(*t, "port", "comserver.", c.port, 1);
    set_ms(*t, "reply_timeout_ms", "comserver.", c.reply_timeout, 100, 60000);
}

std::string default_client_id()
{
    char host[256] = {};
    if (::gethostname(host, sizeof host - 1) != 0 || host[0] == '\0')
        return "combridge";
    return std::string("combridge-") + host;
}

void parse_broker(const toml::table& root, const fs::path& base, BrokerConfig& b)
{
    b.client_id = default_client_id();
    const toml::table* t = get_table(root, "broker");
    if (!t)
        return;
    const std::string w = "broker.";
    check_keys(*t, w, {"host", "port", "client_id", "username", "password", "ca_file", "keepalive_s"});
    if (auto v = get_string(*t, "host", w))
        b.host = *v;
    set_int(*t, "port", w, b.port, 1);
    set_int(*t, "keepalive_s", w, b.keepalive_s, 5, 65535);
    if (auto v = get_string(*t, "client_id", w)) {
        if (v->empty() || v->size() > 65535)
            fail(t->get("client_id"), "broker.client_id must not be empty");
        b.client_id = *v;
    }
    b.username = get_string(*t, "username", w);
    b.password = get_string(*t, "password", w);
    if (b.password && !b.username)
        fail(t->get("password"), "broker.password needs broker.username");
    if (auto v = get_string(*t, "ca_file", w)) {
        fs::path p = fs::path(*v).is_absolute() ? fs::path(*v) : (base / *v).lexically_normal();
        if (!std::ifstream(p))
            fail(t->get("ca_file"), "broker.ca_file: cannot read " + p.string());
        b.ca_file = p;
    }
}

void parse_writes(const toml::table& root, WriteConfig& w)
{
    const toml::table* t = get_table(root, "writes");
    if (!t)
        return;
    check_keys(*t, "writes.", {"queue", "timeout_ms"});
    set_int(*t, "queue", "writes.", w.queue, 1, kMaxWriteQueue);
    set_ms(*t, "timeout_ms", "writes.", w.timeout, 100, 600000);
}

TagType parse_type(const toml::table& t, const std::string& where)
{
    const auto s = get_string(t, "type", where);
    if (!s || *s == "word")
        return TagType::word;
    if (*s == "bit")
        return TagType::bit;
    if (*s == "dword")
        return TagType::dword;
    if (*s == "float")
        return TagType::float32;
    fail(t.get("type"), where + "type must be one of bit, word, dword, float");
}

int64_t required_int(const toml::table& t, std::string_view key, const std::string& where, int64_t lo, int64_t hi)
{
    auto v = get_int(t, key, where, lo, hi);
    if (!v)
        fail(&t, where + std::string(key) + " is missing");
    return *v;
}

void parse_tag_range(const toml::table& t, const std::string& where, Tag& tag)
{
    set_int(t, "port", where, tag.port);
    set_int(t, "station", where, tag.station);
    tag.kind = static_cast<uint8_t>(required_int(t, "kind", where, 0, 255));
    // The server answers nothing for kinds that name no area, so a cached
    // read of one would never complete.
    if (tag.kind >= 241 && tag.kind <= 248)
        fail(t.get("kind"), where + "kind = " + std::to_string(tag.kind) + " names no register area (241..248)");
    tag.type = parse_type(t, where);
    tag.start = static_cast<int32_t>(required_int(t, "start", where, 0, std::numeric_limits<int32_t>::max()));
    // Float values take two registers each, so the register count must fit too.
    const int64_t max_count = tag.type == TagType::float32 ? 16383 : 32767;
    set_int(t, "count", where, tag.count, 1, max_count);
    if (tag_bytes(tag) > kMaxTagBytes)
        fail(t.get("count"), where + "count = " + std::to_string(tag.count) + " needs " + std::to_string(tag_bytes(tag))
                                 + " data bytes, one read carries at most " + std::to_string(kMaxTagBytes));
}

Tag parse_tag(const toml::table& t, size_t index)
{
    const std::string where = "tag[" + std::to_string(index) + "].";
    check_keys(t, where,
               {"name", "port", "station", "kind", "type", "start", "count", "period_ms", "writable"});
    Tag tag;
    const auto name = get_string(t, "name", where);
    if (!name)
        fail(&t, where + "name is missing");
    if (bad_level(*name))
        fail(t.get("name"), where + "name \"" + *name
                                + "\" must be one topic level: not empty, no '/', '+' or '#', not starting with '$'");
    tag.name = *name;
    parse_tag_range(t, where, tag);
    set_ms(t, "period_ms", where, tag.period, kMinPeriod.count(), kMaxPeriod.count());
    if (const toml::node* w = t.get("writable")) {
        if (!w->as_boolean())
            fail(w, where + "writable must be true or false");
        tag.writable = w->as_boolean()->get();
    }
    return tag;
}

void parse_tags(const toml::table& root, BridgeConfig& cfg)
{
    const toml::node* node = root.get("tag");
    if (!node)
        throw ConfigError("no [[tag]] is configured");
    const toml::array* tags = node->as_array();
    if (!tags || tags->empty())
        fail(node, "tag must be an array of tables ([[tag]])");
    std::map<std::string, size_t> seen;
    for (size_t i = 0; i < tags->size(); ++i) {
        const toml::table* t = (*tags)[i].as_table();
        if (!t)
            fail(&(*tags)[i], "tag[" + std::to_string(i) + "] must be a table");
        Tag tag = parse_tag(*t, i);
        if (auto [it, fresh] = seen.emplace(tag.name, i); !fresh)
            fail(t->get("name"), "tag[" + std::to_string(i) + "].name \"" + tag.name + "\" is used by tag["
                                     + std::to_string(it->second) + "] already");
        cfg.tags.push_back(std::move(tag));
    }
}

void parse_prefix(const toml::table& root, BridgeConfig& cfg)
{
    const auto prefix = get_string(root, "topic_prefix", "");
    if (!prefix)
        throw ConfigError("topic_prefix is missing");
    const bool bad = prefix->empty() || prefix->back() == '/' || prefix->front() == '$'
        || prefix->find_first_of("+#") != std::string::npos || prefix->find('\0') != std::string::npos;
    if (bad)
        fail(root.get("topic_prefix"),
             "topic_prefix \"" + *prefix + "\" must be a topic without wildcards, not empty, not ending in '/'");
    cfg.topic_prefix = *prefix;
}

} // namespace

size_t tag_bytes(const Tag& tag)
{
    const auto n = static_cast<size_t>(tag.count);
    switch (tag.type) {
    case TagType::bit:
        return (n + 7) / 8;
    case TagType::word:
        return 2 * n;
    case TagType::dword:
    case TagType::float32:
        return 4 * n;
    }
    return 0;
}

const char* type_name(TagType type)
{
    switch (type) {
    case TagType::bit:
        return "bit";
    case TagType::word:
        return "word";
    case TagType::dword:
        return "dword";
    case TagType::float32:
        return "float";
    }
    return "?";
}

BridgeConfig parse_config(std::string_view text, const fs::path& base_dir)
{
    toml::table root;
    try {
        root = toml::parse(text);
    } catch (const toml::parse_error& e) {
        throw ConfigError("line " + std::to_string(e.source().begin.line) + ": " + std::string(e.description()));
    }
    check_keys(root, "", {"topic_prefix", "comserver", "broker", "writes", "tag"});
    BridgeConfig cfg;
    parse_prefix(root, cfg);
    parse_comserver(root, cfg.comserver);
    parse_broker(root, base_dir, cfg.broker);
    parse_writes(root, cfg.writes);
    parse_tags(root, cfg);
    return cfg;
}

BridgeConfig load_config(const fs::path& file)
{
    std::error_code ec;
    std::ifstream in(file, std::ios::binary);
    if (!fs::is_regular_file(file, ec) || !in)
        throw ConfigError("cannot read the file");
    std::ostringstream text;
    text << in.rdbuf();
    return parse_config(text.str(), fs::absolute(file).parent_path());
}

} // namespace bridge
