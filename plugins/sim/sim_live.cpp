// Live register memory of the simulated plug-in. Every access to the written-
// register map holds mutex_.
#include "sim_live.h"

#include "sim_control.h"

namespace {

uint64_t region_key(uint32_t bus, uint16_t station, uint8_t reg_id)
{
    return uint64_t{bus} << 24 | uint64_t{station} << 8 | reg_id;
}

} // namespace

int32_t SimLiveMemory::read(uint32_t bus, uint16_t station, uint8_t reg_id, uint8_t reg_type,
                            int32_t start, int32_t count, uint8_t* buf)
{
    if (!sim_range_ok(reg_type, start, count))
        return SIM_ERROR;
    auto secs = static_cast<uint32_t>(time(nullptr) - t0_);
    std::lock_guard lock(mutex_);
    auto it = regions_.find(region_key(bus, station, reg_id));
    const Region* region = it == regions_.end() ? nullptr : &it->second;
    if (reg_type == 0) {
        sim_copy_out(region ? region->mem.data() : nullptr, 0, start, count, buf);
        for (int32_t i = 0; i < count; ++i) {
            int32_t b = start + i;
            if (region && region->written[b / 8])
                continue;
            // An unwritten bit blinks: on in every other second.
            if ((static_cast<uint32_t>(b) + secs) & 1)
                buf[i / 8] |= static_cast<uint8_t>(1u << (i % 8));
        }
        return SIM_OK;
    }
    for (int32_t i = 0; i < count; ++i) {
        uint32_t live = static_cast<uint32_t>(start + i) + secs;
        for (int k = 0; k < reg_type; ++k) {
            size_t at = static_cast<size_t>(start + i) * reg_type + k;
            bool kept = region && region->written[at];
            buf[static_cast<size_t>(i) * reg_type + k] = kept ? region->mem[at] : static_cast<uint8_t>(live >> (8 * k));
        }
    }
    return SIM_OK;
}

int32_t SimLiveMemory::write(uint32_t bus, uint16_t station, uint8_t reg_id, uint8_t reg_type,
                             int32_t start, int32_t count, const uint8_t* buf)
{
    if (!sim_range_ok(reg_type, start, count))
        return SIM_ERROR;
    if (count == 0)
        return SIM_OK;
    std::lock_guard lock(mutex_);
    Region& region = regions_[region_key(bus, station, reg_id)];
    if (region.mem.empty()) {
        region.mem.assign(SIM_REGION_BYTES, 0);
        region.written.assign(SIM_REGION_BYTES, 0);
    }
    sim_copy_in(region.mem.data(), reg_type, start, count, buf);
    if (reg_type == 0) {
        for (int32_t b = start; b < start + count; ++b)
            region.written[b / 8] = 1;
    } else {
        size_t first = static_cast<size_t>(start) * reg_type;
        std::fill_n(region.written.begin() + first, static_cast<size_t>(count) * reg_type, uint8_t{1});
    }
    return SIM_OK;
}
