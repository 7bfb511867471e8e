// Copying block reads and completed writes into the group caches.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "port/refresh.h"
#include "unit_util.h"
#include "tables/opt_builder.h"

using namespace table_test;

namespace {

using Bytes = std::vector<uint8_t>;

class Refresh : public testing::Test {
protected:
    void SetUp() override { reset_area_tables(); opt_list_init(head, tail); }
    void TearDown() override { opt_list_free(head, tail); reset_area_tables(); }

    static ORG_node* reg(const REG_ADDR& r) { return reg_range(r).org; }
    static Bytes counting(const OPT_node& b, uint8_t from = 1)
    {
        Bytes v(static_cast<size_t>(std::max<int>(1, cal_commbuf_size(b.reg_addr))));
        for (size_t i = 0; i < v.size(); ++i)
            v[i] = static_cast<uint8_t>(from + i);
        return v;
    }
    // A successful read of registers 0.. of area (1, 1, type, 6) holding counting() data.
    static Bytes read(uint8_t type, int16_t width)
    {
        OPT_node b{};
        b.reg_addr = make_rec(1, 1, type, 6, 0, width);
        Bytes buf = counting(b);
        refresh_ORG_buff(&b, buf.data(), 1);
        return buf;
    }
    static void write(const REG_ADDR& r, const uint8_t* data) { refresh_writeOK_ORG(RealtimeImage{r, 1, data}); }
    static Bytes cache(const ORG_node* o) { return Bytes(o->data, o->data + cal_commbuf_size(o->reg_addr)); }
    void rebuild(int32_t word_len, int32_t word_gap, int32_t byte_len)
    {
        OPT_node* cursor = head;
        rebuild_OPT_links(1, head, tail, cursor, OPT_limits{16, 0, word_len, word_gap, byte_len, 0, 1, 0});
    }

    OPT_node *head = nullptr, *tail = nullptr;
    LocalBits bits;
};

TEST_F(Refresh, WriteUpdatesBitDwordAndByteGroups)
{
    // Word groups holding the write's first register, cut at their end.
    ORG_node* g = reg(make_rec(1, 1, 2, 3, 1000, 10));
    ORG_node* after = reg(make_rec(1, 1, 2, 3, 1003, 2));
    const uint8_t data[24] = {1, 2, 3, 4, 5, 6, 7, 8};
    write(make_rec(1, 1, 2, 3, 1002, 4), data);
    write(make_rec(1, 1, 2, 3, 990, 12), data);   // starts outside every group
    write(make_rec(1, 1, 2, 3, 1008, 4), data);
    const Bytes want{0, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 0, 0, 1, 2, 3, 4};
    EXPECT_EQ(cache(g), want);
    EXPECT_EQ(cache(after), Bytes(4, 0));   // starts after 1002: the walk stops before it

    ORG_node* bitg = reg(make_rec(1, 1, 0, 3, 0, 16));
    bitg->data[0] = 0xFF;
    write(make_rec(1, 1, 0, 3, 2, 3), data + 1);   // bits 0, 1, 0
    EXPECT_EQ(cache(bitg), (Bytes{0xEB, 0x00}));
    ORG_node* dw = reg(make_rec(1, 1, 4, 4, 10, 3));
    write(make_rec(1, 1, 4, 4, 12, 1), data);
    EXPECT_EQ(Bytes(dw->data + 8, dw->data + 12), (Bytes{1, 2, 3, 4}));
    ORG_node* by = reg(make_rec(1, 1, 1, 5, 0, 6));
    write(make_rec(1, 1, 1, 5, 4, 3), data);
    EXPECT_EQ(cache(by), (Bytes{0, 0, 0, 0, 1, 2}));

    // Groups without a usable cache size get nothing: an unknown type (size 0)
    // and a word group too large for a 16-bit size. ASan checks for overruns.
    ORG_node* odd = reg(make_rec(1, 1, 3, 6, 0, 4));
    read(3, 4);
    EXPECT_EQ(odd->data[0], 0);
    ORG_node* huge = reg(make_rec(1, 1, 2, 6, 0, 20000));
    write(make_rec(1, 1, 2, 6, 0, 10), read(2, 10).data());
    EXPECT_EQ(huge->data[0], 0);
}

TEST_F(Refresh, OneRegisterRefreshSkipsAreasAwaitingRebuild)
{
    REG_ADDR r = make_rec(1, 1, 2, 3, 10, 2);
    r.addr_unit = 2;
    ORG_node* g = reg(r);
    rebuild(1, 0, 2);
    ASSERT_EQ(head->next->next->next, tail);   // blocks [10,11) and [11,12)
    OPT_node* second = head->next->next;
    const uint8_t v[2] = {0x34, 0x12}, w[2] = {0x99, 0x99};
    refresh_ORG_buff_omron(second, v, 1);
    EXPECT_EQ(cache(g), (Bytes{0, 0, 0x34, 0x12}));
    EXPECT_EQ(g->status, 1);

    // Another range joins the area: the block's org is no longer trusted.
    reg(make_rec(1, 1, 2, 3, 10, 1));
    refresh_ORG_buff_omron(second, w, 3);
    EXPECT_EQ(g->status, 1);
    EXPECT_EQ(cache(g), (Bytes{0, 0, 0x34, 0x12}));

    // The block's first range is freed before the pass: nothing is touched
    // (ASan would report a use after free).
    rebuild(1, 0, 2);
    unreg_range(head->next->org->reg_addr);
    refresh_ORG_buff_omron(head->next, w, 1);
    EXPECT_TRUE(tables_consistent());
}

TEST_F(Refresh, OneRegisterRefreshGroupStartingInsideBlock)
{
    ORG_node* g = reg(make_rec(1, 1, 2, 3, 12, 2));
    ORG_node* h = reg(make_rec(1, 1, 2, 3, 20, 1));
    rebuild(16, 16, 2);
    ASSERT_EQ(head->next->next, tail);
    // Make the block start before the group, as a block covering a gap would.
    head->next->reg_addr.reg_addr_start = 10;
    head->next->reg_addr.reg_data_width = 11;
    refresh_ORG_buff_omron(head->next, counting(*head->next).data(), 1);
    EXPECT_EQ(cache(g), (Bytes{5, 6, 7, 8}));
    EXPECT_EQ(g->status, 1);
    EXPECT_EQ(cache(h), (Bytes{21, 22}));
    // A failed read changes the status only.
    refresh_ORG_buff_omron(head->next, counting(*head->next, 100).data(), 3);
    EXPECT_EQ(g->status, 3);
    EXPECT_EQ(cache(g), (Bytes{5, 6, 7, 8}));
}

} // namespace
