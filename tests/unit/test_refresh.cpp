// Copying block reads and completed writes into the group caches.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "port/refresh.h"
#include "table_invariants.h"
#include "tables/opt_builder.h"

using namespace table_test;

namespace {

class Refresh : public testing::Test {
protected:
    void SetUp() override
    {
        reset_area_tables();
        opt_list_init(head, tail);
    }
    void TearDown() override
    {
        opt_list_free(head, tail);
        reset_area_tables();
    }

    static ORG_node* reg(const REG_ADDR& r)
    {
        ORG_node* o = insert_ORT_FAT(r).org;
        EXPECT_NE(o, nullptr);
        return o;
    }
    // A standalone block record (refresh_ORG_buff needs no list).
    static OPT_node block(uint8_t type, int32_t start, int16_t width, uint8_t id = 3)
    {
        OPT_node b{};
        b.reg_addr = make_rec(1, 1, type, id, start, width);
        return b;
    }
    // A buffer of exactly the block's size, filled with 1, 2, 3, ...
    static std::vector<uint8_t> counting(const OPT_node& b, uint8_t from = 1)
    {
        std::vector<uint8_t> v(static_cast<size_t>(cal_commbuf_size(b.reg_addr)));
        for (size_t i = 0; i < v.size(); ++i)
            v[i] = static_cast<uint8_t>(from + i);
        return v;
    }
    static std::vector<uint8_t> cache(const ORG_node* o)
    {
        return std::vector<uint8_t>(o->data, o->data + cal_commbuf_size(o->reg_addr));
    }

