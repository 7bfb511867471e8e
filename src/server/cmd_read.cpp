// Read commands: cached reads (3, 19), realtime reads (4, 6) and the cached
// read with realtime fall-back (8).
#include <cassert>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <shared_mutex>

#include "base/byte_order.h"
#include "port/com_state.h"
#include "server/commands.h"
#include "server/reply_data.h"
#include "store/addressing.h"
#include "store/local_mem.h"
#include "tables/realtime_list.h"
#include "tables/table_ops.h"

namespace {

// Queues a realtime read of c.REG_ADDR_temp for its port thread and answers.
void queue_realtime_read(Connection& c, uint8_t command, const uint8_t* queued)
{
    std::lock_guard lock(mutex);
    queue_request(c, new_realtime_node(cal_commbuf_size(c.REG_ADDR_temp)), REQ_READ, command, queued);
}

// True when a port thread has the record's PLC station in time-out.
bool plc_in_timeout(const REG_ADDR& rec)
{
    ComStateItem item{};
    item.port = rec.deviceport_id;
    item.plc_id = rec.plc_id;
    return VGlobComState_Find(VGlobComState_Instance(), ComStateItem_GetKey4ComState(item)) >= 0;
}

bool same_station(const REG_ADDR& a, const REG_ADDR& b)
{
    return a.deviceport_id == b.deviceport_id && a.plc_id == b.plc_id;
}

int64_t range_end(const REG_ADDR& r)
{
    return int64_t{r.reg_addr_start} + r.reg_data_width;
}

// Answers command 3 from a registered range's cache and marks the range
// read. The caller holds rwlock, for reading at least.
void answer_cached(Connection& c, ORG_node& o, const REG_ADDR& rec)
{
    assert(lock_rules::holds(lock_rules::TABLES));
    o.age.store(0, std::memory_order_relaxed);
    switch (o.status) {
    case STATUS_OK: answer(c, produce_node_reply(c.reply, CMD_COM_READ, o.reg_addr, o.data, cal_commbuf_size(rec))); break;
    case STATUS_PENDING: answer_status(c, com_read_err_01); break;
    case STATUS_NO_ANSWER: answer_status(c, com_read_err_02); break;
    default: answer_status(c, com_read_err_03); break;
    }
}

enum class CacheAnswer { Sent, NoReply, NotCached };

// Answers command 8 from the ORG caches when cached ranges with valid data
// cover the whole request. The caller holds rwlock (shared).
CacheAnswer serve_from_caches(Connection& c, const REG_ADDR& rec)
{
    assert(lock_rules::holds(lock_rules::TABLES));
    const int32_t start = rec.reg_addr_start;
    ORG_node* node = ORT_link_head->next;
    for (; node != ORT_link_tail; node = node->next) {
        const REG_ADDR& o = node->reg_addr;
        if (same_station(o, rec) && o.bcd_flag == rec.bcd_flag && o.reg_id == rec.reg_id &&
            o.reg_addr_start <= start && start < range_end(o)) {
            break;
        }
    }
    if (node == ORT_link_tail) {
        return CacheAnswer::NotCached;
    }
    if (rec.reg_type != 0 && rec.reg_type != 2 && rec.reg_type != 4) {
        return CacheAnswer::NoReply;
    }

    const int size = cal_commbuf_size(rec);
    const int elem = rec.reg_type;  // bytes per element; 0 for bits
    uint8_t scratch[PACKET_BUF_SIZE] = {};
    for (int i = 0; i < rec.reg_data_width; ++i) {
        // Register numbers of the walk are 16-bit: a start beyond 32767
        // wraps negative and is never found in a cache.
        const auto a = static_cast<int16_t>(static_cast<uint32_t>(start) + static_cast<uint32_t>(i));
        // Move on to the range that holds element a. Ranges of one area are
        // ordered by start, so shorter ranges inside the one just used are
        // passed over.
        while (node != ORT_link_tail && a >= range_end(node->reg_addr) &&
               same_area(node->reg_addr, rec)) {
            node = node->next;
        }
        if (node == ORT_link_tail) {
            return CacheAnswer::NotCached;
        }
        const REG_ADDR& o = node->reg_addr;
        if (!same_area(o, rec) || o.reg_addr_start > a || a >= range_end(o) || node->status != STATUS_OK) {
            return CacheAnswer::NotCached;
        }
        const int e = a - o.reg_addr_start;
        if (elem == 0) {
            if ((node->data[e / 8] >> (e % 8)) & 1) {
                scratch[i / 8] = static_cast<uint8_t>(scratch[i / 8] | (1u << (i % 8)));
            }
        } else {
            std::memcpy(scratch + i * elem, node->data + e * elem, static_cast<size_t>(elem));
        }
    }

    // The data choice follows the range in use at the end of the walk; the
    // byte offset is the request's own.
    REG_ADDR form = rec;
    form.addr_unit = node->reg_addr.addr_unit;
    answer(c, produce_node_reply(c.reply, CMD_COM_REALTIME_READ, form, scratch, size));
    return CacheAnswer::Sent;
}

// Writes entry i of the command-19 reply for a PLC record: a data entry
// from the range's cache, or an error entry. Returns the bytes the entry
// occupies (a data entry always takes 3 + the cache size).
size_t sub_read_plc_entry(Connection& c, uint8_t* entry, size_t room, bool modbus_view)
{
    const REG_ADDR& rec = c.REG_ADDR_temp;
    auto error_entry = [entry](uint8_t err) { return produce_sub_read_error_entry(entry, err); };
    if (!range_pollable(rec)) {
        return error_entry(REPLY_FAILED);
    }
    // Looked up before taking rwlock: the time-out table has a lock of its own.
    const bool timed_out = plc_in_timeout(rec);

    std::unique_lock lock(rwlock);
    const OrtFatResult r = insert_ORT_FAT(rec);
    if (r.created || r.org == nullptr) {
        return error_entry(REPLY_NOT_YET);
    }
    ORG_node* o = r.org;
    o->age = 0;
    int s = o->status;
    if (s == STATUS_OK && timed_out) {
        s = STATUS_NO_ANSWER;  // the station does not answer: its cached data are not offered
    }
    switch (s) {
    case STATUS_OK: break;
    case STATUS_PENDING: return error_entry(REPLY_NOT_YET);
    case STATUS_NO_ANSWER: return error_entry(REPLY_NO_ANSWER);
    default: return error_entry(REPLY_FAILED);
    }

    const int size = cal_commbuf_size(rec);
    if (SUB_ENTRY_DATA + static_cast<size_t>(size) > room) {
        return error_entry(REPLY_FAILED);
    }
    if (modbus_view) {
        const int count = c.modbus_orig.reg_data_width;
        if (count < 1 || (count + 7) / 8 > size) {
            return error_entry(REPLY_FAILED);
        }
        produce_sub_read_ack_pack_Modbus_Extend(entry, static_cast<uint16_t>(count), o->data,
                                                c.modbus_orig.reg_addr_start % MODBUS_REGISTER_BITS);
    } else {
        produce_node_sub_entry(entry, o->reg_addr, o->data, size);
    }
    return SUB_ENTRY_DATA + static_cast<size_t>(size);
}

// Local areas and SRAM are read at once, with the reply built by the area's
// reader; a record of no area gets no reply. True unless the record names a
// PLC area.
bool read_outside_plc(Connection& c, const REG_ADDR& rec, uint8_t command)
{
    if (is_local_area(rec.reg_id)) {
        answer(c, read_local_mem(rec, command, c.reply));
    } else if (is_sram_area(rec.reg_id)) {
        answer(c, read_sram(rec, command, c.reply));
    }
    return !is_plc_area(rec.reg_id);
}

} // namespace

