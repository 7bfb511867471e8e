// The table of driver traits: one row per driver number that differs from
// the default. Keep the rows sorted by number.
#include "driver/driver_traits.h"

#include <algorithm>
#include <iterator>

namespace {

struct TraitsRow {
    uint16_t driver_no;
    DriverTraits traits;
};

constexpr DriverTraits batch_one_register{.poll = PollClass::batch, .sizing = BlockSizing::one_register};
constexpr DriverTraits siemens{.order = WordOrder::siemens};
constexpr DriverTraits s2{.order = WordOrder::s2};
constexpr DriverTraits slave_main_on_load{.slave_main_on_load = true};

constexpr TraitsRow TRAITS[] = {
    {1, siemens},
    {19, batch_one_register},
    {21, siemens},
    {38, s2},
    {39, s2},
    {MODBUS_DRIVER_NO, {.modbus = true}},
    {57, s2},
    {106, {.with_batch_read_runs_as = 1004}},
    {150, slave_main_on_load},
    {168, slave_main_on_load},
    {169, siemens},
    {175, batch_one_register},
    {236, {.poll = PollClass::batch, .sizing = BlockSizing::unlimited, .batch_takes_reserved_ids = true}},
    {404, {.poll = PollClass::opto}},
    {406, {.slave_pass = true}},
    {422, {.poll = PollClass::batch}},
    {448, batch_one_register},
    {450, siemens},
    {452, siemens},
    {454, siemens},
    {456, siemens},
    {460, batch_one_register},
    {464, batch_one_register},
    {480, siemens},
    {510, siemens},
    {522, siemens},
    {550, siemens},
    {1001, {.poll = PollClass::bat, .sizing = BlockSizing::one_register}},
    {1002, batch_one_register},
    {1003, batch_one_register},
    {1004, batch_one_register},
    {1005, batch_one_register},
    {1006, batch_one_register},
};

constexpr bool rows_sorted()
{
    for (size_t i = 1; i < std::size(TRAITS); ++i) {
        if (TRAITS[i - 1].driver_no >= TRAITS[i].driver_no) {
            return false;
        }
    }
    return true;
}
static_assert(rows_sorted(), "lookup is a binary search");

constexpr int FIXED_PIECE_DRIVERS_ABOVE = 1000;
constexpr int FIXED_PIECE_BYTES = 32;

} // namespace

DriverTraits driver_traits(int driver_no)
{
    const auto* row = std::lower_bound(std::begin(TRAITS), std::end(TRAITS), driver_no,
                                       [](const TraitsRow& r, int no) { return r.driver_no < no; });
    if (row == std::end(TRAITS) || row->driver_no != driver_no) {
        return {};
    }
    return row->traits;
}

bool driver_uses_batch_entries(int driver_no)
{
    return driver_traits(driver_no).poll != PollClass::single;
}

bool is_siemens_driver(int driver_no) { return driver_traits(driver_no).order == WordOrder::siemens; }
bool is_s2_driver(int driver_no) { return driver_traits(driver_no).order == WordOrder::s2; }

int driver_write_piece_bytes(int driver_no, int max_words)
{
    return driver_no > FIXED_PIECE_DRIVERS_ABOVE ? FIXED_PIECE_BYTES : 2 * max_words;
}
