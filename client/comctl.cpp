// comctl: command-line client of the communication server.
//
// Exit status: 0 success, 1 the server answered with an error status (or a
// request stayed pending), 2 usage or connection errors.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <bit>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>
#include <thread>

#include "comclient.h"
#include "comctl_format.h"

namespace {

using comclient::Client;
using comclient::RegAddr;
using comclient::Reply;
using comclient::ReplyKind;
using comclient::RwOper;

constexpr int kExitStatus = 1;
constexpr int kExitUsage = 2;

// Raised for arguments that CLI11 accepted but that make no request.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Options {
    std::string host = "127.0.0.1";
    int tcp_port = 5020;
    bool json = false;
    int reply_timeout_ms = 5000;
    bool as_float = false;

    // Register address record.
    int port_id = 0, station = 0, type = 2, kind = 0, start = 0, count = 1;
    int unit = 0, bcd = 0, tag = 0, byte_offset = 0;
    std::vector<std::string> ranges;

    // Polling and repetition.
    double wait_s = 5.0;
    int interval_ms = 100;
    bool no_wait = false;
    bool cache = false;
    double watch_s = 0;
    int watch_count = 0;

    // write
    std::vector<std::string> values;
    std::string data_hex;

    // read-modify-write block
    int op = 0;
    std::string step = "0", high = "0", low = "0";
    int dir = 0;
    int value_type = 0;
    bool short_form = false;
};

const std::map<std::string, int> kTypes{{"bit", 0}, {"byte", 1}, {"word", 2}, {"dword", 4}};
const std::map<std::string, int> kOps{{"toggle", 1},   {"inc-reset", 2}, {"dec-clamp", 3},
                                      {"pingpong", 4}, {"inc-wrap", 5},  {"dec-wrap", 6},
                                      {"nop", 7},      {"inc-clamp", 8}, {"pulse", 256}};
const std::map<std::string, int> kValueTypes{{"int", 0}, {"uint", 1}, {"float", 2}, {"double", 3}};

uint8_t byte_field(long v, const char* name)
{
    if (v < 0 || v > 255)
        throw UsageError(std::string(name) + " must be 0..255");
    return static_cast<uint8_t>(v);
}

long parse_long(const std::string& s, const char* what)
{
    try {
        size_t used = 0;
        long v = std::stol(s, &used, 0);
        if (used != s.size())
            throw UsageError("");
        return v;
    } catch (const std::exception&) {
        throw UsageError(std::string("bad ") + what + ": '" + s + "'");
    }
}

double parse_double(const std::string& s, const char* what)
{
    try {
        size_t used = 0;
        double v = std::stod(s, &used);
        if (used != s.size())
            throw UsageError("");
        return v;
    } catch (const std::exception&) {
        throw UsageError(std::string("bad ") + what + ": '" + s + "'");
    }
}

RegAddr base_record(const Options& o)
{
    RegAddr r;
    r.tag = byte_field(o.tag, "--tag");
    r.port = byte_field(o.port_id, "--port-id");
    r.station = byte_field(o.station, "--station");
    r.addr_unit = byte_field(o.unit, "--unit");
    r.type = byte_field(o.type, "--type");
    r.kind = byte_field(o.kind, "--kind");
    if (o.byte_offset < 0 || o.byte_offset > 65535)
        throw UsageError("--byte-offset must be 0..65535");
    r.byte_offset = static_cast<uint16_t>(o.byte_offset);
    r.start = o.start;
    if (o.count < -32768 || o.count > 32767)
        throw UsageError("--count must fit 16 bits");
    r.count = static_cast<int16_t>(o.count);
    r.bcd = byte_field(o.bcd, "--bcd");
    return r;
}

