// Output of comctl: replies as readable text or as one JSON object per line.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "comclient.h"

namespace comctl {

struct Decode {
    bool as_float = false;  // show 32-bit values as IEEE single floats
};

const char* command_name(uint8_t command);
// Meaning of a status err code; err 1 reads differently per command.
const char* err_text(uint8_t command, uint8_t err);
// Bytes as hex pairs, separated by blanks unless spaced is false.
std::string hex(std::span<const uint8_t> bytes, bool spaced = true);

// recs: the records of the request, used to decode the data of each reply
// or entry by its register width and count.
std::string reply_text(const comclient::Reply& r, std::span<const comclient::RegAddr> recs, Decode d);
std::string reply_json(const comclient::Reply& r, std::span<const comclient::RegAddr> recs, Decode d,
                       int polls);
std::string error_json(const std::string& kind, const std::string& message);

}  // namespace comctl
