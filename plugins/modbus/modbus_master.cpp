// Modbus master of one port over libmodbus. Called only from its port thread;
// no exception may leave this file.
#include "modbus_master.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

constexpr uint16_t DEFAULT_TCP_PORT = 502;
constexpr uint32_t DEFAULT_TIMEOUT_MS = 500;
constexpr int DEFAULT_BAUD = 9600;
constexpr int DEFAULT_DATA_BITS = 8;
constexpr int DEFAULT_STOP_BITS = 1;
constexpr char DEFAULT_PARITY = 'N';

constexpr uint8_t REG_TYPE_BIT = 0;
constexpr uint8_t REG_TYPE_WORD = 2;
constexpr uint8_t REG_TYPE_DWORD = 4;
constexpr int BITS_PER_REGISTER = 16;
constexpr int64_t ADDRESS_SPACE = 65536;  // Modbus addresses are 16 bits wide

// Registers that one element of the width stands for; 0 for widths a
// register kind cannot have.
int registers_per_element(uint8_t reg_type)
{
    switch (reg_type) {
    case REG_TYPE_WORD: return 1;
    case REG_TYPE_DWORD: return 2;
    default: return 0;
    }
}

bool fits(int64_t first, int64_t count, int64_t space)
{
    return count >= 1 && first >= 0 && first + count <= space;
}

// A piece of a 32-bit range holds whole values, so no value is ever read
// or written half in one request and half in the next.
int piece_limit(int limit, int regs_per_element) { return limit - limit % regs_per_element; }

// Runs exchange(address, count, done) over consecutive pieces of at most
// piece_max units; exchange answers how many units it moved. True only when
// every piece moved all of its units.
template <typename Exchange>
bool in_pieces(int first, int total, int piece_max, Exchange exchange)
{
    for (int done = 0; done < total;) {
        const int n = std::min(piece_max, total - done);
        if (exchange(first + done, n, done) != n) {
            return false;
        }
        done += n;
    }
    return true;
}

// Registers travel in the driver buffer as little-endian 16-bit words, the
// byte order the server and its clients read values in.
void store_le16(const uint16_t* regs, int n, uint8_t* out)
{
    for (int i = 0; i < n; ++i) {
        out[2 * i] = static_cast<uint8_t>(regs[i]);
        out[2 * i + 1] = static_cast<uint8_t>(regs[i] >> 8);
    }
}

void load_le16(const uint8_t* in, int n, uint16_t* regs)
{
    for (int i = 0; i < n; ++i) {
        regs[i] = static_cast<uint16_t>(in[2 * i] | in[2 * i + 1] << 8);
    }
}

// Packs one-byte-per-bit values into the buffer layout, LSB first.
void pack_bits(const uint8_t* bits, int n, uint8_t* out)
{
    for (int k = 0; 8 * k < n; ++k) {
        out[k] = modbus_get_byte_from_bits(bits, 8 * k, static_cast<unsigned>(std::min(8, n - 8 * k)));
    }
}

bool is_os_error(int err) { return err < MODBUS_ENOBASE && err != EINVAL; }

} // namespace

MasterSettings master_settings(const PortDevice& dev, const PlcParam& param)
{
    MasterSettings s;
    s.timeout_ms = param.drv_param3 != 0 ? param.drv_param3 : DEFAULT_TIMEOUT_MS;
    if (param.working_mode == WORKING_MODE_U) {
        // The record holds the address with its first octet in the lowest byte.
        const uint32_t ip = param.drv_param1;
        char host[16];
        std::snprintf(host, sizeof host, "%u.%u.%u.%u", ip & 0xff, ip >> 8 & 0xff, ip >> 16 & 0xff, ip >> 24);
        s.tcp = true;
        s.host = host;
        const uint16_t port = static_cast<uint16_t>(param.drv_param2);
        s.tcp_port = port != 0 ? port : DEFAULT_TCP_PORT;
        return s;
    }
    s.device = dev.dev_path != nullptr ? dev.dev_path : "";
    s.baud = dev.line_value != 0 ? static_cast<int>(dev.line_value) : DEFAULT_BAUD;
    s.parity = dev.line_param_b != 0 ? static_cast<char>(dev.line_param_b) : DEFAULT_PARITY;
    s.data_bits = dev.line_param_a != 0 ? dev.line_param_a : DEFAULT_DATA_BITS;
    s.stop_bits = dev.line_option != 0 ? dev.line_option : DEFAULT_STOP_BITS;
    return s;
}

