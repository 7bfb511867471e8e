// Sizes and offsets of the records handed to driver plug-ins, checked and
// printed at run time so that the log of the armhf run shows the device's
// layout. Expected values are the plug-in contract's numbers, written out.
#include <cstddef>
#include <cstdio>
#include <gtest/gtest.h>

#include "driver/plc_abi.h"

namespace {

struct Field {
    const char* name;
    size_t actual;
    size_t expected;
    bool holds_pointer; // laid out as the contract says only with 4-byte pointers
};

} // namespace

TEST(PluginRecords, LayoutOnThisTarget)
{
    const bool pointers32 = sizeof(void*) == 4;
    const Field fields[] = {
        {"sizeof(PortDevice)", sizeof(PortDevice), 12, true},
        {"PortDevice.line_value", offsetof(PortDevice, line_value), 4, true},
        {"PortDevice.line_param_a", offsetof(PortDevice, line_param_a), 8, true},
        {"PortDevice.working_mode", offsetof(PortDevice, working_mode), 11, true},
        {"sizeof(DrvDataRef)", sizeof(DrvDataRef), 8, true},
        {"DrvDataRef.data", offsetof(DrvDataRef, data), 4, true},
        {"sizeof(PlcParam)", sizeof(PlcParam), 24, false},
        {"PlcParam.max_bits", offsetof(PlcParam, max_bits), 22, false},
        {"sizeof(PlcParamBlock)", sizeof(PlcParamBlock), 56, false},
        {"PlcParamBlock.record", offsetof(PlcParamBlock, record), 24, false},
        {"sizeof(DrvRegAddr)", sizeof(DrvRegAddr), 16, false},
        {"DrvRegAddr.addr_unit", offsetof(DrvRegAddr, addr_unit), 12, false},
        {"sizeof(OmronEntry)", sizeof(OmronEntry), 20, false},
        {"OmronEntry.value", offsetof(OmronEntry, value), 16, false},
    };
    std::printf("plug-in records with %zu-byte pointers:\n", sizeof(void*));
    for (const Field& f : fields) {
        const bool checked = pointers32 || !f.holds_pointer;
        std::printf("  %-26s %2zu%s\n", f.name, f.actual, checked ? "" : "  (not checked: 64-bit host)");
        if (checked) {
            EXPECT_EQ(f.actual, f.expected) << f.name;
        }
    }
}
