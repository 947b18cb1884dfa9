#pragma once

#include <cstdint>
#include <initializer_list>
#include <vector>

// Raw SMBIOS tables in the 'RSMB' layout, good and deliberately broken.
namespace smbios {

using Bytes = std::vector<uint8_t>;

// One structure with a formatted area of `length` bytes (header included) and one string. A
// system information structure (type 1) carries `uuidSeed`, seed + 1, ... as its UUID; a seed
// of 0 or 0xFF fills the whole UUID with it.
Bytes structure(uint8_t type, uint8_t length = 27, uint8_t uuidSeed = 0x10);

Bytes concat(std::initializer_list<Bytes> parts);

// The 'RSMB' header for `structures` with a length field that matches them.
Bytes rsmb(uint8_t major, uint8_t minor, const Bytes& structures);

} // namespace smbios