// A range description: comma-separated key=value pairs over the record options,
// e.g. "kind=3,start=10,count=4,type=word". Unnamed fields keep the values
// of the record options.
RegAddr parse_range(const std::string& text, const Options& defaults)
{
    Options o = defaults;
    std::stringstream ss(text);
    std::string item;
    while (std::getline(ss, item, ',')) {
        auto eq = item.find('=');
        if (eq == std::string::npos)
            throw UsageError("range item '" + item + "' is not key=value");
        std::string key = item.substr(0, eq), val = item.substr(eq + 1);
        if (key == "type") {
            auto it = kTypes.find(val);
            o.type = it != kTypes.end() ? it->second : static_cast<int>(parse_long(val, "type"));
            continue;
        }
        long v = parse_long(val, key.c_str());
        if (key == "port-id" || key == "port") o.port_id = int(v);
        else if (key == "station") o.station = int(v);
        else if (key == "kind") o.kind = int(v);
        else if (key == "start") o.start = int(v);
        else if (key == "count") o.count = int(v);
        else if (key == "unit") o.unit = int(v);
        else if (key == "bcd") o.bcd = int(v);
        else if (key == "tag") o.tag = int(v);
        else if (key == "byte-offset") o.byte_offset = int(v);
        else throw UsageError("unknown range key '" + key + "'");
    }
    return base_record(o);
}

std::vector<RegAddr> records(const Options& o)
{
    std::vector<RegAddr> recs;
    for (const std::string& s : o.ranges)
        recs.push_back(parse_range(s, o));
    if (recs.empty())
        recs.push_back(base_record(o));
    return recs;
}

// Write data: --data bytes in hex, or one value per element of the record's width.
std::vector<uint8_t> write_data(const Options& o, int type)
{
    std::vector<uint8_t> out;
    if (!o.data_hex.empty()) {
        std::string digits;
        for (char c : o.data_hex)
            if (!std::isspace(static_cast<unsigned char>(c)) && c != ':')
                digits += c;
        if (digits.size() % 2)
            throw UsageError("--data needs whole bytes");
        for (size_t i = 0; i < digits.size(); i += 2)
            out.push_back(static_cast<uint8_t>(parse_long("0x" + digits.substr(i, 2), "--data")));
        return out;
    }
    if (type == 0) {
        out.assign((o.values.size() + 7) / 8, 0);
        for (size_t i = 0; i < o.values.size(); ++i) {
            long v = parse_long(o.values[i], "bit");
            if (v != 0 && v != 1)
                throw UsageError("bit values are 0 or 1");
            if (v)
                out[i / 8] |= static_cast<uint8_t>(1u << (i % 8));
        }
        return out;
    }
    int width = type == 1 ? 1 : type == 2 ? 2 : type == 4 ? 4 : 0;
    if (width == 0)
        throw UsageError("values need --type bit, byte, word or dword (or use --data)");
    for (const std::string& s : o.values) {
        uint32_t u;
        if (width == 4 && o.as_float) {
            u = std::bit_cast<uint32_t>(static_cast<float>(parse_double(s, "value")));
        } else {
            long v = parse_long(s, "value");
            long lo = -(1L << (8 * width - 1)), hi = (1L << (8 * width)) - 1;
            if (v < lo || v > hi)
                throw UsageError("value " + s + " does not fit " + std::to_string(width) + " bytes");
            u = static_cast<uint32_t>(v);
        }
        for (int k = 0; k < width; ++k)
            out.push_back(static_cast<uint8_t>(u >> (8 * k)));
    }
    return out;
}

// step and the limits: integers, or IEEE single floats for value types 2, 3.
int32_t block_number(const std::string& s, int value_type, const char* what)
{
    if (value_type == 2 || value_type == 3)
        return RwOper::float_bits(static_cast<float>(parse_double(s, what)));
    long v = parse_long(s, what);
    if (v < INT32_MIN || v > static_cast<long>(UINT32_MAX))
        throw UsageError(std::string(what) + " does not fit 32 bits");
    return static_cast<int32_t>(static_cast<uint32_t>(v));
}

RwOper rw_block(const Options& o)
{
    RwOper b;
    b.op = o.op;
    b.step = block_number(o.step, o.value_type, "--step");
    b.high = block_number(o.high, o.value_type, "--high");
    b.low = block_number(o.low, o.value_type, "--low");
    b.direction = o.dir;
    b.value_type = o.value_type;
    return b;
}

int exit_code(const Reply& r)
{
    switch (r.kind) {
    case ReplyKind::ack:
    case ReplyKind::status:
        return r.ok ? 0 : kExitStatus;
    case ReplyKind::multi_area:
        for (const auto& e : r.entries)
            if (e.present && !e.ok)
                return kExitStatus;
        return 0;
    default:
        return 0;
    }
}

class Runner {
public:
    Runner(const Options& o, Client& c) : o_(o), c_(c) {}

