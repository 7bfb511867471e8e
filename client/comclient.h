// Client library of the communication server.
//
// Every request and reply is one packet: 10 header bytes (01 and seven 00,
// then the u16 body length package_len), then the body
// [command][fields][8-bit sum of the body bytes before it].
//
// Encoding and parsing are free functions that touch no socket; Client adds
// the TCP connection. Failures of the transport or of the reply framing
// (cannot connect, peer closed, time-out, checksum mismatch, malformed reply)
// are thrown as comclient::Error, whose kind() tells them apart. A status
// packet from the server is not an exception: it is a Reply with ok false
// and its err code.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace comclient {

inline constexpr size_t kHeaderSize = 10;
inline constexpr size_t kMaxPacket = 4096;
inline constexpr size_t kRegAddrSize = 16;
inline constexpr size_t kRwOperSize = 24;
inline constexpr std::chrono::milliseconds kDefaultTimeout{5000};

enum class Command : uint8_t {
    register_areas = 1,
    unregister_areas = 2,
    com_read = 3,
    realtime_read = 4,
    write = 5,
    realtime_readcheck = 6,
    writecheck = 7,
    com_realtime_read = 8,
    realtime_rw = 9,
    realtime_rw_check = 10,
    sub_read = 19,
};

// Register widths (reg_type).
enum class RegType : uint8_t { bit = 0, byte = 1, word = 2, dword = 4 };

// The 16-byte register address record, with named fields. encode() gives
// the wire bytes, little-endian:
//   0 tag, 1 port, 2 station, 3 addr_unit, 4 type, 5 kind, 6..7 byte_offset,
//   8..11 start, 12..13 count, 14 bcd, 15 reserved.
struct RegAddr {
    uint8_t tag = 0;          // rec_tag: carried, compared, not interpreted
    uint8_t port = 0;         // deviceport_id
    uint8_t station = 0;      // plc_id
    uint8_t addr_unit = 0;    // bytes per address step (1, 2, 4); other values: element addresses
    uint8_t type = 2;         // reg_type: 0 bit, 1 byte, 2 word, 4 double word
    uint8_t kind = 0;         // reg_id: <241 PLC kind, 249/254/255 local, 250..253 SRAM
    uint16_t byte_offset = 0;
    int32_t start = 0;        // reg_addr_start
    int16_t count = 0;        // reg_data_width
    uint8_t bcd = 0;          // bcd_flag
    uint8_t reserved = 0;     // byte 15, carried and compared

    std::array<uint8_t, kRegAddrSize> encode() const;
    static RegAddr decode(const uint8_t* p);
    bool operator==(const RegAddr&) const = default;
};

// Data bytes of count elements of the given width (bits packed LSB first).
size_t data_size(uint8_t type, int count);

// Little-endian unsigned integers of 1 to 4 bytes, as the server's buffers
// hold register values.
uint32_t load_le(const uint8_t* p, size_t width);
void store_le(uint8_t* p, size_t width, uint32_t v);

// The 24-byte read-modify-write block: six little-endian 32-bit fields.
// For value types 2 and 3 step, high and low hold IEEE single floats; use
// float_bits() to fill them.
struct RwOper {
    int32_t op = 0;           // 1..8, 256 pulse
    int32_t step = 0;
    int32_t high = 0;
    int32_t low = 0;
    int32_t direction = 0;    // 1 counting up
    int32_t value_type = 0;   // 0 register-width integer, 1 unsigned 32, 2 float, 3 double

    std::array<uint8_t, kRwOperSize> encode() const;
    static int32_t float_bits(float f);
};

// full: the 42-byte body with all six fields; short_form: the 38-byte body
// without value_type, which the server takes as 0.
enum class RwForm { full, short_form };

enum class ReplyKind {
    ack,         // [command][1][sum], commands 1 and 2
    status,      // [command][ok][err][sum]
    data,        // [command][1][u16 size][data][sum]
    result,      // [command][1][result][sum], commands 9 and 10
    multi_area,  // command 19
};

// One area of a multi-area reply. present is false when the offset table
// holds 0 for it (a record naming no area, or an unreadable device), and then
// nothing else is set. Otherwise ok tells a data entry from an error entry.
// data holds the bytes the entry occupies up to size: for a Modbus bit view
// size is a bit count and data may carry trailing zero bytes.
struct SubEntry {
    bool present = false;
    uint16_t offset = 0;      // body offset of the entry
    bool ok = false;
    uint8_t err = 0;          // error entry: 1 no data yet, 2 no answer, 3 failed
    uint16_t size = 0;        // data entry: size field as sent
    std::vector<uint8_t> data;
};

struct Reply {
    ReplyKind kind = ReplyKind::status;
    uint8_t command = 0;
    bool ok = false;          // status: its ok byte; every other kind: true
    uint8_t err = 0;          // status: 1 not ready / queued, 2 no answer, 3 failed or not found
    uint16_t size = 0;        // data: the size field
    std::vector<uint8_t> data;
    uint8_t result = 0;       // result: the direction byte after the operation
    std::vector<SubEntry> entries;
    std::vector<uint8_t> packet;  // the whole packet as received

