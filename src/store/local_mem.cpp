// Reads and writes of the local areas and the SRAM file. Each access takes
// semaphore 0 for its whole length and never sends while holding it.
#include "store/local_mem.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <sys/types.h>
#include <unistd.h>

#include "base/byte_order.h"
#include "base/ignore_result.h"
#include "base/globals.h"
#include "base/local_areas.h"
#include "base/paths.h"
#include "base/protocol.h"
#include "base/shm_sem.h"
#include "store/addressing.h"

namespace {

constexpr int64_t SRAM_BIT_BUF_BITS = 2048;     // 128 words of bit staging
constexpr int64_t SRAM_HEADER_WORDS = 512;      // header region before word 0
constexpr int64_t SRAM_WORD_SPACE = int64_t{1} << 32;
constexpr int64_t SRAM_BASE_WORD = 9000;        // words 9000 (low) and 9001 (high)

enum class Access { done, refused, no_sram };

// What one request touches, before any area is consulted.
struct Span {
    bool words = false;   // reg_type 2: n 16-bit words; otherwise n bits
    int64_t start = 0;    // s
    int64_t count = 0;    // n
    size_t size = 0;      // data bytes, as cal_commbuf_size gives them
};

// Checks the request against the data limit (the reply data and the packed
// bits must both fit in `limit` bytes) and, for the SRAM, the bit staging limit.
bool make_span(const REG_ADDR& rec, size_t limit, bool sram, Span& sp)
{
    sp.words = rec.reg_type == 2;
    sp.start = rec.reg_addr_start;
    sp.count = rec.reg_data_width;
    if (sp.start < 0 || sp.count < 0) {
        return false;
    }
    const int64_t size = range_data_bytes(rec);
    const int64_t packed = sp.words ? 0 : (sp.count + 7) / 8;
    const auto lim = static_cast<int64_t>(limit);
    if (size > lim || packed > lim) {
        return false;
    }
    if (sram && !sp.words && sp.start % 16 + sp.count > SRAM_BIT_BUF_BITS) {
        return false;
    }
    sp.size = static_cast<size_t>(size);
    return true;
}

// ---- local areas (caller holds the semaphore) ----

bool local_in_bounds(const REG_ADDR& rec, const Span& sp)
{
    if (!is_local_area(rec.reg_id)) {
        return false;
    }
    const int64_t end = sp.start + sp.count;
    if (sp.words || rec.reg_id == REG_ID_LOCAL_WORD_BITS) {
        const auto bytes = static_cast<int64_t>(local_short_size());
        return local_short != nullptr && (sp.words ? end * 2 : (end + 7) / 8) <= bytes;
    }
    return local_bit != nullptr && (end + 7) / 8 <= static_cast<int64_t>(local_bit_size());
}

// Words are copied; bits are ORed into dst, which the caller has zeroed.
void fetch_local(const REG_ADDR& rec, const Span& sp, uint8_t* dst)
{
    if (sp.words) {
        std::memcpy(dst, local_short + sp.start * 2, sp.size);
        return;
    }
    for (int64_t i = 0; i < sp.count; ++i) {
        const int64_t b = sp.start + i;
        const bool v = rec.reg_id == REG_ID_LOCAL_WORD_BITS ? bit_of(local_short, b) : get_bit(static_cast<int>(b)) != 0;
        if (v) {
            put_bit(dst, i, true);
        }
    }
}

void store_local(const REG_ADDR& rec, const Span& sp, const uint8_t* src)
{
    if (sp.words) {
        std::memcpy(local_short + sp.start * 2, src, sp.size);
        return;
    }
    for (int64_t i = 0; i < sp.count; ++i) {
        const int64_t b = sp.start + i;
        const bool v = bit_of(src, i);
        if (rec.reg_id == REG_ID_LOCAL_WORD_BITS) {
            put_bit(local_short, b, v);
        } else if (v) {
            set_bit(static_cast<int>(b));
        } else {
            clear_bit(static_cast<int>(b));
        }
    }
}

// ---- SRAM (caller holds the semaphore) ----

class SramFile {
public:
    SramFile() : fd_(::open(sram_path().c_str(), O_RDWR)) {}
    ~SramFile()
    {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    SramFile(const SramFile&) = delete;
    SramFile& operator=(const SramFile&) = delete;
    bool ok() const { return fd_ >= 0; }
    int fd() const { return fd_; }

private:
    int fd_;
};

struct SramSpan {
    off_t offset = 0;     // file byte of the first word
    int64_t words = 0;    // words touched
    int64_t bit0 = 0;     // first bit inside the first word (bit access)
};

// B = word 9000 + 65536 * word 9001, both taken unsigned.
bool sram_base(int64_t& base)
{
    const auto need = static_cast<size_t>((SRAM_BASE_WORD + 2) * 2);
    if (local_short == nullptr || local_short_size() < need) {
        return false;
    }
    const uint8_t* p = local_short + SRAM_BASE_WORD * 2;
    base = static_cast<int64_t>(get_le16(p)) + 65536 * static_cast<int64_t>(get_le16(p + 2));
    return true;
}

bool sram_locate(const REG_ADDR& rec, const Span& sp, SramSpan& out)
{
    int64_t base = 0;
    if ((rec.reg_id == REG_ID_SRAM_BASE_BITS || rec.reg_id == REG_ID_SRAM_BASE_WORDS) && !sram_base(base)) {
        return false;
    }
    const int64_t s = sp.start;
    int64_t first = 0;
    switch (rec.reg_id) {
    case REG_ID_SRAM_BASE_BITS: first = (base * 16 + s) / 16; break;
    case REG_ID_SRAM_BASE_WORDS: first = base + s; break;
    case REG_ID_SRAM_BITS: first = s / 16; break;
    case REG_ID_SRAM_WORDS: first = s; break;
    default: return false;
    }
    out.bit0 = sp.words ? 0 : s % 16;
    if (sp.words) {
        out.words = sp.count;
    } else {
        out.words = sp.count == 0 ? 0 : (out.bit0 + sp.count + 15) / 16;
    }
    if (first + out.words > SRAM_WORD_SPACE) {
        return false;
    }
    const int64_t offset = (first + SRAM_HEADER_WORDS) * 2;
    if (offset + out.words * 2 > std::numeric_limits<off_t>::max()) {
        return false;
    }
    out.offset = static_cast<off_t>(offset);
    return true;
}

// Short or failed reads leave the zeroed buffers as they are.
void sram_pread(int fd, uint8_t* buf, size_t len, off_t offset)
{
    ignore_result(::pread(fd, buf, len, offset));
}

void sram_pwrite(int fd, const uint8_t* buf, size_t len, off_t offset)
{
    ignore_result(::pwrite(fd, buf, len, offset));
}

// Checks that the SRAM file opened and where the range lies in it;
// Access::done when the transfer may go ahead.
Access sram_open_span(const SramFile& f, const REG_ADDR& rec, const Span& sp, SramSpan& at)
{
    if (!f.ok()) {
        std::puts("SRAM open error\r");
        return Access::no_sram;
    }
    return sram_locate(rec, sp, at) ? Access::done : Access::refused;
}

Access fetch_sram(const REG_ADDR& rec, const Span& sp, uint8_t* dst)
{
    SramFile f;
    SramSpan at;
    if (const Access a = sram_open_span(f, rec, sp, at); a != Access::done) {
        return a;
    }
    if (sp.words) {
        sram_pread(f.fd(), dst, sp.size, at.offset);
        return Access::done;
    }
    uint8_t wbuf[SRAM_BIT_BUF_BITS / 8] = {};
    sram_pread(f.fd(), wbuf, static_cast<size_t>(at.words * 2), at.offset);
    for (int64_t i = 0; i < sp.count; ++i) {
        if (bit_of(wbuf, at.bit0 + i)) {
            put_bit(dst, i, true);
        }
    }
    return Access::done;
}

Access store_sram(const REG_ADDR& rec, const Span& sp, const uint8_t* src)
{
    SramFile f;
    SramSpan at;
    if (const Access a = sram_open_span(f, rec, sp, at); a != Access::done) {
        return a;
    }
    if (sp.words) {
        sram_pwrite(f.fd(), src, sp.size, at.offset);
        return Access::done;
    }
    // Read the touched words, change only the range's bits, write them back.
    uint8_t wbuf[SRAM_BIT_BUF_BITS / 8] = {};
    const auto len = static_cast<size_t>(at.words * 2);
    sram_pread(f.fd(), wbuf, len, at.offset);
    for (int64_t i = 0; i < sp.count; ++i) {
        put_bit(wbuf, at.bit0 + i, bit_of(src, i));
    }
    sram_pwrite(f.fd(), wbuf, len, at.offset);
    return Access::done;
}

// ---- replies (built into the caller's PACKET_BUF_SIZE buffer, sent by the caller) ----

size_t status_reply(uint8_t* reply, const uint8_t* status)
{
    return produce_ack_pack(reply, head, status, BODY_STATUS);
}

size_t data_reply(uint8_t* reply, uint8_t command, const uint8_t* data, size_t size)
{
    return produce_read_ack_pack(reply, head, static_cast<uint16_t>(size), command, data);
}

// Appends a data entry (ok) or the error entry [0][3] to a command-19 reply
// and records its body offset in the offset table. A data entry that would
// not fit (checksum byte included) becomes the error entry.
size_t append_entry(uint8_t* reply, size_t write_pos, int item_index, uint16_t& running_offset,
                    const uint8_t* data, size_t size, bool ok)
{
    const auto slot = PACKET_HEADER_SIZE + SUB_OFFSETS + SUB_OFFSET_SIZE * static_cast<size_t>(item_index);
    if (item_index < 0 || slot + SUB_OFFSET_SIZE > PACKET_BUF_SIZE) {
        return 0;
    }
    if (ok && write_pos + SUB_ENTRY_DATA + size + 1 > PACKET_BUF_SIZE) {
        ok = false;
    }
    if (write_pos + SUB_ENTRY_ERROR_LEN + 1 > PACKET_BUF_SIZE) {
        return 0;
    }
    put_le16(reply + slot, running_offset);
    const size_t len = ok ? produce_sub_read_ack_pack(reply + write_pos, static_cast<uint16_t>(size), data)
                          : produce_sub_read_error_entry(reply + write_pos, REPLY_FAILED);
    running_offset = static_cast<uint16_t>(running_offset + len);
    return len;
}

void stage_write(uint8_t* dst, const uint8_t* data, int data_len)
{
    const auto n = std::min<size_t>(static_cast<size_t>(std::max(data_len, 0)), LOCAL_DATA_MAX);
    if (n > 0) {
        std::memcpy(dst, data, n);
    }
}

} // namespace

size_t read_local_mem(const REG_ADDR& rec, uint8_t command, uint8_t* reply)
{
    uint8_t data[LOCAL_DATA_MAX] = {};
    ShmSemGuard sem(semid);
    Span sp;
    if (!make_span(rec, LOCAL_DATA_MAX, false, sp) || !local_in_bounds(rec, sp)) {
        return produce_refusal_pack(reply, command);
    }
    fetch_local(rec, sp, data);
    return data_reply(reply, command, data, sp.size);
}

size_t read_sram(const REG_ADDR& rec, uint8_t command, uint8_t* reply)
{
    uint8_t data[LOCAL_DATA_MAX] = {};
    ShmSemGuard sem(semid);
    Span sp;
    const Access a = make_span(rec, LOCAL_DATA_MAX, true, sp) ? fetch_sram(rec, sp, data) : Access::refused;
    if (a == Access::done) {
        return data_reply(reply, command, data, sp.size);
    }
    return a == Access::refused ? produce_refusal_pack(reply, command) : 0;
}

size_t sub_read_local_mem(const REG_ADDR& rec, uint8_t* reply_packet, size_t write_pos,
                          int item_index, uint16_t& running_offset)
{
    uint8_t data[LOCAL_DATA_MAX] = {};
    ShmSemGuard sem(semid);
    Span sp;
    const bool ok = make_span(rec, LOCAL_DATA_MAX, false, sp) && local_in_bounds(rec, sp);
    if (ok) {
        fetch_local(rec, sp, data);
    }
    return append_entry(reply_packet, write_pos, item_index, running_offset, data, sp.size, ok);
}

size_t bat_read_sram(const REG_ADDR& rec, uint8_t* reply_packet, size_t write_pos,
                     int item_index, uint16_t& running_offset)
{
    uint8_t data[LOCAL_DATA_MAX] = {};
    ShmSemGuard sem(semid);
    Span sp;
    const Access a = make_span(rec, LOCAL_DATA_MAX, true, sp) ? fetch_sram(rec, sp, data) : Access::refused;
    if (a == Access::no_sram) {
        return 0;
    }
    return append_entry(reply_packet, write_pos, item_index, running_offset, data, sp.size,
                        a == Access::done);
}

bool read_local_mem_rw(const REG_ADDR& rec, uint8_t* buf, size_t buf_size)
{
    ShmSemGuard sem(semid);
    Span sp;
    if (!make_span(rec, std::min(buf_size, LOCAL_DATA_MAX), false, sp) || !local_in_bounds(rec, sp)) {
        return false;
    }
    fetch_local(rec, sp, buf);
    return true;
}

bool read_sram_rw(const REG_ADDR& rec, uint8_t* buf, size_t buf_size)
{
    ShmSemGuard sem(semid);
    Span sp;
    if (!make_span(rec, std::min(buf_size, LOCAL_DATA_MAX), true, sp)) {
        return false;
    }
    return fetch_sram(rec, sp, buf) != Access::refused;
}

size_t write_local_mem(const REG_ADDR& rec, const uint8_t* data, int data_len, uint8_t* reply)
{
    std::printf("start=%d\r\n", rec.reg_addr_start);
    uint8_t src[LOCAL_DATA_MAX] = {};
    stage_write(src, data, data_len);
    ShmSemGuard sem(semid);
    Span sp;
    if (!make_span(rec, LOCAL_DATA_MAX, false, sp) || !local_in_bounds(rec, sp)) {
        return produce_refusal_pack(reply, CMD_WRITE);
    }
    if (!sp.words && rec.reg_id == REG_ID_LOCAL_WORD_BITS) {
        std::printf("length=%d\r\n", rec.reg_data_width);
    }
    store_local(rec, sp, src);
    return status_reply(reply, write_success);
}

size_t write_sram(const REG_ADDR& rec, const uint8_t* data, int data_len, uint8_t* reply)
{
    uint8_t src[LOCAL_DATA_MAX] = {};
    stage_write(src, data, data_len);
    ShmSemGuard sem(semid);
    Span sp;
    const Access a = make_span(rec, LOCAL_DATA_MAX, true, sp) ? store_sram(rec, sp, src) : Access::refused;
    if (a == Access::done) {
        return status_reply(reply, write_success);
    }
    return a == Access::refused ? produce_refusal_pack(reply, CMD_WRITE) : 0;
}

bool write_local_mem_rw(const REG_ADDR& rec, const uint8_t* buf, size_t buf_size)
{
    ShmSemGuard sem(semid);
    Span sp;
    if (!make_span(rec, std::min(buf_size, LOCAL_DATA_MAX), false, sp) || !local_in_bounds(rec, sp)) {
        return false;
    }
    store_local(rec, sp, buf);
    return true;
}

bool write_sram_rw(const REG_ADDR& rec, const uint8_t* buf, size_t buf_size)
{
    ShmSemGuard sem(semid);
    Span sp;
    if (!make_span(rec, std::min(buf_size, LOCAL_DATA_MAX), true, sp)) {
        return false;
    }
    return store_sram(rec, sp, buf) != Access::refused;
}
