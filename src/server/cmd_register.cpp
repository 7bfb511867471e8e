// Commands 1 and 2: register and unregister ranges for cyclic polling.
#include <cstring>
#include <limits>
#include <mutex>

#include "base/globals.h"
#include "driver/driver_traits.h"
#include "server/commands.h"
#include "store/addressing.h"
#include "tables/table_ops.h"

namespace {

// The largest cache a range may have: one data reply (15 bytes of framing)
// must hold it, and so must the port thread's 4096-byte buffers.
constexpr int MAX_RANGE_BYTES = static_cast<int>(MAX_READ_ACK_DATA);

const uint8_t* record_at(const uint8_t* packet, int i) { return packet + PKT_RECORDS + RECORD_SIZE * i; }

} // namespace

bool prepare_record(Connection& c, const uint8_t* rec_bytes)
{
    std::memcpy(&c.REG_ADDR_temp, rec_bytes, sizeof(REG_ADDR));
    bool converted = false;
    const com_port_info* port = com_port(c.REG_ADDR_temp.deviceport_id);
    const uint8_t kind = c.REG_ADDR_temp.reg_id;
    if (port != nullptr && driver_traits(port->plc_driver_no).modbus && (kind == MODBUS_INPUT_REGISTER_BITS || kind == MODBUS_HOLDING_REGISTER_BITS)) {
        c.modbus_orig = c.REG_ADDR_temp;
        change_REG_ADDR_temp_to_Modbus_Extend(c.REG_ADDR_temp, kind);
        converted = true;
    }
    reg_addr_change(c.REG_ADDR_temp);
    return converted;
}

bool range_pollable(const REG_ADDR& rec)
{
    // Block starts and ends are register numbers: the range's end must be one too.
    if (rec.reg_data_width < 1 ||
        int64_t{rec.reg_addr_start} + rec.reg_data_width > std::numeric_limits<int32_t>::max()) {
        return false;
    }
    const int size = cal_commbuf_size(rec);
    return size >= 1 && size <= MAX_RANGE_BYTES;
}

void cmd_register(Connection& c, const uint8_t* packet)
{
    const int n = records_in_packet(packet);
    {
        std::unique_lock lock(rwlock);
        for (int i = 0; i < n; ++i) {
            prepare_record(c, record_at(packet, i));
            if (range_pollable(c.REG_ADDR_temp)) {
                insert_ORT_FAT(c.REG_ADDR_temp);
            }
        }
    }
    answer(c, produce_ack_pack(c.reply, head, register_ok, sizeof register_ok));
}

void cmd_unregister(Connection& c, const uint8_t* packet)
{
    if (!table_flag_keep_on_unregister()) {
        const int n = records_in_packet(packet);
        std::unique_lock lock(rwlock);
        for (int i = 0; i < n; ++i) {
            prepare_record(c, record_at(packet, i));
            unregister_ORT_FAT(c.REG_ADDR_temp);
        }
    }
    answer(c, produce_ack_pack(c.reply, head, unregister_ok, sizeof unregister_ok));
}
