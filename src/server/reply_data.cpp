// Byte order and start offset of the data answered for a cached or collected
// value. Reply bytes go to the client as built here.
#include "server/reply_data.h"

#include <algorithm>
#include <cstring>

#include "base/globals.h"
#include "base/protocol.h"
#include "driver/driver_traits.h"
#include "store/addressing.h"

ReplyForm choose_reply_data(const REG_ADDR& rec, const uint8_t* data, int size, uint8_t* scratch)
{
    const com_port_info* port = com_port(rec.deviceport_id);
    const int driver = port != nullptr ? port->plc_driver_no : -1;
    const bool split = rec.addr_unit == 1 && rec.reg_type == 4;
    const bool s1 = is_siemens_driver(driver);
    const bool s2 = is_s2_driver(driver);

    int offset = 0;
    if (split && (s1 || s2)) {
        offset = static_cast<int16_t>(rec.byte_offset);
    }
    const int cache = std::max<int>(cal_commbuf_size(rec), 0);
    std::memset(scratch, 0, static_cast<size_t>(std::max(size, 0)));
    if (offset >= 0 && offset < cache) {
        const int n = std::min(size, cache - offset);
        std::memcpy(scratch, data + offset, static_cast<size_t>(std::max(n, 0)));
    }
    return (split && s1) ? ReplyForm::Swapped : ReplyForm::Plain;
}

size_t produce_node_reply(uint8_t* out, uint8_t command, const REG_ADDR& rec, const uint8_t* data, int size)
{
    uint8_t scratch[PACKET_BUF_SIZE];
    size = std::clamp(size, 0, static_cast<int>(MAX_READ_ACK_DATA));
    const ReplyForm form = choose_reply_data(rec, data, size, scratch);
    const auto n = static_cast<uint16_t>(size);
    return form == ReplyForm::Swapped ? produce_read_ack_pack_simens(out, head, n, command, scratch)
                                      : produce_read_ack_pack(out, head, n, command, scratch);
}

size_t produce_node_sub_entry(uint8_t* entry, const REG_ADDR& rec, const uint8_t* data, int size)
{
    uint8_t scratch[PACKET_BUF_SIZE];
    size = std::clamp(size, 0, static_cast<int>(MAX_READ_ACK_DATA));
    const ReplyForm form = choose_reply_data(rec, data, size, scratch);
    const auto n = static_cast<uint16_t>(size);
    return form == ReplyForm::Swapped ? produce_sub_read_ack_pack_simens(entry, n, scratch)
                                      : produce_sub_read_ack_pack(entry, n, scratch);
}
