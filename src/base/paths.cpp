// Device and data paths with their environment overrides. No other file names
// a device path.
#include "base/paths.h"

#include <cstdlib>

namespace {

std::string env_or(const char* name, const char* fallback)
{
    const char* v = std::getenv(name);
    return (v != nullptr && *v != '\0') ? std::string(v) : std::string(fallback);
}

} // namespace

std::string sram_path() { return env_or("COMSERVER_SRAM_PATH", "/dev/sram-mmap"); }
std::string spi_path() { return env_or("COMSERVER_SPI_PATH", "/dev/spi"); }
std::string data_dir() { return env_or("COMSERVER_DATA_DIR", "/tmp"); }

std::string serial_path_override(int deviceport)
{
    return env_or(("COMSERVER_SERIAL_PATH_" + std::to_string(deviceport)).c_str(), "");
}
