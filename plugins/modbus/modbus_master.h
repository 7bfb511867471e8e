// Modbus master of one port: polls PLC stations over TCP or RTU through
// libmodbus. One port thread owns one master and is its only caller, so a
// master needs no lock; nothing here may throw.
#pragma once

#include <cstdint>
#include <string>

#include <modbus.h>

#include "driver/plc_abi.h"

// Result codes of ev_plc_read and ev_plc_write.
constexpr int DRV_OK = 0;
constexpr int DRV_NO_ANSWER = 2;  // time-out, or no connection to the station
constexpr int DRV_FAILED = 3;     // exception reply, malformed reply, or a request we refuse

// Register kinds (reg_id) of a Modbus port.
constexpr uint8_t KIND_COILS = 0;
constexpr uint8_t KIND_DISCRETE_INPUTS = 1;
constexpr uint8_t KIND_INPUT_REGISTERS = 3;
constexpr uint8_t KIND_HOLDING_REGISTERS = 4;
constexpr uint8_t KIND_INPUT_REGISTER_BITS = 5;    // bit view of kind 3
constexpr uint8_t KIND_HOLDING_REGISTER_BITS = 6;  // bit view of kind 4

// How a port reaches its stations, decoded from PortDevice and PlcParam.
struct MasterSettings {
    bool tcp = false;
    std::string host;        // TCP: dotted IPv4 address
    int tcp_port = 0;
    std::string device;      // RTU: serial device path
    int baud = 0;
    char parity = 'N';
    int data_bits = 0;
    int stop_bits = 0;
    uint32_t timeout_ms = 0; // response time-out
};

MasterSettings master_settings(const PortDevice& dev, const PlcParam& param);
// One line describing the settings, for the start-up output.
std::string describe(const MasterSettings& s);

class ModbusMaster {
public:
    explicit ModbusMaster(const MasterSettings& s);
    ~ModbusMaster();
    ModbusMaster(const ModbusMaster&) = delete;
    ModbusMaster& operator=(const ModbusMaster&) = delete;

    // Fill or send the buffer of a driver call; a DRV_ result code.
    int read(const DrvRegAddr& addr, DrvDataRef& data);
    int write(const DrvRegAddr& addr, const DrvDataRef& data);

private:
    template <typename Exchange>
    int exchange(uint16_t station, Exchange run);
    bool ready(uint16_t station);
    int failure();
    void drop_connection();
    int read_bits(int kind, int first, int count, uint8_t* out);
    int read_registers(int kind, int first, int count, uint8_t* out, int piece_max);
    int read_register_bits(int kind, int first_bit, int count, uint8_t* out);
    int write_bits(int first, int count, const uint8_t* in);
    int write_registers(int first, int count, const uint8_t* in, int piece_max);

    MasterSettings settings_;
    modbus_t* ctx_ = nullptr;
    bool connected_ = false;
    bool flush_ = false;     // RTU: a failed exchange may have left bytes on the line
};
