// Write and read-modify-write commands (5, 7, 9, 10).
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "port/port_thread.h"
#include "server/commands.h"
#include "server/reply_data.h"
#include "store/addressing.h"
#include "store/local_mem.h"
#include "store/rw_operation.h"
#include "tables/realtime_list.h"

namespace {

// A PLC request is queued only when its data fit the port thread's buffers.
bool request_size_ok(const REG_ADDR& rec)
{
    const int size = cal_commbuf_size(rec);
    return size >= 1 && size <= PORT_BUF_SIZE;
}

static_assert(sizeof(::rw_oper) == RW_BLOCK_SIZE);

// The read-modify-write block of commands 9 and 10; a short request leaves
// out the value type, which is then 0.
::rw_oper packet_rw_block(const uint8_t* packet)
{
    ::rw_oper block{};
    const size_t n = parse_package_len(packet) >= BODY_RW ? RW_BLOCK_SIZE : RW_BLOCK_SHORT;
    std::memcpy(&block, packet + PKT_DATA, n);
    return block;
}

} // namespace

void cmd_write(Connection& c, const uint8_t* packet)
{
    c.REG_ADDR_temp = packet_reg_addr(packet);
    write_reg_addr_change(c.REG_ADDR_temp);
    const REG_ADDR& rec = c.REG_ADDR_temp;
    const uint8_t* data = packet + PKT_DATA;
    const int data_len = std::max(cal_write_data_length(packet), 0);
    if (is_local_area(rec.reg_id)) {
        answer(c, write_local_mem(rec, data, data_len, c.reply));
        return;
    }
    if (is_sram_area(rec.reg_id)) {
        answer(c, write_sram(rec, data, data_len, c.reply));
        return;
    }
    if (!is_plc_area(rec.reg_id)) {
        return;
    }
    if (!request_size_ok(rec)) {
        answer_refusal(c, CMD_WRITE);
        return;
    }
    if (refuse_unserved_port(c, rec, CMD_WRITE)) {
        return;
    }

    // The port thread copies the range's size from the request's data, so the
    // buffer holds at least that much; what the client did not send is 0.
    RORT_node* node = new_realtime_node(std::max<int>(cal_commbuf_size(rec), data_len));
    if (node != nullptr) {
        std::memcpy(node->data, data, static_cast<size_t>(data_len));
    }
    std::lock_guard lock(mutex);
    queue_request(c, node, REQ_WRITE, CMD_WRITE, write_err_01);
}

void cmd_writecheck(Connection& c, const uint8_t* packet)
{
    // Normalised like the write itself, so that a check finds its write even
    // for a byte address inside a 32-bit register.
    c.REG_ADDR_temp = packet_reg_addr(packet);
    write_reg_addr_change(c.REG_ADDR_temp);
    static constexpr CheckAnswers answers{
        CMD_WRITECHECK, writecheck_err_01, writecheck_err_02, writecheck_err_03,
        [](Connection& conn, const RORT_node&) { answer_status(conn, writecheck_success); },
        [](int status) { std::printf(" 0x7:status=%d\r\n", status); }};
    answer_check(c, c.REG_ADDR_temp, ::rw_oper{}, REQ_WRITE, answers);
}

namespace {

// Commands 9 on a local area or the SRAM: read, operate and write at once;
// the read and the write each take the segment semaphore.
void local_realtime_rw(Connection& c, bool local)
{
    const REG_ADDR& rec = c.REG_ADDR_temp;
    bool ok = local ? read_local_mem_rw(rec, c.value_buf, sizeof c.value_buf)
                    : read_sram_rw(rec, c.value_buf, sizeof c.value_buf);
    if (ok) {
        process_rw_operation(rec, c.value_buf, c.rw_block, 0);
        ok = local ? write_local_mem_rw(rec, c.value_buf, sizeof c.value_buf)
                   : write_sram_rw(rec, c.value_buf, sizeof c.value_buf);
    }
    if (!ok) {
        answer_refusal(c, CMD_REALTIME_RW);
        return;
    }
    answer(c, produce_rw_ack_pack(c.reply, head, static_cast<uint8_t>(c.rw_block.direction), CMD_REALTIME_RW));
}

} // namespace

void cmd_realtime_rw(Connection& c, const uint8_t* packet)
{
    c.REG_ADDR_temp = packet_reg_addr(packet);
    reg_addr_change(c.REG_ADDR_temp);
    const REG_ADDR& rec = c.REG_ADDR_temp;
    c.rw_block = packet_rw_block(packet);
    std::memset(c.value_buf, 0, sizeof c.value_buf);

    const bool local = is_local_area(rec.reg_id);
    if (local || is_sram_area(rec.reg_id)) {
        local_realtime_rw(c, local);
        return;
    }
    if (!is_plc_area(rec.reg_id)) {
        return;
    }
    if (!request_size_ok(rec)) {
        answer_refusal(c, CMD_REALTIME_RW);
        return;
    }
    if (refuse_unserved_port(c, rec, CMD_REALTIME_RW)) {
        return;
    }

    RORT_node* node = new_realtime_node(cal_commbuf_size(rec));
    if (node != nullptr) {
        node->rw_oper = c.rw_block;
    }
    std::lock_guard lock(mutex);
    queue_request(c, node, REQ_RMW, CMD_REALTIME_RW, realtime_rw_err_01);
}

void cmd_realtime_rw_check(Connection& c, const uint8_t* packet)
{
    c.REG_ADDR_temp = packet_reg_addr(packet);
    reg_addr_change(c.REG_ADDR_temp);
    c.rw_block = packet_rw_block(packet);
    static constexpr CheckAnswers answers{
        CMD_REALTIME_RW_CHECK, realtime_rw_check_err_01, realtime_rw_check_err_02, realtime_rw_check_err_03,
        [](Connection& conn, const RORT_node& r) {
            answer(conn, produce_rw_ack_pack(conn.reply, head, static_cast<uint8_t>(r.rw_oper.direction),
                                             CMD_REALTIME_RW_CHECK));
        },
        [](int status) {
            if (status == STATUS_NO_ANSWER) {
                std::puts("Write timeout\r");
            } else if (status != STATUS_PENDING && status != STATUS_OK) {
                std::puts("Write Error\r");
            }
        }};
    answer_check(c, c.REG_ADDR_temp, c.rw_block, REQ_RMW, answers);
}
