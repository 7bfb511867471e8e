// What the server does differently per driver number. Every list of driver
// numbers lives in the one table of driver_traits.cpp: code asks for a trait
// and never compares a driver number itself.
#pragma once

#include <cstdint>

// How the port thread polls the blocks of a driver.
enum class PollClass : uint8_t {
    single, // one block per cycle
    batch,  // the whole block list in batch exchanges every cycle
    bat,    // one bat batch per pass over the list, then single blocks
    opto,   // one opto batch per pass over the list, then single blocks
};

// Block-size override applied at start, before the 106 remapping.
enum class BlockSizing : uint8_t {
    from_record,  // the record's max_words, max_bits and gaps
    one_register, // max_words 1, max_bits 16, word_gap 0, bit_gap 16
    unlimited,    // every limit 0 (raised to 1), byte blocks sized as word blocks
};

// Byte order of double words in the driver's buffers.
enum class WordOrder : uint8_t {
    plain,
    siemens, // 16-bit halves exchanged in every double word
    s2,      // split byte-addressed double words start at their byte offset
};

struct DriverTraits {
    PollClass poll = PollClass::single;
    BlockSizing sizing = BlockSizing::from_record;
    WordOrder order = WordOrder::plain;
    bool modbus = false;              // Modbus bit areas in word form (reg_id 5, 6)
    bool slave_pass = false;          // a slave start-up pass runs before the main load
    bool slave_main_on_load = false;  // the main load calls ev_plc_slave_main
    bool batch_takes_reserved_ids = false; // batches also take reg_id 128..133
    uint16_t with_batch_read_runs_as = 0;  // non-zero: the number it runs as when
                                           // its plug-in has ev_OMRON_plc_read
};

constexpr uint16_t MODBUS_DRIVER_NO = 50;

DriverTraits driver_traits(int driver_no);

// Batch, bat and opto drivers exchange OmronEntry lists through
// ev_OMRON_plc_register and ev_OMRON_plc_read.
bool driver_uses_batch_entries(int driver_no);

bool is_siemens_driver(int driver_no); // WordOrder::siemens
bool is_s2_driver(int driver_no);      // WordOrder::s2

// Data bytes of one driver write piece: a fixed 32 bytes for driver numbers
// above 1000, else max_words registers.
int driver_write_piece_bytes(int driver_no, int max_words);