void cmd_com_read(Connection& c, const uint8_t* packet)
{
    c.REG_ADDR_temp = packet_reg_addr(packet);
    reg_addr_change(c.REG_ADDR_temp);
    const REG_ADDR& rec = c.REG_ADDR_temp;
    if (read_outside_plc(c, rec, CMD_COM_READ)) {
        return;
    }
    if (!range_pollable(rec)) {
        answer_status(c, com_read_err_03);
        return;
    }

    {
        // The common case, a range read before: many connections look it up
        // at once and only reset its age, which is atomic.
        std::shared_lock lock(rwlock);
        if (ORG_node* o = find_ORT_FAT(rec)) {
            answer_cached(c, *o, rec);
            return;
        }
    }
    std::unique_lock lock(rwlock);
    const OrtFatResult r = insert_ORT_FAT(rec);
    if (r.created || r.org == nullptr) {
        // A range that could not be registered (no memory) has no data yet either.
        answer_status(c, com_read_err_01);
        return;
    }
    answer_cached(c, *r.org, rec);  // registered by another connection meanwhile
}

void cmd_realtime_read(Connection& c, const uint8_t* packet)
{
    c.REG_ADDR_temp = packet_reg_addr(packet);
    reg_addr_change(c.REG_ADDR_temp);
    const REG_ADDR& rec = c.REG_ADDR_temp;
    if (read_outside_plc(c, rec, CMD_REALTIME_READ)) {
        return;
    }
    if (!range_pollable(rec)) {
        answer_refusal(c, CMD_REALTIME_READ);
        return;
    }
    if (!refuse_unserved_port(c, rec, CMD_REALTIME_READ)) {
        queue_realtime_read(c, CMD_REALTIME_READ, realtime_read_err_01);
    }
}

