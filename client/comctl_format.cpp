// Text and JSON renderings of replies for comctl.
#include "comctl_format.h"

#include <bit>
#include <cstdio>
#include <sstream>

namespace comctl {

namespace {

using comclient::RegAddr;
using comclient::Reply;
using comclient::ReplyKind;
using comclient::SubEntry;

// One decoded element: its text and its JSON number.
struct Value {
    std::string text;
    std::string json;
};

std::string fmt_float(float f)
{
    char buf[48];
    std::snprintf(buf, sizeof buf, "%.9g", static_cast<double>(f));
    return buf;
}

// Splits data into elements of the record's width. Bits stop at the
// record's count; other widths take every whole element present.
std::vector<Value> decode(std::span<const uint8_t> data, const RegAddr* rec, Decode d)
{
    std::vector<Value> out;
    uint8_t type = rec ? rec->type : 1;
    if (type == 0) {
        size_t n = data.size() * 8;
        if (rec && rec->count >= 0 && static_cast<size_t>(rec->count) < n)
            n = static_cast<size_t>(rec->count);
        for (size_t i = 0; i < n; ++i) {
            std::string v = ((data[i / 8] >> (i % 8)) & 1) ? "1" : "0";
            out.push_back({v, v});
        }
        return out;
    }
    size_t w = type == 2 ? 2 : type == 4 ? 4 : 1;
    for (size_t i = 0; i + w <= data.size(); i += w) {
        uint32_t u = 0;
        for (size_t k = 0; k < w; ++k)
            u |= uint32_t(data[i + k]) << (8 * k);
        if (w == 4 && d.as_float) {
            std::string f = fmt_float(std::bit_cast<float>(u));
            out.push_back({f, f});
            continue;
        }
        char buf[64];
        int32_t s = w == 1 ? int8_t(u) : w == 2 ? int16_t(u) : int32_t(u);
        if (s < 0)
            std::snprintf(buf, sizeof buf, "%u (%d, 0x%0*x)", u, s, int(2 * w), u);
        else
            std::snprintf(buf, sizeof buf, "%u (0x%0*x)", u, int(2 * w), u);
        out.push_back({buf, std::to_string(u)});
    }
    return out;
}

std::string json_string(const std::string& s)
{
    std::string o = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\') {
            o += '\\';
            o += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            o += buf;
        } else {
            o += c;
        }
    }
    return o + "\"";
}

std::string json_values(std::span<const uint8_t> data, const RegAddr* rec, Decode d)
{
    std::string o = "[";
    bool first = true;
    for (const Value& v : decode(data, rec, d)) {
        if (!first)
            o += ",";
        o += v.json;
        first = false;
    }
    return o + "]";
}

void text_values(std::ostringstream& o, std::span<const uint8_t> data, const RegAddr* rec, Decode d,
                 const char* indent)
{
    o << indent << "hex: " << hex(data) << "\n";
    std::vector<Value> vals = decode(data, rec, d);
    if (rec && rec->type == 0) {
        o << indent << "bits:";
        for (const Value& v : vals)
            o << " " << v.text;
        o << "\n";
        return;
    }
    for (size_t i = 0; i < vals.size(); ++i)
        o << indent << "[" << i << "] " << vals[i].text << "\n";
}

std::string entry_json(size_t i, const SubEntry& e, const RegAddr* rec, Decode d)
{
    std::string o = "{\"index\":" + std::to_string(i) + ",\"present\":" + (e.present ? "true" : "false");
    if (e.present) {
        o += std::string(",\"ok\":") + (e.ok ? "true" : "false");
        if (e.ok)
            o += ",\"size\":" + std::to_string(e.size) + ",\"data\":\"" + hex(e.data, false) +
                 "\",\"values\":" + json_values(e.data, rec, d);
        else
            o += ",\"err\":" + std::to_string(e.err);
    }
    return o + "}";
}

}  // namespace

const char* command_name(uint8_t command)
{
    switch (command) {
    case 1: return "register";
    case 2: return "unregister";
    case 3: return "com_read";
    case 4: return "realtime_read";
    case 5: return "write";
    case 6: return "realtime_readcheck";
    case 7: return "writecheck";
    case 8: return "com_realtime_read";
    case 9: return "realtime_rw";
    case 10: return "realtime_rw_check";
    case 19: return "sub_read";
    default: return "unknown";
    }
}

