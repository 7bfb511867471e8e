// Device and data paths. The environment overrides the device defaults so
// that the server can run on machines without the HMI's devices.
#pragma once

#include <string>

std::string sram_path();  // COMSERVER_SRAM_PATH, default "/dev/sram-mmap"
std::string spi_path();   // COMSERVER_SPI_PATH, default "/dev/spi"
std::string data_dir();   // COMSERVER_DATA_DIR, default "/tmp"
// COMSERVER_SERIAL_PATH_<deviceport>: the device of that serial line in
// place of the built-in tables; empty when the variable is not set.
std::string serial_path_override(int deviceport);