    OPT_node* head = nullptr;
    OPT_node* tail = nullptr;
    LocalBits bits;
};

TEST(BitCopy, ExtractAndInsertAtOffsets)
{
    const uint8_t src[3] = {0xB4, 0x3C, 0x81}; // bits 2,4,5,7 | 10..13 | 16,23
    uint8_t dst[2] = {0xFF, 0xFF};
    bit_cpy(dst, src, 10, 5); // bits 5..14 of src
    // src bits 5..14: 1,0,1,0,0,1,1,1,1,0 -> 0b0111100101
    EXPECT_EQ(dst[0], 0xE5);
    EXPECT_EQ(dst[1], 0xFD); // bit 9 cleared, bits 10.. untouched

    uint8_t out[3] = {0x00, 0xFF, 0x0F};
    const uint8_t ins[2] = {0x05, 0x02}; // bits 0, 2, 9
    tessel_bit_cpy(out, ins, 10, 3);      // into bits 3..12
    EXPECT_EQ(out[0], 0x28);              // bits 3 and 5
    EXPECT_EQ(out[1], 0xE0 | 0x10);       // bits 8..11 cleared, bit 12 set, 13.. kept
    EXPECT_EQ(out[2], 0x0F);

    uint8_t keep[1] = {0xAA};
    bit_cpy(keep, src, 0, 0);
    tessel_bit_cpy(keep, src, -1, 0);
    EXPECT_EQ(keep[0], 0xAA);
}

TEST_F(Refresh, BlockOverTwoGroups)
{
    ORG_node* g1 = reg(make_rec(1, 1, 2, 3, 95, 10));  // [95, 105)
    ORG_node* g2 = reg(make_rec(1, 1, 2, 3, 105, 15)); // [105, 120)
    ORG_node* other = reg(make_rec(1, 1, 2, 4, 100, 10));

    // [90, 100) holds the start of g1: registers 95..99 at positions 0..4.
    OPT_node b0 = block(2, 90, 10);
    const std::vector<uint8_t> buf0 = counting(b0, 200);
    refresh_ORG_buff(&b0, buf0.data(), 1);
    EXPECT_EQ(g1->part_status, 1);
    EXPECT_EQ(g1->status, 0);

    OPT_node b = block(2, 100, 10);
    const std::vector<uint8_t> buf = counting(b);
    refresh_ORG_buff(&b, buf.data(), 1);
    std::vector<uint8_t> want1(buf0.begin() + 10, buf0.end());
    want1.insert(want1.end(), buf.begin(), buf.begin() + 10); // 100..104 at 5..9
    EXPECT_EQ(cache(g1), want1);
    EXPECT_EQ(g1->status, 1); // its last block
    EXPECT_NE(g1->refresh_time, 0u);
    std::vector<uint8_t> want2(30, 0);
    std::memcpy(&want2[0], &buf[10], 10); // registers 105..109 at positions 0..4
    EXPECT_EQ(cache(g2), want2);
    EXPECT_EQ(g2->status, 0); // not its last block
    EXPECT_EQ(g2->part_status, 1);
    EXPECT_EQ(cache(other), std::vector<uint8_t>(20, 0));
    EXPECT_EQ(other->status, 0);

    // A group's last block read without its earlier ones keeps part_status.
    ORG_node* g3 = reg(make_rec(1, 1, 2, 3, 200, 10));
    OPT_node b3 = block(2, 205, 5);
    refresh_ORG_buff(&b3, counting(b3).data(), 1);
    EXPECT_EQ(g3->status, 0);
}

TEST_F(Refresh, GroupOverSeveralBlocksKeepsFirstFailure)
{
    ORG_node* g = reg(make_rec(1, 1, 2, 3, 0, 40));
    std::memset(g->data, 0xEE, 80);
    OPT_node b1 = block(2, 0, 20), b2 = block(2, 20, 20);
    const std::vector<uint8_t> buf1 = counting(b1), buf2 = counting(b2, 100);

    refresh_ORG_buff(&b1, buf1.data(), 2);
    EXPECT_EQ(g->part_status, 2);
    refresh_ORG_buff(&b2, buf2.data(), 1);
    EXPECT_EQ(g->status, 2);
    EXPECT_EQ(g->refresh_time, 0u);
    std::vector<uint8_t> want(80, 0xEE);
    std::memcpy(&want[40], buf2.data(), 40);
    EXPECT_EQ(cache(g), want);

    // Both succeed: valid, all new data.
    refresh_ORG_buff(&b1, buf1.data(), 1);
    refresh_ORG_buff(&b2, buf2.data(), 1);
    EXPECT_EQ(g->status, 1);
    std::memcpy(&want[0], buf1.data(), 40);
    EXPECT_EQ(cache(g), want);

    // Three blocks: ok, error, ok -> the error stays; a failed read changes
    // no data.
    OPT_node c1 = block(2, 0, 10), c2 = block(2, 10, 10), c3 = block(2, 20, 20);
    const std::vector<uint8_t> zero(40, 0);
    refresh_ORG_buff(&c1, zero.data(), 1);
    refresh_ORG_buff(&c2, zero.data(), 3);
    refresh_ORG_buff(&c3, zero.data(), 1);
    EXPECT_EQ(g->status, 3);
    EXPECT_EQ(std::vector<uint8_t>(g->data + 20, g->data + 40), std::vector<uint8_t>(buf1.begin() + 20, buf1.end()));

    // Failure, then two successes: the failure is not overwritten midway.
    refresh_ORG_buff(&c1, zero.data(), 2);
    refresh_ORG_buff(&c2, zero.data(), 1);
    refresh_ORG_buff(&c3, zero.data(), 1);
    EXPECT_EQ(g->status, 2);
}

TEST_F(Refresh, BitBlocksLandAtTheirBitOffset)
{
    ORG_node* g = reg(make_rec(1, 1, 0, 3, 0, 20)); // bits 0..19, 3 bytes
    g->data[0] = 0x07;                              // bits 0..2 set
    g->data[2] = 0x08;                              // bit 19 set
    OPT_node b = block(0, 3, 9);                    // bits 3..11
    const uint8_t buf[2] = {0x01, 0x01};            // block bits 0 and 8
    refresh_ORG_buff(&b, buf, 1);
    EXPECT_EQ(g->data[0], 0x0F); // group bit 3 = block bit 0; bits 0..2 kept
    EXPECT_EQ(g->data[1], 0x08); // group bit 11 = block bit 8
    EXPECT_EQ(g->data[2], 0x08); // untouched

    // A group starting inside a bit block takes the block's bits from there.
    ORG_node* h = reg(make_rec(1, 1, 0, 3, 30, 5));
    OPT_node wide = block(0, 28, 10);
    const uint8_t wbuf[2] = {0xF0, 0x03}; // block bits 4..9
    refresh_ORG_buff(&wide, wbuf, 1);
    EXPECT_EQ(h->data[0], 0x1C); // block bits 2..6 -> 0,0,1,1,1
    EXPECT_EQ(h->status, 1);
}

TEST_F(Refresh, CopiesStayInsideBothBuffers)
{
    // Odd records: a bit group of 3, a group of an unknown register type, a
    // word group too large for a 16-bit size (its cache is one byte), and
    // block buffers cut to their own size. ASan checks for overruns.
    ORG_node* bitg = reg(make_rec(1, 1, 0, 3, 0, 3));
    bitg->data[0] = 0xFF;
    OPT_node b = block(0, 0, 20);
    std::vector<uint8_t> buf = counting(b, 0xF0);
    refresh_ORG_buff(&b, buf.data(), 1);
    EXPECT_EQ(bitg->data[0], 0xF8); // 0xF0 has bits 0..2 clear; bits 3.. kept

    ORG_node* odd = reg(make_rec(1, 1, 3, 3, 0, 4));
    OPT_node ob = block(3, 0, 4);
    const uint8_t one = 0x55;
    refresh_ORG_buff(&ob, &one, 1);
    EXPECT_EQ(odd->data[0], 0);
    EXPECT_EQ(odd->status, 1);

    ORG_node* huge = reg(make_rec(1, 1, 2, 3, 0, 20000));
    ASSERT_LT(cal_commbuf_size(huge->reg_addr), 0);
    OPT_node hb = block(2, 0, 10);
    std::vector<uint8_t> hbuf = counting(hb);
    refresh_ORG_buff(&hb, hbuf.data(), 1);
    refresh_writeOK_ORG(RealtimeImage{make_rec(1, 1, 2, 3, 0, 10), 1, hbuf.data()});
    EXPECT_EQ(huge->data[0], 0);
    EXPECT_TRUE(tables_consistent());
}

TEST_F(Refresh, WriteUpdatesCachedRanges)
{
    ORG_node* g = reg(make_rec(1, 1, 2, 3, 1000, 10));
    ORG_node* bcd = reg(make_rec(1, 1, 2, 3, 1000, 10, 1));
    ORG_node* after = reg(make_rec(1, 1, 2, 3, 1003, 2));
    g->status = 2;
    const uint8_t words[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    RealtimeImage img{make_rec(1, 1, 2, 3, 1002, 4), 1, words};
    refresh_writeOK_ORG(img);
    std::vector<uint8_t> want(20, 0);
    std::memcpy(&want[4], words, 8); // words 2..5
    EXPECT_EQ(cache(g), want);
    EXPECT_EQ(g->status, 2); // status and time are left alone
    EXPECT_EQ(g->refresh_time, 0u);
    // The next group of the area starts after 1002: the walk stops before it.
    EXPECT_EQ(cache(after), std::vector<uint8_t>(4, 0));
    // The group with another bcd_flag follows and holds 1002 too.
    EXPECT_EQ(cache(bcd), want);

    // A write starting outside every group changes nothing.
    RealtimeImage out{make_rec(1, 1, 2, 3, 990, 12), 1, words};
    const uint8_t big[24] = {9};
    out.data = big;
    refresh_writeOK_ORG(out);
    EXPECT_EQ(cache(g), want);

    // A write running past the group's end is cut at the end.
    const uint8_t tail_words[8] = {11, 12, 13, 14, 15, 16, 17, 18};
    refresh_writeOK_ORG(RealtimeImage{make_rec(1, 1, 2, 3, 1008, 4), 1, tail_words});
    std::memcpy(&want[16], tail_words, 4);
    EXPECT_EQ(cache(g), want);
}

TEST_F(Refresh, WriteUpdatesBitDwordAndByteGroups)
{
    ORG_node* bitg = reg(make_rec(1, 1, 0, 3, 0, 16));
    bitg->data[0] = 0xFF;
    const uint8_t bits_in[1] = {0x02}; // bits: 0,1,0
    refresh_writeOK_ORG(RealtimeImage{make_rec(1, 1, 0, 3, 2, 3), 1, bits_in});
    EXPECT_EQ(bitg->data[0], 0xEB); // bits 2 and 4 cleared, bit 3 set
    EXPECT_EQ(bitg->data[1], 0x00);

    ORG_node* dw = reg(make_rec(1, 1, 4, 4, 10, 3));
    const uint8_t dword[4] = {0xA, 0xB, 0xC, 0xD};
    refresh_writeOK_ORG(RealtimeImage{make_rec(1, 1, 4, 4, 12, 1), 1, dword});
    EXPECT_EQ(std::vector<uint8_t>(dw->data + 8, dw->data + 12), std::vector<uint8_t>(dword, dword + 4));

    ORG_node* by = reg(make_rec(1, 1, 1, 5, 0, 6));
    const uint8_t bytes[3] = {7, 8, 9};
    refresh_writeOK_ORG(RealtimeImage{make_rec(1, 1, 1, 5, 4, 3), 1, bytes});
    EXPECT_EQ(cache(by), (std::vector<uint8_t>{0, 0, 0, 0, 7, 8}));

    // The byte group of the same kind comes first and holds register 4, but
    // its register type differs: a word write then updates nothing.
    ORG_node* words = reg(make_rec(1, 1, 2, 5, 0, 6));
    refresh_writeOK_ORG(RealtimeImage{make_rec(1, 1, 2, 5, 4, 1), 1, bytes});
    EXPECT_EQ(cache(words), std::vector<uint8_t>(12, 0));
    EXPECT_EQ(cache(by), (std::vector<uint8_t>{0, 0, 0, 0, 7, 8}));
}

TEST_F(Refresh, OneRegisterRefreshSkipsAreasAwaitingRebuild)
{
    REG_ADDR r = make_rec(1, 1, 2, 3, 10, 2);
    r.addr_unit = 2;
    ORG_node* g = reg(r);
    OPT_node* cursor = head;
    const OPT_limits limits{16, 0, 1, 0, 2, 0, 1, 0};
    rebuild_OPT_links(1, head, tail, cursor, limits);
    ASSERT_EQ(head->next->next->next, tail); // blocks [10,11) and [11,12)
    OPT_node* second = head->next->next;

    const uint8_t v[2] = {0x34, 0x12};
    refresh_ORG_buff_omron(second, v, 1);
    EXPECT_EQ(cache(g), (std::vector<uint8_t>{0, 0, 0x34, 0x12}));
    EXPECT_EQ(g->status, 1);
    refresh_ORG_buff_omron(head->next, v, 2);
    EXPECT_EQ(g->status, 2);
    EXPECT_EQ(cache(g), (std::vector<uint8_t>{0, 0, 0x34, 0x12}));

    // Another range joins the area: the block's org is no longer trusted.
    reg(make_rec(1, 1, 2, 3, 10, 1));
    const uint8_t w[2] = {0x99, 0x99};
    refresh_ORG_buff_omron(second, w, 1);
    EXPECT_EQ(g->status, 2);
    EXPECT_EQ(cache(g), (std::vector<uint8_t>{0, 0, 0x34, 0x12}));

    // The block's first range is freed before the pass: nothing is touched
    // (ASan would report a use after free).
    rebuild_OPT_links(1, head, tail, cursor, limits);
    OPT_node* first = head->next;
    const REG_ADDR gone = first->org->reg_addr;
    unregister_ORT_FAT(gone);
    refresh_ORG_buff_omron(first, w, 1);
    EXPECT_TRUE(tables_consistent());
}

TEST_F(Refresh, OneRegisterRefreshGroupStartingInsideBlock)
{
    ORG_node* g = reg(make_rec(1, 1, 2, 3, 12, 2));
    ORG_node* h = reg(make_rec(1, 1, 2, 3, 20, 1));
    OPT_node* cursor = head;
    const OPT_limits limits{16, 0, 16, 16, 2, 0, 1, 0};
    rebuild_OPT_links(1, head, tail, cursor, limits);
    ASSERT_EQ(head->next->next, tail); // one block [12, 21)
    // Make the block start before the group, as a block covering a gap would.
    head->next->reg_addr.reg_addr_start = 10;
    head->next->reg_addr.reg_data_width = 11;
    std::vector<uint8_t> buf = counting(*head->next);
    refresh_ORG_buff_omron(head->next, buf.data(), 1);
    EXPECT_EQ(cache(g), (std::vector<uint8_t>{5, 6, 7, 8}));
    EXPECT_EQ(g->status, 1);
    EXPECT_EQ(cache(h), (std::vector<uint8_t>{21, 22}));
    // A failed read changes the status only.
    refresh_ORG_buff_omron(head->next, counting(*head->next, 100).data(), 3);
    EXPECT_EQ(g->status, 3);
    EXPECT_EQ(cache(g), (std::vector<uint8_t>{5, 6, 7, 8}));
}

TEST_F(Refresh, OneRegisterRefreshWithoutAddressUnit)
{
    // Word and byte groups without an address unit, polled one register per block.
    ORG_node* words = reg(make_rec(1, 1, 2, 3, 10, 2));
    ORG_node* bytes = reg(make_rec(1, 1, 1, 4, 0, 2));
    OPT_node* cursor = head;
    const OPT_limits limits{16, 0, 1, 0, 1, 0, 1, 0};
    rebuild_OPT_links(1, head, tail, cursor, limits);
    const uint8_t v[2] = {0xAA, 0xBB};
    for (OPT_node* b = head->next; b != tail; b = b->next) {
        refresh_ORG_buff_omron(b, v, 1);
    }
    EXPECT_EQ(cache(words), (std::vector<uint8_t>{0xAA, 0xBB, 0xAA, 0xBB}));
    EXPECT_EQ(cache(bytes), (std::vector<uint8_t>{0xAA, 0xAA}));
    EXPECT_EQ(words->status, 1);
    EXPECT_EQ(bytes->status, 1);
}

} // namespace