void cmd_realtime_readcheck(Connection& c, const uint8_t* packet)
{
    c.REG_ADDR_temp = packet_reg_addr(packet);
    reg_addr_change(c.REG_ADDR_temp);
    static constexpr CheckAnswers answers{
        CMD_REALTIME_READCHECK, realtime_readcheck_err_01, realtime_readcheck_err_02, realtime_readcheck_err_03,
        [](Connection& conn, const RORT_node& r) {
            answer(conn, produce_node_reply(conn.reply, CMD_REALTIME_READCHECK, r.reg_addr, r.data,
                                            cal_commbuf_size(conn.REG_ADDR_temp)));
        },
        nullptr};
    answer_check(c, c.REG_ADDR_temp, ::rw_oper{}, REQ_READ, answers);
}

void cmd_com_realtime_read(Connection& c, const uint8_t* packet)
{
    c.REG_ADDR_temp = packet_reg_addr(packet);
    reg_addr_change(c.REG_ADDR_temp);
    const REG_ADDR& rec = c.REG_ADDR_temp;
    if (read_outside_plc(c, rec, CMD_COM_REALTIME_READ)) {
        return;
    }
    if (!range_pollable(rec)) {
        answer_refusal(c, CMD_COM_REALTIME_READ);
        return;
    }
    {
        std::shared_lock lock(rwlock);
        if (serve_from_caches(c, rec) != CacheAnswer::NotCached) {
            return;
        }
    }
    // rwlock is released before mutex is taken: never both at once.
    if (!refuse_unserved_port(c, rec, CMD_COM_REALTIME_READ)) {
        std::puts("insert_realtime\r");
        queue_realtime_read(c, CMD_COM_REALTIME_READ, com_realtime_read_err_01);
    }
}

void cmd_sub_read(Connection& c, const uint8_t* packet)
{
    uint8_t* reply = c.reply;
    std::memset(reply, 0, sizeof c.reply);
    std::memcpy(reply, head, PACKET_HEADER_SIZE);
    const int n = records_in_packet(packet);
    uint8_t* body = reply + PACKET_HEADER_SIZE;
    body[0] = CMD_SUB_READ;
    body[SUB_COUNT] = static_cast<uint8_t>(n);

    // L: body offset of the next entry; the checksum byte must stay inside
    // the reply buffer.
    uint16_t L = static_cast<uint16_t>(SUB_OFFSETS + SUB_OFFSET_SIZE * n);
    constexpr size_t body_room = PACKET_BUF_SIZE - PACKET_HEADER_SIZE - 1;
    for (int i = 0; i < n; ++i) {
        const bool modbus_view = prepare_record(c, packet + PKT_RECORDS + RECORD_SIZE * i);
        const REG_ADDR& rec = c.REG_ADDR_temp;
        const size_t pos = PACKET_HEADER_SIZE + L;
        if (is_local_area(rec.reg_id)) {
            sub_read_local_mem(rec, reply, pos, i, L);
        } else if (is_sram_area(rec.reg_id)) {
            bat_read_sram(rec, reply, pos, i, L);
        } else if (is_plc_area(rec.reg_id)) {
            const size_t room = body_room - L;
            if (room < SUB_ENTRY_ERROR_LEN) {
                continue;  // the reply is full: no entry, offset stays 0
            }
            const size_t used = sub_read_plc_entry(c, body + L, room, modbus_view);
            put_le16(body + SUB_OFFSETS + SUB_OFFSET_SIZE * static_cast<size_t>(i), L);
            L = static_cast<uint16_t>(L + used);
        }
        // A record naming no area gets no entry: its offset stays 0.
    }
    body[L] = check_sum(body, L);
    const uint16_t package_len = static_cast<uint16_t>(L + 1);
    put_le16(reply + PKT_PACKAGE_LEN, package_len);
    answer(c, PACKET_HEADER_SIZE + 1 + L);
}
