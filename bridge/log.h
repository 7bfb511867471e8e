// combridge's diagnostic lines: one line per event on standard error,
// written with one call so lines of different threads never interleave.
#pragma once

#include <cstdio>
#include <string>

namespace bridge {

inline void log_line(const std::string& text)
{
    const std::string line = "combridge: " + text + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
}

} // namespace bridge
