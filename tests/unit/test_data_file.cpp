// Byte layout of the register data files where polling does not reach (the
// block map, bit views, the limits) and their descriptor cache. File offsets
// are written out, never computed with the store's own block arithmetic.
#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "base/globals.h"
#include "base/local_areas.h"
#include "store/addressing.h"
#include "store/data_file.h"
#include "unit_util.h"

namespace {

using Bytes = std::vector<uint8_t>;

class DataFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/datafile_test_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        setenv("COMSERVER_DATA_DIR", tmpl, 1);
        set_bit(PLC_REG_DAT_SWITCH_BIT);
    }
    void TearDown() override
    {
        for (const PlcRegDatEntry& e : arr_->entries)
            if (e.fd > 0)
                close(e.fd);
        com_info.clear();
        port_num = 0;
        unsetenv("COMSERVER_DATA_DIR");
        std::filesystem::remove_all(dir_);
    }
    // The file of a key; empty when there is none.
    Bytes file(uint32_t key) const
    {
        char name[16];
        std::snprintf(name, sizeof name, "/%x.dat", key);
        std::ifstream in(dir_ + name, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
    static uint32_t le32(const Bytes& f, size_t at)
    {
        return f[at] | f[at + 1] << 8 | f[at + 2] << 16 | static_cast<uint32_t>(f[at + 3]) << 24;
    }
    void write(int port, uint16_t plc, uint8_t type, uint8_t kind, int32_t start, int32_t count, Bytes data,
               int status = 1)
    {
        DrvRegAddr reg{.plc_id = plc, .reg_type = type, .reg_id = kind, .reg_addr_start = start};
        PlcRegDatArr_WriteData(*arr_, port, reg, DrvDataRef{count, data.data()}, status);
    }

    std::string dir_;
    table_test::LocalBits bits_;
    std::unique_ptr<PlcRegDatArr> arr_ = std::make_unique<PlcRegDatArr>();
};

TEST_F(DataFile, HighAddressesGoThroughTheBlockMapAndRangesAreSplit)
{
    // Double word 3000 is data byte 12000: directory block 3, data block 4.
    write(0, 0, 4, 1, 3000, 1, {1, 2, 3, 4});
    Bytes f = file(1);
    ASSERT_EQ(f.size(), 12292u + 2 * 4096);
    EXPECT_EQ(le32(f, 4 + 2 * 4096), 3u);
    EXPECT_EQ(le32(f, 4 + 3 * 4096 + 2 * 4), 4u);
    EXPECT_EQ(le32(f, 20196), 0x04030201u);
    write(0, 0, 2, 1, (1 << 22) / 2, 1, {9, 9}); // next 4 MiB region: directory and data block
    f = file(1);
    ASSERT_EQ(f.size(), 12292u + 4 * 4096);
    EXPECT_EQ(le32(f, 4 + 2 * 4096 + 4), 5u);
    EXPECT_EQ(le32(f, 4 + 5 * 4096), 6u);
    EXPECT_EQ(f[4 + 6 * 4096], 9);

    // Data bytes 8190..8193: two bytes in the direct area, two through the map.
    write(0, 0, 2, 2, 4095, 2, {0xA1, 0xA2, 0xB1, 0xB2});
    f = file(2);
    EXPECT_EQ(Bytes(f.begin() + 8194, f.begin() + 8196), (Bytes{0xA1, 0xA2}));
    EXPECT_EQ(le32(f, 4 + 3 * 4096 + 2 * 4), 4u);
    EXPECT_EQ(Bytes(f.begin() + 4 + 4 * 4096, f.begin() + 6 + 4 * 4096), (Bytes{0xB1, 0xB2}));
}

TEST_F(DataFile, CorruptMapEntryStopsTheWrite)
{
    write(0, 0, 4, 1, 3000, 1, {1, 2, 3, 4});
    const PlcRegDatFd f = PlcRegDatArr_GetFileFd(*arr_, 1, O_RDWR);
    ASSERT_EQ(PlcRegDatArr_SetSubBlock(f.fd, 2, 0, 1), 1); // top entry now names the direct area
    PlcRegDatArr_ReleaseFileFd(*arr_, f);
    const Bytes before = file(1);
    write(0, 0, 4, 1, 3100, 1, {7, 7, 7, 7});
    EXPECT_EQ(file(1), before);
}

TEST_F(DataFile, BitsOneBytePerBitAndModbusWordsAlsoAsBits)
{
    write(0, 1, 0, 7, 5, 16, {0xA5, 0x0F});
    const Bytes f = file(0x0107);
    EXPECT_EQ(Bytes(f.begin() + 9, f.end()), (Bytes{1, 0, 1, 0, 0, 1, 0, 1, 1, 1, 1, 1, 0, 0, 0, 0}));

    com_info.assign(2, com_port_info{});
    com_info[1].plc_driver_no = 50;
    port_num = 2;
    write(1, 2, 2, 4, 1, 2, {0x01, 0x80, 0xFF, 0x00}); // words 1..2 are bits 16..47 of kind 6
    Bytes expect(48, 0);
    expect[16] = expect[31] = 1;
    std::fill(expect.begin() + 32, expect.begin() + 40, 1);
    const Bytes bits = file(0x10206);
    EXPECT_EQ(Bytes(bits.begin() + 4, bits.end()), expect);
    write(0, 2, 2, 4, 1, 2, {1, 2, 3, 4}); // port 0 is not a Modbus port
    EXPECT_TRUE(file(0x0206).empty());
}

TEST_F(DataFile, NothingIsStoredOutsideTheLimitsOrWhenSwitchedOff)
{
    write(0, 0, 0, 1, 0, 4097, Bytes(513, 0xFF));
    write(0, 0, 2, 2, -1, 1, {1, 2});
    clear_bit(PLC_REG_DAT_SWITCH_BIT);
    write(0, 0, 2, 3, 0, 1, {1, 2});
    EXPECT_TRUE(std::filesystem::is_empty(dir_));
}

TEST_F(DataFile, DescriptorInUseIsNeverRecycled)
{
    const uint8_t word[2] = {1, 2};
    for (uint32_t k = 0; k < 256; ++k) PlcRegDatArr_DoWriteData(*arr_, 0x100 + k, 0, 2, word, 1);

    // The newest file's entry would be recycled first; while it is held,
    // another one goes and the held descriptor still names its file.
    const PlcRegDatFd held = PlcRegDatArr_GetFileFd(*arr_, 0x1FF, O_RDWR);
    PlcRegDatArr_DoWriteData(*arr_, 0x200, 0, 2, word, 1);
    struct stat open_file{}, named{};
    ASSERT_EQ(fstat(held.fd, &open_file), 0);
    ASSERT_EQ(stat((dir_ + "/1ff.dat").c_str(), &named), 0);
    EXPECT_EQ(open_file.st_ino, named.st_ino);
    EXPECT_EQ(file(0x200).size(), 6u);
    PlcRegDatArr_ReleaseFileFd(*arr_, held);
}

} // namespace
