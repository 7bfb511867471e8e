// Driver-number classes as the port thread and the loader see them.
#include <gtest/gtest.h>

#include "driver/driver_traits.h"
#include "port/port_thread.h"

// The bat (1001) and opto (404) drivers exchange entry lists like the batch
// class, so the loader looks their entry points up, but they poll by their
// own step; of the two only 1001 takes one-register blocks.
TEST(DriverTraits, BatAndOptoUseBatchEntriesButNotTheBatchClass)
{
    for (int no : {404, 1001}) {
        EXPECT_TRUE(driver_uses_batch_entries(no)) << no;
        EXPECT_NE(driver_traits(no).poll, PollClass::batch) << no;
    }
    EXPECT_FALSE(driver_uses_batch_entries(106)); // runs as 1004 only with the batch read entry

    com_port_info rec{};
    rec.max_words = 64;
    rec.max_bits = 256;
    rec.plc_driver_no = 1001;
    EXPECT_EQ(port_block_limits(rec).word_len, 1);
    EXPECT_EQ(port_block_limits(rec).bit_len, 16);
    rec.plc_driver_no = 404;
    EXPECT_EQ(port_block_limits(rec).word_len, 64);
    EXPECT_EQ(port_block_limits(rec).bit_len, 256);
}
