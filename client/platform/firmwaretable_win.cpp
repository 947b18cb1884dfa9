#include "firmwaretable.h"

#include <windows.h>

namespace platform {

namespace {
// The provider signature 'RSMB' as the four bytes of one value.
constexpr DWORD rawSmbiosProvider = 0x52534D42;
} // namespace

uint32_t rawSmbiosTable(void* buffer, uint32_t size) {
    return GetSystemFirmwareTable(rawSmbiosProvider, 0, buffer, size);
}

std::string fallbackMachineId() {
    // Every Windows version we run on has the firmware table service; a machine without a
    // usable table is reported as an unknown host rather than by a second, different source.
    return std::string();
}

} // namespace platform
