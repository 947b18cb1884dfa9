#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// The system UUID as the firmware stores it, with the SMBIOS version (major * 256 + minor)
// that tells how its first three fields are ordered.
struct SystemUuid {
    std::array<uint8_t, 16> bytes{};
    int version = 0;
};

// Walks a raw SMBIOS table of `size` bytes in the 'RSMB' layout (see platform/firmwaretable.h)
// to its first system-information structure. False for a malformed table, a table without a
// suitable structure, or a UUID of all zeros or all ones. Reads nothing outside the buffer,
// whatever it holds.
bool findSystemUuid(const uint8_t* table, std::size_t size, SystemUuid& uuid);