    // queued_ok: a queued request (sent with --no-wait) counts as success.
    int show(const Reply& r, std::span<const RegAddr> recs, int polls = 0, bool queued_ok = false)
    {
        comctl::Decode d{o_.as_float};
        if (o_.json)
            std::cout << comctl::reply_json(r, recs, d, polls);
        else
            std::cout << comctl::reply_text(r, recs, d);
        std::cout.flush();
        return queued_ok && r.pending() ? 0 : exit_code(r);
    }

    // Repeats check() while the reply says pending, up to --timeout.
    Reply poll(Reply r, const std::function<Reply()>& check, int& polls)
    {
        auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                            std::chrono::duration<double>(o_.wait_s));
        while (r.pending() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(o_.interval_ms));
            r = check();
            ++polls;
        }
        if (r.pending() && polls > 0 && !o_.json)
            std::cerr << "comctl: still pending after " << o_.wait_s << " s\n";
        return r;
    }

    // Runs one exchange, or repeats it every --watch seconds.
    int watch(const std::function<int()>& once)
    {
        if (o_.watch_s <= 0)
            return once();
        int rc = 0;
        for (int i = 0; o_.watch_count <= 0 || i < o_.watch_count; ++i) {
            if (i > 0)
                std::this_thread::sleep_for(std::chrono::duration<double>(o_.watch_s));
            if (!o_.json) {
                std::time_t now = std::time(nullptr);
                char buf[32];
                std::strftime(buf, sizeof buf, "%H:%M:%S", std::localtime(&now));
                std::cout << "--- " << buf << "\n";
            }
            rc = once();
        }
        return rc;
    }

    int areas(comclient::Command cmd)
    {
        auto recs = records(o_);
        return watch([&] { return show(c_.request(comclient::encode_areas(cmd, recs)), recs); });
    }

    int single(comclient::Command cmd)
    {
        RegAddr rec = base_record(o_);
        return show(c_.request(comclient::encode_record(cmd, rec)), std::span(&rec, 1));
    }

    int read()
    {
        RegAddr rec = base_record(o_);
        return watch([&] { return show(c_.com_read(rec), std::span(&rec, 1)); });
    }

    int rt_read()
    {
        RegAddr rec = base_record(o_);
        return watch([&] {
            Reply r = o_.cache ? c_.com_realtime_read(rec) : c_.realtime_read(rec);
            int polls = 0;
            if (!o_.no_wait)
                r = poll(r, [&] { return c_.realtime_readcheck(rec); }, polls);
            return show(r, std::span(&rec, 1), polls, o_.no_wait);
        });
    }

    // Without --count the count is the number of values (or of the --data
    // data's elements).
    int write(bool count_given)
    {
        RegAddr rec = base_record(o_);
        std::vector<uint8_t> data = write_data(o_, rec.type);
        if (data.empty())
            throw UsageError("write needs values or --data");
        if (!count_given) {
            size_t n = o_.values.size();
            if (!o_.data_hex.empty())
                n = rec.type == 0 ? data.size() * 8 : data.size() / std::max<size_t>(1, comclient::data_size(rec.type, 1));
            rec.count = static_cast<int16_t>(n);
        }
        Reply r = c_.write(rec, data);
        int polls = 0;
        if (!o_.no_wait)
            r = poll(r, [&] { return c_.writecheck(rec); }, polls);
        return show(r, std::span(&rec, 1), polls, o_.no_wait);
    }

    int rw(bool check_only)
    {
        RegAddr rec = base_record(o_);
        RwOper blk = rw_block(o_);
        auto form = o_.short_form ? comclient::RwForm::short_form : comclient::RwForm::full;
        if (check_only)
            return show(c_.realtime_rw_check(rec, blk, form), std::span(&rec, 1));
        Reply r = c_.realtime_rw(rec, blk, form);
        int polls = 0;
        if (!o_.no_wait)
            r = poll(r, [&] { return c_.realtime_rw_check(rec, blk, form); }, polls);
        return show(r, std::span(&rec, 1), polls, o_.no_wait);
    }

private:
    const Options& o_;
    Client& c_;
};

