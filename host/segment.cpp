// Layout and filling of the shared segment. The offsets computed here are the
// ones the server reads from the header; keep the two in step.
#include "host/segment.h"

#include <cstring>

namespace {

size_t align_up(size_t n, size_t a)
{
    return (n + a - 1) / a * a;
}

} // namespace

SegmentLayout segment_layout(const HostConfig& cfg)
{
    SegmentLayout l{};
    l.word_offset = align_up(SHM_PORT_RECORDS + sizeof(com_port_info) * cfg.ports.size(), 4096);
    l.word_bytes = size_t{cfg.local_word_count} * 2;
    l.bit_offset = align_up(l.word_offset + l.word_bytes, 4);
    l.bit_bytes = (size_t{cfg.local_bit_count} + 31) / 32 * 4;
    l.size = l.bit_offset + l.bit_bytes;
    return l;
}

void segment_fill(uint8_t* base, const SegmentLayout& layout, const HostConfig& cfg)
{
    std::memset(base, 0, layout.size);
    shm_head head{};
    head.local_short_offset = static_cast<uint32_t>(layout.word_offset);
    head.local_bit_offset = static_cast<uint32_t>(layout.bit_offset);
    head.PORT = cfg.tcp_port;
    head.port_num = static_cast<uint8_t>(cfg.ports.size());
    std::memcpy(base, &head, sizeof head);
    for (size_t i = 0; i < cfg.ports.size(); ++i)
        std::memcpy(base + SHM_PORT_RECORDS + sizeof(com_port_info) * i, &cfg.ports[i].record,
                    sizeof(com_port_info));
    // Local bit n is bit n % 32 of little-endian word n / 32, i.e. bit n % 8 of byte n / 8.
    uint8_t* bits = base + layout.bit_offset;
    for (uint32_t n : cfg.initial_bits)
        bits[n / 8] |= static_cast<uint8_t>(1u << (n % 8));
}