std::string describe(const MasterSettings& s)
{
    char line[128];
    if (s.tcp) {
        std::snprintf(line, sizeof line, "modbus: TCP %s:%d, time-out %u ms", s.host.c_str(), s.tcp_port,
                      s.timeout_ms);
    } else {
        std::snprintf(line, sizeof line, "modbus: RTU %s %d %d%c%d, time-out %u ms", s.device.c_str(), s.baud,
                      s.data_bits, s.parity, s.stop_bits, s.timeout_ms);
    }
    return line;
}

ModbusMaster::ModbusMaster(const MasterSettings& s) : settings_(s)
{
    ctx_ = s.tcp ? modbus_new_tcp(s.host.c_str(), s.tcp_port)
                 : modbus_new_rtu(s.device.c_str(), s.baud, s.parity, s.data_bits, s.stop_bits);
    if (ctx_ == nullptr) {
        std::printf("modbus: settings refused: %s\r\n", modbus_strerror(errno));
        return;
    }
    modbus_set_response_timeout(ctx_, s.timeout_ms / 1000, s.timeout_ms % 1000 * 1000);
}

ModbusMaster::~ModbusMaster()
{
    if (ctx_ != nullptr) {
        modbus_close(ctx_);
        modbus_free(ctx_);
    }
}

// Connects and addresses the station, then runs the exchange; a settings
// error of libmodbus leaves no context and fails every call.
template <typename Exchange>
int ModbusMaster::exchange(uint16_t station, Exchange run)
{
    if (ctx_ == nullptr) {
        return DRV_FAILED;
    }
    return ready(station) ? run() : failure();
}

// Connects when the connection is down (a lost connection is re-opened on
// the next call, without a delay of its own) and addresses the station.
bool ModbusMaster::ready(uint16_t station)
{
    if (!connected_) {
        if (modbus_connect(ctx_) == -1) {
            return false;
        }
        connected_ = true;
        flush_ = false;
    } else if (flush_) {
        modbus_flush(ctx_);
        flush_ = false;
    }
    if (modbus_set_slave(ctx_, station) == -1) {
        errno = EINVAL;
        return false;
    }
    return true;
}

// The result of a failed exchange, from errno. A TCP stream that timed out
// or carried a malformed reply may still deliver the late bytes, so it is
// closed; a serial line is flushed before its next request, and re-opened
// only when the device itself failed.
int ModbusMaster::failure()
{
    const int err = errno;
    const bool no_answer = err == ETIMEDOUT || is_os_error(err);
    if (no_answer || err >= EMBBADCRC) {
        if (settings_.tcp || (is_os_error(err) && err != ETIMEDOUT)) {
            drop_connection();
        } else {
            flush_ = true;
        }
    }
    return no_answer ? DRV_NO_ANSWER : DRV_FAILED;
}

void ModbusMaster::drop_connection()
{
    modbus_close(ctx_);
    connected_ = false;
}

// Checks the request first: a request the plug-in refuses never touches the line.
int ModbusMaster::read(const DrvRegAddr& addr, DrvDataRef& data)
{
    const int64_t start = addr.reg_addr_start;
    const int64_t n = data.count;
    const int per = registers_per_element(addr.reg_type);
    const auto first = static_cast<int>(start * std::max(per, 1));
    const auto count = static_cast<int>(n * std::max(per, 1));
    switch (addr.reg_id) {
    case KIND_COILS:
    case KIND_DISCRETE_INPUTS:
        if (addr.reg_type != REG_TYPE_BIT || !fits(start, n, ADDRESS_SPACE)) {
            return DRV_FAILED;
        }
        return exchange(addr.plc_id, [&] { return read_bits(addr.reg_id, first, count, data.data); });
    case KIND_INPUT_REGISTERS:
    case KIND_HOLDING_REGISTERS:
        if (per == 0 || !fits(start * per, n * per, ADDRESS_SPACE)) {
            return DRV_FAILED;
        }
        return exchange(addr.plc_id, [&] {
            return read_registers(addr.reg_id, first, count, data.data, piece_limit(MODBUS_MAX_READ_REGISTERS, per));
        });
    case KIND_INPUT_REGISTER_BITS:
    case KIND_HOLDING_REGISTER_BITS:
        if (addr.reg_type != REG_TYPE_BIT || !fits(start, n, ADDRESS_SPACE * BITS_PER_REGISTER)) {
            return DRV_FAILED;
        }
        return exchange(addr.plc_id, [&] { return read_register_bits(addr.reg_id - 2, first, count, data.data); });
    default:
        return DRV_FAILED;
    }
}

