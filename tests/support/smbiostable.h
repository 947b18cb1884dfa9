#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

// Builders for raw SMBIOS tables in the 'RSMB' layout, good and deliberately broken.
namespace smbios {

using Bytes = std::vector<uint8_t>;
using Uuid = std::array<uint8_t, 16>;

// The UUID whose byte order tells SMBIOS versions apart.
extern const Uuid sampleUuid;

// One structure: type, formatted length (4 + afterHeader), handle, the bytes after the
// header, then each string with its zero and the zero that closes the set.
Bytes structure(uint8_t type, uint16_t handle, const Bytes& afterHeader,
                const std::vector<std::string>& strings);

// Type 0 with its vendor and version strings.
Bytes biosInformation();

// Type 1 holding `uuid`, cut to `formattedLength` (27 is the full SMBIOS 2.4+ size).
Bytes systemInformation(const Uuid& uuid, uint8_t formattedLength = 27);

// Type 127, closing the table.
Bytes endOfTable();

Bytes concat(std::initializer_list<Bytes> parts);

// The 'RSMB' header for `structures` with a length field that matches them.
Bytes rsmb(uint8_t major, uint8_t minor, const Bytes& structures);

} // namespace smbios