const char* err_text(uint8_t command, uint8_t err)
{
    switch (err) {
    case 0: return "done";
    case 1:
        switch (command) {
        case 3:
        case 19: return "no data yet";
        case 4:
        case 5:
        case 8:
        case 9: return "queued";
        default: return "still pending";
        }
    case 2: return "no answer from the PLC";
    case 3: return "failed, or no such request";
    default: return "unknown error";
    }
}

std::string hex(std::span<const uint8_t> bytes, bool spaced)
{
    std::string s;
    char buf[4];
    for (size_t i = 0; i < bytes.size(); ++i) {
        std::snprintf(buf, sizeof buf, i && spaced ? " %02x" : "%02x", bytes[i]);
        s += buf;
    }
    return s;
}

std::string reply_text(const Reply& r, std::span<const RegAddr> recs, Decode d)
{
    std::ostringstream o;
    const RegAddr* rec = recs.empty() ? nullptr : &recs[0];
    o << command_name(r.command) << " (" << int(r.command) << "): ";
    switch (r.kind) {
    case ReplyKind::ack:
        o << (r.ok ? "ok" : "not acknowledged") << "\n";
        break;
    case ReplyKind::status:
        if (r.ok)
            o << "ok\n";
        else
            o << "err " << int(r.err) << ": " << err_text(r.command, r.err) << "\n";
        break;
    case ReplyKind::result:
        o << "done, result (direction) " << int(r.result) << "\n";
        break;
    case ReplyKind::data:
        o << r.data.size() << " bytes\n";
        text_values(o, r.data, rec, d, "  ");
        break;
    case ReplyKind::multi_area:
        o << r.entries.size() << " areas\n";
        for (size_t i = 0; i < r.entries.size(); ++i) {
            const SubEntry& e = r.entries[i];
            const RegAddr* ri = i < recs.size() ? &recs[i] : nullptr;
            o << "  area " << i;
            if (ri)
                o << " (kind " << int(ri->kind) << ", start " << ri->start << ", count " << ri->count << ")";
            if (!e.present)
                o << ": no entry\n";
            else if (!e.ok)
                o << ": err " << int(e.err) << ": " << err_text(19, e.err) << "\n";
            else {
                o << ": size " << e.size << "\n";
                text_values(o, e.data, ri, d, "    ");
            }
        }
        break;
    }
    return o.str();
}

std::string reply_json(const Reply& r, std::span<const RegAddr> recs, Decode d, int polls)
{
    static const char* kinds[] = {"ack", "status", "data", "result", "multi_area"};
    const RegAddr* rec = recs.empty() ? nullptr : &recs[0];
    std::string o = "{\"command\":" + std::to_string(r.command) + ",\"name\":\"" + command_name(r.command) +
                    "\",\"kind\":\"" + kinds[static_cast<int>(r.kind)] + "\",\"ok\":" + (r.ok ? "true" : "false") +
                    ",\"err\":" + std::to_string(r.err);
    if (r.kind == ReplyKind::data)
        o += ",\"size\":" + std::to_string(r.size) + ",\"data\":\"" + hex(r.data, false) +
             "\",\"values\":" + json_values(r.data, rec, d);
    if (r.kind == ReplyKind::result)
        o += ",\"result\":" + std::to_string(r.result);
    if (r.kind == ReplyKind::multi_area) {
        o += ",\"entries\":[";
        for (size_t i = 0; i < r.entries.size(); ++i) {
            if (i)
                o += ",";
            o += entry_json(i, r.entries[i], i < recs.size() ? &recs[i] : nullptr, d);
        }
        o += "]";
    }
    if (polls > 0)
        o += ",\"polls\":" + std::to_string(polls);
    return o + "}\n";
}

std::string error_json(const std::string& kind, const std::string& message)
{
    return "{\"error\":" + json_string(kind) + ",\"message\":" + json_string(message) + "}\n";
}

}  // namespace comctl