void add_record_options(CLI::App* sub, Options& o, bool with_ranges)
{
    sub->add_option("--port-id", o.port_id, "Port number (deviceport_id)")->capture_default_str();
    sub->add_option("--station", o.station, "PLC station (plc_id)")->capture_default_str();
    sub->add_option("--type", o.type, "Register width: bit, byte, word, dword (or 0, 1, 2, 4)")
        ->transform(CLI::CheckedTransformer(kTypes, CLI::ignore_case))
        ->capture_default_str();
    sub->add_option("--kind", o.kind,
                    "Register kind (reg_id): <241 PLC kinds, 249/254/255 local areas, 250..253 SRAM")
        ->capture_default_str();
    sub->add_option("--start", o.start, "First register (reg_addr_start)")->capture_default_str();
    sub->add_option("--count", o.count, "Number of registers (reg_data_width)")->capture_default_str();
    sub->add_option("--unit", o.unit, "Address unit in bytes (addr_unit): 1, 2, 4; 0 = element addresses")
        ->capture_default_str();
    sub->add_option("--bcd", o.bcd, "BCD flag (bcd_flag)")->capture_default_str();
    sub->add_option("--tag", o.tag, "Record tag (rec_tag)")->capture_default_str();
    sub->add_option("--byte-offset", o.byte_offset, "Byte offset field (byte_offset)")->capture_default_str();
    if (with_ranges)
        sub->add_option("--range", o.ranges,
                        "A record as key=value pairs over the options above, e.g. "
                        "kind=3,start=10,count=4,type=word; repeatable; "
                        "missing keys take the option values")
            ->take_all();
}

void add_poll_options(CLI::App* sub, Options& o)
{
    sub->add_option("--timeout", o.wait_s, "Seconds to keep polling a pending request")->capture_default_str();
    sub->add_option("--interval", o.interval_ms, "Milliseconds between polls")->capture_default_str();
    sub->add_flag("--no-wait", o.no_wait, "Send the request only; do not poll its outcome");
}

void add_watch_options(CLI::App* sub, Options& o)
{
    sub->add_option("--watch", o.watch_s, "Repeat the read every SECONDS")->check(CLI::PositiveNumber);
    sub->add_option("--watch-count", o.watch_count, "Stop after N readings (0: never)")->capture_default_str();
}

void add_rw_options(CLI::App* sub, Options& o)
{
    sub->add_option("--op", o.op,
                    "Operation: toggle (1), inc-reset (2), dec-clamp (3), pingpong (4), inc-wrap (5), "
                    "dec-wrap (6), nop (7), inc-clamp (8), pulse (256), or any code")
        ->transform(CLI::Transformer(kOps, CLI::ignore_case))
        ->required();
    sub->add_option("--step", o.step, "Step (a float for value types float and double)")->capture_default_str();
    sub->add_option("--high", o.high, "Upper limit")->capture_default_str();
    sub->add_option("--low", o.low, "Lower limit")->capture_default_str();
    sub->add_option("--dir", o.dir, "Direction: 1 counting up, else down (ping-pong)")->capture_default_str();
    sub->add_option("--value-type", o.value_type,
                    "Value type: int (0, register width), uint (1), float (2), double (3)")
        ->transform(CLI::Transformer(kValueTypes, CLI::ignore_case))
        ->capture_default_str();
    sub->add_flag("--short", o.short_form, "Send the 38-byte body without the value type field");
}

void add_global_options(CLI::App& app, Options& o)
{
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(
        "Exit status: 0 success, 1 error status from the server (or still pending), "
        "2 usage or connection error.\n"
        "Example: comctl --port 5020 read --station 1 --kind 3 --start 0 --count 4");
    app.add_option("--host", o.host, "Server address")->envname("COMCTL_HOST")->capture_default_str();
    app.add_option("--port", o.tcp_port, "Server TCP port")
        ->envname("COMCTL_PORT")
        ->check(CLI::Range(1, 65535))
        ->capture_default_str();
    app.add_flag("--json", o.json, "Print one JSON object per reply");
    app.add_option("--reply-timeout", o.reply_timeout_ms, "Milliseconds to wait for each reply")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_flag("--float", o.as_float, "Show and write 32-bit values as IEEE single floats");
}

// A subcommand and what running it does.
struct Action {
    CLI::App* sub;
    std::function<int(Runner&)> run;
};

