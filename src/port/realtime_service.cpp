// Realtime request service of a port thread: the reads, writes and
// read-modify-writes that clients queue in the realtime list. At most three
// requests are served per cycle so that block polling keeps its pace.
//
// `mutex` guards every request node's status, data and rw_oper. It is held
// only while a request is copied in or its outcome copied out, never across
// a driver call, and released before a cache refresh (which takes rwlock).
// Between the two locked sections the node pointer stays valid: a pending
// request is never deleted by the client side or the sweeper. Once its
// status is stored the node may go at any moment, so the values a refresh
// needs are copied into the port's own buffers first.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "base/byte_order.h"
#include "driver/driver_traits.h"
#include "port/com_state.h"
#include "port/port_thread.h"
#include "port/refresh.h"
#include "store/addressing.h"
#include "store/rw_operation.h"
#include "tables/realtime_list.h"

namespace {

constexpr int REALTIME_TRIES = 3;

// What the service copies out of a request node before talking to the driver.
struct Request {
    RORT_node* node;
    int16_t req_type;
    REG_ADDR reg_addr;
    rw_oper rw;
    int n;             // data bytes of the range
};

// Drivers that keep 32-bit values of byte-addressed ranges in their own order.
bool word_order_family(const PortThread& t)
{
    return is_siemens_driver(t.drv.driver_no) || is_s2_driver(t.drv.driver_no);
}

bool byte_addressed(const REG_ADDR& r, uint8_t reg_type) { return r.addr_unit == 1 && r.reg_type == reg_type; }

// A byte-addressed 32-bit range that starts inside a cell: the value sits
// byte_offset bytes into the first cell read, and one cell fewer is written.
bool split_case(const PortThread& t, const REG_ADDR& r)
{
    return word_order_family(t) && byte_addressed(r, 4) && r.byte_offset != 0;
}

// One driver call with fresh copies of the address and data reference, so
// that nothing a driver changes in them leaks into the next attempt.
int rtm_read(PortThread& t, const DrvRegAddr& addr, int32_t count, uint8_t* data)
{
    DrvRegAddr a = addr;
    DrvDataRef ref{count, data};
    return ComOper_RtmRead(t.op, &a, &ref, &t.param.param);
}

int rtm_write(PortThread& t, const DrvRegAddr& addr, int32_t count, uint8_t* data)
{
    DrvRegAddr a = addr;
    DrvDataRef ref{count, data};
    return ComOper_Write(t.op, &a, &ref, &t.param.param);
}

void refresh_after_write(const REG_ADDR& r, const uint8_t* values)
{
    refresh_writeOK_ORG(RealtimeImage{r, 1, values});
}

// Copies the node's data into dst, n bytes, zero-filling what the node does
// not hold. The caller holds `mutex`.
void copy_node_data(uint8_t* dst, const RORT_node& node, int n)
{
    const int m = std::clamp<int>(node.data_len, 0, n);
    std::memcpy(dst, node.data, static_cast<size_t>(m));
    std::memset(dst + m, 0, static_cast<size_t>(n - m));
}

// Stores data bytes into the node, never past its buffer. Holds `mutex`.
void store_node_data(RORT_node& node, const uint8_t* src, int n)
{
    const int m = std::clamp<int>(node.data_len, 0, n);
    std::memcpy(node.data, src, static_cast<size_t>(m));
}

void complete(RORT_node* node, int16_t status)
{
    std::lock_guard lock(mutex);
    node->status = status;
}

// Whether the request can be served with the port's 4096-byte buffers. A
// request that cannot is completed as failed rather than left pending,
// because the oldest pending request of a port is always served first and
// would block every later one.
bool servable(const PortThread& t, const Request& q)
{
    if (q.n < 0 || q.n > PORT_BUF_SIZE) {
        return false;
    }
    switch (q.req_type) {
    case REQ_READ:
        return true;
    case REQ_WRITE:
        return q.node->data_len >= 0 && q.node->data_len <= PORT_BUF_SIZE;
    case REQ_RMW:
        if (q.rw.op_code > RW_PULSE) {
            return false;
        }
        if (q.rw.op_code < RW_PULSE && split_case(t, q.reg_addr)) {
            // The operation reads and writes 8 bytes from the offset, and the
            // write sends the cells after it.
            return q.reg_addr.byte_offset + std::max(8, q.n - 4) <= PORT_BUF_SIZE;
        }
        return true;
    default:
        return false;
    }
}

// Copies the request out of its node (under `mutex`). Returns false when the
// request was completed as failed right away.
bool take_request(PortThread& t, RORT_node* node, Request& q)
{
    std::lock_guard lock(mutex);
    q.node = node;
    q.req_type = node->req_type;
    q.reg_addr = node->reg_addr;
    q.rw = node->rw_oper;
    q.n = cal_commbuf_size(q.reg_addr);
    if (!servable(t, q)) {
        node->status = STATUS_FAILED;
        return false;
    }
    if (q.req_type == REQ_WRITE) {
        std::memset(t.write_copy, 0, PORT_BUF_CLEARED);
        copy_node_data(t.write_copy, *node, q.n);
        std::memcpy(t.buf, t.write_copy, static_cast<size_t>(q.n));
    }
    return true;
}

void serve_read(PortThread& t, const Request& q)
{
    const DrvRegAddr addr = drv_reg_addr(q.reg_addr, false);
    std::memset(t.buf, 0, static_cast<size_t>(q.n));
    int r = 0;
    for (int i = 0; i < REALTIME_TRIES; ++i) {
        r = rtm_read(t, addr, q.reg_addr.reg_data_width, t.buf);
        if (r == 0) {
            break;
        }
    }
    const auto status = static_cast<int16_t>(status_from_result(r));
    std::lock_guard lock(mutex);
    if (status == STATUS_OK) {
        store_node_data(*q.node, t.buf, q.n);
    }
    q.node->status = status;
}

void serve_write(PortThread& t, const Request& q)
{
    const DrvRegAddr addr = drv_reg_addr(q.reg_addr, true);
    int r = 0;
    for (int i = 0; i < REALTIME_TRIES; ++i) {
        // A driver may convert its buffer in place: every attempt sends the
        // request's values again.
        std::memcpy(t.buf, t.write_copy, static_cast<size_t>(q.n));
        r = rtm_write(t, addr, q.reg_addr.reg_data_width, t.buf);
        if (r == 0) {
            break;
        }
    }
    const auto status = static_cast<int16_t>(status_from_result(r));
    complete(q.node, status);

    // Word and double word caches of byte-addressed ranges hold values in
    // another layout for these drivers; they are left to the next poll.
    const REG_ADDR& ra = q.reg_addr;
    const bool keep_caches = word_order_family(t) && (byte_addressed(ra, 2) || byte_addressed(ra, 4));
    if (status == STATUS_OK && !keep_caches) {
        refresh_after_write(ra, t.write_copy);
    }
}

// Write 1, then (once that went through) 0: a pulse on the register.
void serve_pulse(PortThread& t, const Request& q)
{
    std::puts("1:rw function code 0x100");
    const REG_ADDR& ra = q.reg_addr;
    const DrvRegAddr addr = drv_reg_addr(ra, true);
    const bool keep_caches = word_order_family(t) && byte_addressed(ra, 4);
    const auto cleared = static_cast<size_t>(std::max(PORT_BUF_CLEARED, q.n));

    std::memset(t.buf, 0, cleared);
    t.buf[0] = 1;
    if (!keep_caches) {
        refresh_after_write(ra, t.buf);
    }
    int r = rtm_write(t, addr, ra.reg_data_width, t.buf);
    if (r == 0) {
        for (int i = 0; i < REALTIME_TRIES; ++i) {
            std::memset(t.buf, 0, cleared);
            r = rtm_write(t, addr, ra.reg_data_width, t.buf);
            if (r == 0) {
                break;
            }
        }
    }

    const auto status = static_cast<int16_t>(status_from_result(r));
    {
        std::lock_guard lock(mutex);
        q.node->status = status;
        if (status == STATUS_OK) {
            copy_node_data(t.write_copy, *q.node, q.n);
        }
    }
    if (status == STATUS_OK && !keep_caches) {
        refresh_after_write(ra, t.write_copy);
    }
}

// Applies the operation to the value read, in `value` (a whole port buffer,
// so the operation may use 8 bytes from wherever the value starts).
void apply_operation(const PortThread& t, const REG_ADDR& ra, uint8_t* value, rw_oper& rw)
{
    const bool dword_by_byte = byte_addressed(ra, 4);
    if (split_case(t, ra)) {
        REG_ADDR shortened = ra;
        shortened.reg_data_width = static_cast<int16_t>(ra.reg_data_width - 1);
        uint8_t* at = value + ra.byte_offset;
        const int siemens = is_siemens_driver(t.drv.driver_no) ? 1 : 0;
        if (siemens != 0) {
            simens_change(at, 1);
        }
        process_rw_operation(shortened, at, rw, siemens);
    } else if (is_siemens_driver(t.drv.driver_no) && dword_by_byte) {
        simens_change(value, 1);
        process_rw_operation(ra, value, rw, 1);
    } else {
        process_rw_operation(ra, value, rw, 0);
    }
}

void serve_rmw(PortThread& t, const Request& q)
{
    const REG_ADDR& ra = q.reg_addr;
    const DrvRegAddr addr = drv_reg_addr(ra, true);
    std::memset(t.buf, 0, static_cast<size_t>(q.n));
    const int read = rtm_read(t, addr, ra.reg_data_width, t.buf);
    if (read != 0) {
        complete(q.node, static_cast<int16_t>(status_from_result(read)));
        return;
    }

    // The value is worked on in the write copy, which also keeps it for the
    // cache refresh after the node has been handed back.
    rw_oper rw = q.rw;
    std::memset(t.write_copy, 0, PORT_BUF_SIZE);
    std::memcpy(t.write_copy, t.buf, static_cast<size_t>(q.n));
    apply_operation(t, ra, t.write_copy, rw);
    std::memcpy(t.buf, t.write_copy, static_cast<size_t>(q.n));

    int r;
    if (split_case(t, ra)) {
        r = rtm_write(t, addr, ra.reg_data_width - 1, t.buf + ra.byte_offset);
    } else {
        r = rtm_write(t, addr, ra.reg_data_width, t.buf);
    }

    const auto status = static_cast<int16_t>(status_from_result(r));
    {
        std::lock_guard lock(mutex);
        store_node_data(*q.node, t.write_copy, q.n);
        q.node->rw_oper = rw;
        q.node->status = status;
    }
    const bool keep_caches = word_order_family(t) && byte_addressed(ra, 4);
    if (status == STATUS_OK && !keep_caches) {
        refresh_after_write(ra, t.write_copy);
    }
}

void serve_request(PortThread& t, RORT_node* node)
{
    Request q{};
    if (!take_request(t, node, q)) {
        return;
    }
    switch (q.req_type) {
    case REQ_READ:
        serve_read(t, q);
        break;
    case REQ_WRITE:
        serve_write(t, q);
        break;
    default:
        if (q.rw.op_code == RW_PULSE) {
            serve_pulse(t, q);
        } else {
            serve_rmw(t, q);
        }
        break;
    }
}

// A port whose driver lacks entry points cannot serve anything: its
// requests are completed as failed so that their clients stop waiting.
void fail_pending(int port)
{
    std::lock_guard lock(mutex);
    for (RORT_node* n = RORT_link_head->next; n != RORT_link_tail; n = n->next) {
        if (n->status == STATUS_PENDING && n->reg_addr.deviceport_id == port) {
            n->status = STATUS_FAILED;
        }
    }
}

} // namespace

void port_serve_realtime(PortThread& t)
{
    if (!t.usable) {
        fail_pending(t.port);
        return;
    }
    for (int i = 0; i < REALTIME_REQUESTS_PER_CYCLE; ++i) {
        RORT_node* node = check_realtime_link(t.port);
        if (node == nullptr) {
            return;
        }
        serve_request(t, node);
    }
}
