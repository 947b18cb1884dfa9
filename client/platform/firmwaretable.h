#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

// The raw SMBIOS table in the layout of the Windows 'RSMB' firmware table provider: one byte
// calling method, one byte SMBIOS major version, one byte minor version, one byte DMI
// revision, the structure data's length as 32 bits little-endian, then the structure data.
// Behaves like GetSystemFirmwareTable: returns the table's full size, copying the table into
// `buffer` only when `size` holds it all; 0 when the machine publishes no table.
uint32_t rawSmbiosTable(void* buffer, uint32_t size);

// A stable machine identifier for machines whose firmware table gives none: Linux tries
// /sys/class/dmi/id/product_uuid, then /etc/machine-id. Trimmed text of hexadecimal digits
// and hyphens, or empty when there is no usable source.
std::string fallbackMachineId();

// Linux only: builds the 'RSMB' layout from what Linux publishes under /sys/firmware/dmi/tables:
// the SMBIOS entry point ("smbios_entry_point"), which carries the version, and the structure table
// ("DMI"). Empty when the entry point is neither an SMBIOS 2 nor an SMBIOS 3 one, or the structure
// table is too large for the layout's length field.
std::vector<uint8_t> rsmbFromDmiTables(const std::string& entryPoint,
                                       const std::string& structures);

} // namespace platform