// The cache subcommands: register, unregister, read, sub-read.
void add_cache_subcommands(CLI::App& app, Options& o, std::vector<Action>& actions)
{
    using comclient::Command;
    auto* reg = app.add_subcommand("register", "Register ranges for cyclic polling (command 1)");
    add_record_options(reg, o, true);
    actions.push_back({reg, [](Runner& r) { return r.areas(Command::register_areas); }});
    auto* unreg = app.add_subcommand("unregister", "Withdraw registered ranges (command 2)");
    add_record_options(unreg, o, true);
    actions.push_back({unreg, [](Runner& r) { return r.areas(Command::unregister_areas); }});
    auto* read = app.add_subcommand("read", "Read one range from the cache (command 3); "
                                            "the first read registers it and answers err 1");
    add_record_options(read, o, false);
    add_watch_options(read, o);
    actions.push_back({read, [](Runner& r) { return r.read(); }});
    auto* sub = app.add_subcommand("sub-read", "Read several ranges from the cache in one reply (command 19)");
    add_record_options(sub, o, true);
    add_watch_options(sub, o);
    actions.push_back({sub, [](Runner& r) { return r.areas(Command::sub_read); }});
}

// The realtime subcommands: queue a request and collect its outcome.
void add_realtime_subcommands(CLI::App& app, Options& o, std::vector<Action>& actions)
{
    using comclient::Command;
    auto* rt = app.add_subcommand("rt-read", "Queue a realtime read (command 4) and poll its outcome (command 6)");
    add_record_options(rt, o, false);
    add_poll_options(rt, o);
    add_watch_options(rt, o);
    rt->add_flag("--cache", o.cache,
                 "Ask with command 8: answered from the cache when registered ranges cover it, else queued");
    actions.push_back({rt, [](Runner& r) { return r.rt_read(); }});
    auto* rtc = app.add_subcommand("rt-check", "Collect a realtime read once (command 6)");
    add_record_options(rtc, o, false);
    actions.push_back({rtc, [](Runner& r) { return r.single(Command::realtime_readcheck); }});
    auto* wr = app.add_subcommand("write", "Write values (command 5) and poll the outcome (command 7)");
    add_record_options(wr, o, false);
    add_poll_options(wr, o);
    wr->add_option("values", o.values,
                   "Values, one per register: bits 0/1, bytes, 16-bit words, 32-bit words (little-endian); "
                   "--count defaults to their number");
    wr->add_option("--data,--hex", o.data_hex, "Raw data bytes in hex instead of values, e.g. 0102 or \"11 22 33 44\"");
    actions.push_back({wr, [wr](Runner& r) { return r.write(wr->count("--count") > 0); }});
    auto* wrc = app.add_subcommand("write-check", "Collect the outcome of a write once (command 7)");
    add_record_options(wrc, o, false);
    actions.push_back({wrc, [](Runner& r) { return r.single(Command::writecheck); }});
    auto* rw = app.add_subcommand("rw", "Read-modify-write (command 9) and poll the outcome (command 10)");
    add_record_options(rw, o, false);
    add_poll_options(rw, o);
    add_rw_options(rw, o);
    actions.push_back({rw, [](Runner& r) { return r.rw(false); }});
    auto* rwc = app.add_subcommand("rw-check", "Collect a read-modify-write once (command 10); "
                                               "the block must match the one queued");
    add_record_options(rwc, o, false);
    add_rw_options(rwc, o);
    actions.push_back({rwc, [](Runner& r) { return r.rw(true); }});
}

// Connects and runs the parsed subcommand; errors become exit statuses.
int run_action(const Options& o, const std::vector<Action>& actions)
{
    try {
        Client client(o.host, static_cast<uint16_t>(o.tcp_port), std::chrono::milliseconds(o.reply_timeout_ms));
        Runner run(o, client);
        for (const Action& a : actions) {
            if (a.sub->parsed())
                return a.run(run);
        }
    } catch (const UsageError& e) {
        std::cerr << "comctl: " << e.what() << "\n";
        return kExitUsage;
    } catch (const comclient::Error& e) {
        if (o.json)
            std::cout << comctl::error_json(comclient::error_kind_name(e.kind()), e.what());
        std::cerr << "comctl: " << comclient::error_kind_name(e.kind()) << ": " << e.what() << "\n";
        return kExitUsage;
    }
    return kExitUsage;
}

}  // namespace

int main(int argc, char** argv)
{
    Options o;
    CLI::App app{"comctl: talk to the communication server over its client protocol."};
    add_global_options(app, o);
    std::vector<Action> actions;
    add_cache_subcommands(app, o, actions);
    add_realtime_subcommands(app, o, actions);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return kExitUsage;
    }
    return run_action(o, actions);
}