    // A status packet with err 1: queued or still pending.
    bool pending() const { return kind == ReplyKind::status && !ok && err == 1; }
};

enum class ErrorKind {
    connect,    // name resolution or connection failed
    closed,     // the server closed the connection
    timeout,    // no (complete) reply within the time-out
    checksum,   // the reply's checksum did not match
    malformed,  // the reply's length or layout is impossible
    io,         // send or receive failed otherwise
    request,    // the request cannot be encoded (too long, too many records)
};

const char* error_kind_name(ErrorKind kind);

class Error : public std::runtime_error {
public:
    Error(ErrorKind kind, const std::string& what) : std::runtime_error(what), kind_(kind) {}
    ErrorKind kind() const { return kind_; }

private:
    ErrorKind kind_;
};

// --- encoding and parsing -------------------------------------------------

uint8_t check_sum(std::span<const uint8_t> bytes);

// Header + [command][fields][sum]. Throws Error(request) beyond 4096 bytes.
std::vector<uint8_t> make_packet(uint8_t command, std::span<const uint8_t> fields);

// Commands 1, 2, 19: [command][n][n records].
std::vector<uint8_t> encode_areas(Command command, std::span<const RegAddr> recs);
// Commands 3, 4, 6, 7, 8: [command][record].
std::vector<uint8_t> encode_record(Command command, const RegAddr& rec);
// Command 5: [5][record][data].
std::vector<uint8_t> encode_write(const RegAddr& rec, std::span<const uint8_t> data);
// Commands 9, 10: [command][record][block].
std::vector<uint8_t> encode_rw(Command command, const RegAddr& rec, const RwOper& op,
                               RwForm form = RwForm::full);

// Parses one whole packet (header included). Throws Error(checksum) or
// Error(malformed).
Reply parse_reply(std::span<const uint8_t> packet);

// --- connection -----------------------------------------------------------

enum class RawStatus { data, closed, timeout };

struct RawReceive {
    RawStatus status = RawStatus::timeout;
    std::vector<uint8_t> bytes;
};

class Client {
public:
    // Connects over IPv4 TCP; the time-out bounds the connection attempt and
    // each reply. Throws Error(connect).
    Client(const std::string& host, uint16_t port, std::chrono::milliseconds timeout = kDefaultTimeout);
    // Takes ownership of a connected stream socket.
    explicit Client(int fd, std::chrono::milliseconds timeout = kDefaultTimeout);
    ~Client();
    Client(Client&& other) noexcept;
    Client& operator=(Client&& other) noexcept;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void set_timeout(std::chrono::milliseconds timeout);
    std::chrono::milliseconds timeout() const { return timeout_; }
    int fd() const { return fd_; }
    void close();

    // Sends a packet and returns the one framed reply to it. The server
    // sends nothing for unknown commands and for records naming no area
    // (kinds 241..248); such requests end in Error(timeout). After a
    // time-out a late reply may still arrive, so close the connection
    // rather than reuse it.
    Reply request(std::span<const uint8_t> packet);

    Reply register_areas(std::span<const RegAddr> recs);
    Reply unregister_areas(std::span<const RegAddr> recs);
    Reply sub_read(std::span<const RegAddr> recs);
    Reply com_read(const RegAddr& rec);
    Reply realtime_read(const RegAddr& rec);
    Reply realtime_readcheck(const RegAddr& rec);
    Reply com_realtime_read(const RegAddr& rec);
    Reply write(const RegAddr& rec, std::span<const uint8_t> data);
    Reply writecheck(const RegAddr& rec);
    Reply realtime_rw(const RegAddr& rec, const RwOper& op, RwForm form = RwForm::full);
    Reply realtime_rw_check(const RegAddr& rec, const RwOper& op, RwForm form = RwForm::full);

    // Pipelining: sends several whole packets (concatenated in `packets`)
    // and returns the `replies` replies to them, in order. Sending and
    // receiving interleave, so a long batch never stalls on full socket
    // buffers. Every packet must get a reply (no unknown commands, no
    // records naming no area). The time-out bounds each silence, not the
    // whole batch.
    std::vector<Reply> request_all(std::span<const uint8_t> packets, size_t replies);

    // write (5); a PLC write that the server queued is then checked with
    // writecheck (7) every `interval` until its outcome is known or `wait`
    // has passed. Returns the last reply: ok for a done write (either
    // command), err 2 or 3 for a failed one, pending() when time ran out.
    Reply write_and_check(const RegAddr& rec, std::span<const uint8_t> data, std::chrono::milliseconds wait,
                          std::chrono::milliseconds interval);

    // Raw access for tests of the server's framing: send any bytes; receive
    // whatever arrives within the time-out (one receive of at most max bytes).
    void send_raw(std::span<const uint8_t> bytes);
    RawReceive recv_raw(size_t max, std::chrono::milliseconds timeout);
    // Reads exactly one framed reply (header, then package_len bytes).
    Reply receive_reply();
    // Waits until the server closes the connection, discarding what it sends.
    bool wait_closed(std::chrono::milliseconds timeout);

private:
    void read_exact(uint8_t* buf, size_t n, std::chrono::steady_clock::time_point deadline);

    int fd_ = -1;
    std::chrono::milliseconds timeout_;
};

}  // namespace comclient