int ModbusMaster::write(const DrvRegAddr& addr, const DrvDataRef& data)
{
    const int64_t start = addr.reg_addr_start;
    const int64_t n = data.count;
    const int per = registers_per_element(addr.reg_type);
    if (addr.reg_id == KIND_COILS && addr.reg_type == REG_TYPE_BIT && fits(start, n, ADDRESS_SPACE)) {
        return exchange(addr.plc_id, [&] {
            return write_bits(static_cast<int>(start), static_cast<int>(n), data.data);
        });
    }
    if (addr.reg_id == KIND_HOLDING_REGISTERS && per != 0 && fits(start * per, n * per, ADDRESS_SPACE)) {
        return exchange(addr.plc_id, [&] {
            return write_registers(static_cast<int>(start * per), static_cast<int>(n * per), data.data,
                                   piece_limit(MODBUS_MAX_WRITE_REGISTERS, per));
        });
    }
    return DRV_FAILED;  // read-only kinds, bit views, unknown kinds and widths
}

int ModbusMaster::read_bits(int kind, int first, int count, uint8_t* out)
{
    uint8_t bits[MODBUS_MAX_READ_BITS];
    // Pieces start at multiples of MODBUS_MAX_READ_BITS, which is a whole number of bytes.
    const bool ok = in_pieces(first, count, MODBUS_MAX_READ_BITS, [&](int a, int n, int done) {
        const int rc = kind == KIND_COILS ? modbus_read_bits(ctx_, a, n, bits) : modbus_read_input_bits(ctx_, a, n, bits);
        if (rc == n) {
            pack_bits(bits, n, out + done / 8);
        }
        return rc;
    });
    return ok ? DRV_OK : failure();
}

int ModbusMaster::read_registers(int kind, int first, int count, uint8_t* out, int piece_max)
{
    uint16_t regs[MODBUS_MAX_READ_REGISTERS];
    const bool ok = in_pieces(first, count, piece_max, [&](int a, int n, int done) {
        const int rc = kind == KIND_HOLDING_REGISTERS ? modbus_read_registers(ctx_, a, n, regs)
                                                      : modbus_read_input_registers(ctx_, a, n, regs);
        if (rc == n) {
            store_le16(regs, n, out + 2 * done);
        }
        return rc;
    });
    return ok ? DRV_OK : failure();
}

// Bit b of a bit view is bit b % 16 of register b / 16: the registers that
// hold the range are read and the bits picked out of their little-endian bytes.
int ModbusMaster::read_register_bits(int kind, int first_bit, int count, uint8_t* out)
{
    const int skip = first_bit % BITS_PER_REGISTER;
    const int regs = (skip + count + BITS_PER_REGISTER - 1) / BITS_PER_REGISTER;
    std::vector<uint8_t> words(static_cast<size_t>(regs) * 2);
    const int r = read_registers(kind, first_bit / BITS_PER_REGISTER, regs, words.data(), MODBUS_MAX_READ_REGISTERS);
    if (r != DRV_OK) {
        return r;
    }
    std::memset(out, 0, static_cast<size_t>(count + 7) / 8);
    for (int i = 0; i < count; ++i) {
        const int b = skip + i;
        if ((words[b / 8] >> (b % 8)) & 1) {
            out[i / 8] = static_cast<uint8_t>(out[i / 8] | 1u << (i % 8));
        }
    }
    return DRV_OK;
}

int ModbusMaster::write_bits(int first, int count, const uint8_t* in)
{
    uint8_t bits[MODBUS_MAX_WRITE_BITS];
    // Pieces start at multiples of MODBUS_MAX_WRITE_BITS, which is a whole number of bytes.
    const bool ok = in_pieces(first, count, MODBUS_MAX_WRITE_BITS, [&](int a, int n, int done) {
        modbus_set_bits_from_bytes(bits, 0, static_cast<unsigned>(n), in + done / 8);
        return n == 1 ? modbus_write_bit(ctx_, a, bits[0]) : modbus_write_bits(ctx_, a, n, bits);
    });
    return ok ? DRV_OK : failure();
}

int ModbusMaster::write_registers(int first, int count, const uint8_t* in, int piece_max)
{
    uint16_t regs[MODBUS_MAX_WRITE_REGISTERS];
    const bool ok = in_pieces(first, count, piece_max, [&](int a, int n, int done) {
        load_le16(in + 2 * done, n, regs);
        return n == 1 ? modbus_write_register(ctx_, a, regs[0]) : modbus_write_registers(ctx_, a, n, regs);
    });
    return ok ? DRV_OK : failure();
}
