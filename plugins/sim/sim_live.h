// Register memory of the simulated plug-in when no control file is named:
// registers that nobody wrote show values that change every second, so a
// demonstration shows live data; written registers keep what was written.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <mutex>
#include <vector>

class SimLiveMemory {
public:
    SimLiveMemory() : t0_(time(nullptr)) {}

    // Same contract as sim_mem_read / sim_mem_write of sim_control.h.
    int32_t read(uint32_t bus, uint16_t station, uint8_t reg_id, uint8_t reg_type, int32_t start,
                 int32_t count, uint8_t* buf);
    int32_t write(uint32_t bus, uint16_t station, uint8_t reg_id, uint8_t reg_type, int32_t start,
                  int32_t count, const uint8_t* buf);

private:
    struct Region {
        std::vector<uint8_t> mem;
        std::vector<uint8_t> written;   // one flag per byte of mem
    };

    std::mutex mutex_;
    std::map<uint64_t, Region> regions_;
    time_t t0_;
};
