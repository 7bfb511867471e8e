// Direct access to the device's own registers: the local word and bit areas
// of the shared segment (reg_id 249, 254, 255) and the SRAM file
// (reg_id 250..253). Every function takes segment semaphore 0 around its
// whole access. The functions that answer a client build the reply into the
// caller's buffer (PACKET_BUF_SIZE bytes) and return its length; the caller
// sends it after the semaphore is given back, so a client that does not read
// never holds the segment.
//
// All take the record after normalisation. s = reg_addr_start,
// n = reg_data_width; reg_type 2 is word access, any other reg_type is bit
// access of n bits. The data size is cal_commbuf_size of the record.
//
// A request that would reach outside an area is refused without touching
// memory or the SRAM: negative s or n, more than LOCAL_DATA_MAX data bytes,
// an SRAM bit range with (s mod 16) + n > 2048, a range past the end of a
// local area (local_areas.h), or an SRAM word beyond the 32-bit word space.
// A refused single read answers [command][0][3][sum], a refused write
// answers [5][0][3][8], a refused command-19 item gets the error entry [0][3].
//
// When the SRAM file cannot be opened, "SRAM open error\r" is printed and
// nothing is read or written, and there is no reply (length 0).
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/reg_addr.h"

constexpr size_t LOCAL_DATA_MAX = 512;   // data bytes of one request
constexpr size_t LOCAL_RW_BUF_SIZE = 128; // value buffer of a read-modify-write

// Single reads (commands 3, 4, 8): a data reply carrying `command`.
size_t read_local_mem(const REG_ADDR& rec, uint8_t command, uint8_t* reply);
size_t read_sram(const REG_ADDR& rec, uint8_t command, uint8_t* reply);

// Item reads of command 19. reply_packet is the 4096-byte reply under
// construction; write_pos is the packet index where the entry goes, item_index
// selects the offset-table slot (packet bytes 12 + 2 * item_index) and
// running_offset is the body offset L of the entry (in), advanced past it (out).
// Writes the offset-table slot and either a data entry [1][u16 size][data] or
// the error entry [0][3]. Returns the number of bytes appended at write_pos;
// 0 when nothing was written (SRAM not openable, or the reply is full), in
// which case neither the slot nor running_offset changed.
size_t sub_read_local_mem(const REG_ADDR& rec, uint8_t* reply_packet, size_t write_pos,
                          int item_index, uint16_t& running_offset);
size_t bat_read_sram(const REG_ADDR& rec, uint8_t* reply_packet, size_t write_pos,
                     int item_index, uint16_t& running_offset);

// Read half of a read-modify-write: words are copied and bits ORed into the
// caller's zeroed buffer of buf_size bytes. Returns false when the range is
// refused (buffer untouched); the caller then answers with an error status.
// An SRAM that cannot be opened prints its message and returns true with the
// buffer unchanged, so the command still answers normally.
bool read_local_mem_rw(const REG_ADDR& rec, uint8_t* buf, size_t buf_size = LOCAL_RW_BUF_SIZE);
bool read_sram_rw(const REG_ADDR& rec, uint8_t* buf, size_t buf_size = LOCAL_RW_BUF_SIZE);

// Writes (command 5): data holds data_len bytes from the client; bytes the
// range needs beyond data_len are taken as 0. The reply is write_success.
// write_local_mem prints "start=%d\r\n"; a bit write to reg_id 249 prints
// "length=%d\r\n".
size_t write_local_mem(const REG_ADDR& rec, const uint8_t* data, int data_len, uint8_t* reply);
size_t write_sram(const REG_ADDR& rec, const uint8_t* data, int data_len, uint8_t* reply);

// Write half of a read-modify-write: no prints, no reply. Returns false when
// the range is refused (nothing written); an SRAM open failure returns true.
bool write_local_mem_rw(const REG_ADDR& rec, const uint8_t* buf, size_t buf_size = LOCAL_RW_BUF_SIZE);
bool write_sram_rw(const REG_ADDR& rec, const uint8_t* buf, size_t buf_size = LOCAL_RW_BUF_SIZE);
