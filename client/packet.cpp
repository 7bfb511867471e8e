// Request encoding and reply parsing; no I/O.
#include <algorithm>
#include <bit>
#include <string>

#include "base/byte_order.h"
#include "comclient.h"

namespace comclient {

uint32_t load_le(const uint8_t* p, size_t width)
{
    uint32_t v = 0;
    for (size_t i = 0; i < width; ++i)
        v |= uint32_t(p[i]) << (8 * i);
    return v;
}

void store_le(uint8_t* p, size_t width, uint32_t v)
{
    for (size_t i = 0; i < width; ++i)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}

namespace {

[[noreturn]] void malformed(const std::string& what)
{
    throw Error(ErrorKind::malformed, "malformed reply: " + what);
}

bool is_record_command(Command c)
{
    switch (c) {
    case Command::com_read:
    case Command::realtime_read:
    case Command::realtime_readcheck:
    case Command::writecheck:
    case Command::com_realtime_read:
        return true;
    default:
        return false;
    }
}

// Multi-area body: [19][n][n x u16 offset][entries][sum]; end is the
// position of the checksum.
void parse_multi_area(Reply& r, const uint8_t* body, size_t end)
{
    if (end < 2)
        malformed("multi-area reply without count");
    size_t n = body[1];
    size_t first = 2 + 2 * n;
    if (first > end)
        malformed("offset table longer than the reply");
    std::vector<uint16_t> offsets(n);
    for (size_t i = 0; i < n; ++i)
        offsets[i] = get_le16(body + 2 + 2 * i);
    std::vector<uint16_t> sorted(offsets);
    std::sort(sorted.begin(), sorted.end());

    r.entries.resize(n);
    for (size_t i = 0; i < n; ++i) {
        SubEntry& e = r.entries[i];
        size_t off = offsets[i];
        if (off == 0)
            continue;
        if (off < first || off + 2 > end)
            malformed("entry offset " + std::to_string(off) + " out of range");
        e.present = true;
        e.offset = static_cast<uint16_t>(off);
        uint8_t flag = body[off];
        if (flag == 0) {
            e.err = body[off + 1];
            continue;
        }
        if (flag != 1 || off + 3 > end)
            malformed("bad entry at offset " + std::to_string(off));
        e.ok = true;
        e.size = get_le16(body + off + 1);
        // The entry ends where the next one begins, or at the checksum.
        auto next = std::upper_bound(sorted.begin(), sorted.end(), static_cast<uint16_t>(off));
        size_t stop = next == sorted.end() ? end : std::min<size_t>(*next, end);
        size_t avail = stop - (off + 3);
        size_t take = std::min<size_t>(e.size, avail);
        e.data.assign(body + off + 3, body + off + 3 + take);
    }
}

}  // namespace

const char* error_kind_name(ErrorKind kind)
{
    switch (kind) {
    case ErrorKind::connect: return "connect";
    case ErrorKind::closed: return "closed";
    case ErrorKind::timeout: return "timeout";
    case ErrorKind::checksum: return "checksum";
    case ErrorKind::malformed: return "malformed";
    case ErrorKind::io: return "io";
    case ErrorKind::request: return "request";
    }
    return "unknown";
}

std::array<uint8_t, kRegAddrSize> RegAddr::encode() const
{
    std::array<uint8_t, kRegAddrSize> b{};
    b[0] = tag;
    b[1] = port;
    b[2] = station;
    b[3] = addr_unit;
    b[4] = type;
    b[5] = kind;
    put_le16(&b[6], byte_offset);
    put_le32(&b[8], static_cast<uint32_t>(start));
    put_le16(&b[12], static_cast<uint16_t>(count));
    b[14] = bcd;
    b[15] = reserved;
    return b;
}

RegAddr RegAddr::decode(const uint8_t* p)
{
    RegAddr r;
    r.tag = p[0];
    r.port = p[1];
    r.station = p[2];
    r.addr_unit = p[3];
    r.type = p[4];
    r.kind = p[5];
    r.byte_offset = get_le16(p + 6);
    r.start = static_cast<int32_t>(get_le32(p + 8));
    r.count = static_cast<int16_t>(get_le16(p + 12));
    r.bcd = p[14];
    r.reserved = p[15];
    return r;
}

size_t data_size(uint8_t type, int count)
{
    if (count <= 0)
        return 0;
    switch (type) {
    case 0: return (static_cast<size_t>(count) + 7) / 8;
    case 1: return static_cast<size_t>(count);
    case 2: return 2 * static_cast<size_t>(count);
    case 4: return 4 * static_cast<size_t>(count);
    default: return 0;
    }
}

std::array<uint8_t, kRwOperSize> RwOper::encode() const
{
    std::array<uint8_t, kRwOperSize> b{};
    const int32_t fields[6] = {op, step, high, low, direction, value_type};
    for (int i = 0; i < 6; ++i)
        put_le32(&b[4 * i], static_cast<uint32_t>(fields[i]));
    return b;
}

int32_t RwOper::float_bits(float f)
{
    return std::bit_cast<int32_t>(f);
}

uint8_t check_sum(std::span<const uint8_t> bytes)
{
    uint8_t sum = 0;
    for (uint8_t b : bytes)
        sum = static_cast<uint8_t>(sum + b);
    return sum;
}

std::vector<uint8_t> make_packet(uint8_t command, std::span<const uint8_t> fields)
{
    size_t body = 1 + fields.size() + 1;
    if (kHeaderSize + body > kMaxPacket)
        throw Error(ErrorKind::request, "request of " + std::to_string(kHeaderSize + body) +
                                            " bytes exceeds " + std::to_string(kMaxPacket));
    std::vector<uint8_t> p(kHeaderSize + body, 0);
    p[0] = 0x01;
    put_le16(&p[8], static_cast<uint16_t>(body));
    p[10] = command;
    std::copy(fields.begin(), fields.end(), p.begin() + 11);
    p.back() = check_sum(std::span<const uint8_t>(p).subspan(kHeaderSize, body - 1));
    return p;
}

std::vector<uint8_t> encode_areas(Command command, std::span<const RegAddr> recs)
{
    if (command != Command::register_areas && command != Command::unregister_areas &&
        command != Command::sub_read)
        throw Error(ErrorKind::request, "command does not carry a record list");
    if (recs.size() > 255)
        throw Error(ErrorKind::request, "at most 255 records per request");
    std::vector<uint8_t> fields;
    fields.reserve(1 + kRegAddrSize * recs.size());
    fields.push_back(static_cast<uint8_t>(recs.size()));
    for (const RegAddr& r : recs) {
        auto b = r.encode();
        fields.insert(fields.end(), b.begin(), b.end());
    }
    return make_packet(static_cast<uint8_t>(command), fields);
}

std::vector<uint8_t> encode_record(Command command, const RegAddr& rec)
{
    if (!is_record_command(command))
        throw Error(ErrorKind::request, "command does not carry a single record");
    auto b = rec.encode();
    return make_packet(static_cast<uint8_t>(command), b);
}

std::vector<uint8_t> encode_write(const RegAddr& rec, std::span<const uint8_t> data)
{
    auto b = rec.encode();
    std::vector<uint8_t> fields(b.begin(), b.end());
    fields.insert(fields.end(), data.begin(), data.end());
    return make_packet(static_cast<uint8_t>(Command::write), fields);
}

std::vector<uint8_t> encode_rw(Command command, const RegAddr& rec, const RwOper& op, RwForm form)
{
    if (command != Command::realtime_rw && command != Command::realtime_rw_check)
        throw Error(ErrorKind::request, "command does not carry a read-modify-write block");
    auto b = rec.encode();
    auto blk = op.encode();
    std::vector<uint8_t> fields(b.begin(), b.end());
    size_t blk_len = form == RwForm::full ? kRwOperSize : kRwOperSize - 4;
    fields.insert(fields.end(), blk.begin(), blk.begin() + static_cast<long>(blk_len));
    return make_packet(static_cast<uint8_t>(command), fields);
}

Reply parse_reply(std::span<const uint8_t> packet)
{
    if (packet.size() < kHeaderSize)
        malformed("shorter than its header");
    size_t len = get_le16(packet.data() + 8);
    if (len < 2)
        malformed("package_len " + std::to_string(len));
    if (packet.size() != kHeaderSize + len)
        malformed("package_len " + std::to_string(len) + " does not match " +
                  std::to_string(packet.size() - kHeaderSize) + " body bytes");
    const uint8_t* body = packet.data() + kHeaderSize;
    size_t end = len - 1;  // position of the checksum
    uint8_t sum = check_sum(std::span<const uint8_t>(body, end));
    if (sum != body[end])
        throw Error(ErrorKind::checksum, "reply checksum " + std::to_string(body[end]) +
                                             ", computed " + std::to_string(sum));

    Reply r;
    r.packet.assign(packet.begin(), packet.end());
    r.command = body[0];
    if (r.command == static_cast<uint8_t>(Command::sub_read)) {
        r.kind = ReplyKind::multi_area;
        r.ok = true;
        parse_multi_area(r, body, end);
        return r;
    }
    if (len == 3) {
        r.kind = ReplyKind::ack;
        r.ok = body[1] == 1;
        return r;
    }
    if (len == 4) {
        bool rw = r.command == static_cast<uint8_t>(Command::realtime_rw) ||
                  r.command == static_cast<uint8_t>(Command::realtime_rw_check);
        if (body[1] == 1 && rw) {
            r.kind = ReplyKind::result;
            r.ok = true;
            r.result = body[2];
        } else {
            r.kind = ReplyKind::status;
            r.ok = body[1] != 0;
            r.err = body[2];
        }
        return r;
    }
    if (body[1] != 1)
        malformed("data reply without its 1 byte");
    r.kind = ReplyKind::data;
    r.ok = true;
    r.size = get_le16(body + 2);
    if (r.size != len - 5)
        malformed("size " + std::to_string(r.size) + " with " + std::to_string(len - 5) + " data bytes");
    r.data.assign(body + 4, body + end);
    return r;
}

}  // namespace comclient
