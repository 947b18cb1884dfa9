#include "systemuuid.h"

#include <algorithm>

namespace {
constexpr std::size_t rsmbHeaderSize = 8;
constexpr uint8_t systemInformationType = 1;
constexpr uint8_t minSystemInformationLength = 24;
constexpr std::size_t uuidOffset = 8;
} // namespace

bool findSystemUuid(const uint8_t* table, std::size_t size, SystemUuid& uuid) {
    if (size < rsmbHeaderSize)
        return false;
    const uint32_t length = static_cast<uint32_t>(table[4]) | static_cast<uint32_t>(table[5]) << 8 |
                            static_cast<uint32_t>(table[6]) << 16 |
                            static_cast<uint32_t>(table[7]) << 24;
    if (length != size - rsmbHeaderSize)
        return false;
    const uint8_t* const data = table + rsmbHeaderSize;

    // Every bound is checked as a count of bytes left, so no pointer ever leaves the data.
    std::size_t at = 0;
    for (;;) {
        if (length - at < 4)
            return false;
        const uint8_t type = data[at];
        const uint8_t formattedLength = data[at + 1];
        if (formattedLength == 0 || formattedLength > length - at)
            return false;
        if (type == systemInformationType && formattedLength >= minSystemInformationLength)
            break;

        // The string set behind the formatted area ends with two zero bytes.
        std::size_t scan = at + formattedLength;
        while (scan + 1 < length && !(data[scan] == 0 && data[scan + 1] == 0))
            ++scan;
        if (scan + 1 >= length)
            return false;
        at = scan + 2;
    }

    const uint8_t* const found = data + at + uuidOffset;
    const auto isZero = [](uint8_t byte) { return byte == 0x00; };
    const auto isOnes = [](uint8_t byte) { return byte == 0xFF; };
    if (std::all_of(found, found + 16, isZero) || std::all_of(found, found + 16, isOnes))
        return false;
    std::copy(found, found + 16, uuid.bytes.begin());
    uuid.version = table[1] * 256 + table[2];
    return true;
}
