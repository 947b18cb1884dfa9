#include "firmwaretable.h"

#include <cctype>
#include <cstdio>
#include <cstring>

namespace platform {

namespace {

const char* const entryPointPath = "/sys/firmware/dmi/tables/smbios_entry_point";
const char* const structuresPath = "/sys/firmware/dmi/tables/DMI";
const char* const fallbackPaths[] = {"/sys/class/dmi/id/product_uuid", "/etc/machine-id"};

// Real structure tables take a few kilobytes; anything past this is not a table we want.
constexpr std::size_t maxStructuresSize = 16 * 1024 * 1024;

// Reads at most `limit` bytes; a longer file counts as unreadable.
bool readFile(const char* path, std::size_t limit, std::string& content) {
    std::FILE* file = std::fopen(path, "rb");
    if (!file)
        return false;
    content.clear();
    char block[4096];
    std::size_t got = 0;
    while (content.size() <= limit && (got = std::fread(block, 1, sizeof block, file)) > 0)
        content.append(block, got);
    const bool ok = !std::ferror(file) && content.size() <= limit;
    std::fclose(file);
    return ok;
}

std::string trimmed(const std::string& text) {
    std::size_t begin = 0;
    std::size_t end = text.size();
    while (begin < end && std::isspace(static_cast<unsigned char>(text[begin])))
        ++begin;
    while (end > begin && std::isspace(static_cast<unsigned char>(text[end - 1])))
        --end;
    return text.substr(begin, end - begin);
}

// Firmware and systemd both leave placeholders behind ("uninitialized", all zeros, all
// ones); only a real identifier is worth sending.
bool usableIdentifier(const std::string& text) {
    bool allZero = true;
    bool allOnes = true;
    bool anyDigit = false;
    for (const char c : text) {
        if (c == '-')
            continue;
        if (!std::isxdigit(static_cast<unsigned char>(c)))
            return false;
        anyDigit = true;
        allZero = allZero && c == '0';
        allOnes = allOnes && (c == 'f' || c == 'F');
    }
    return anyDigit && !allZero && !allOnes;
}

} // namespace

std::vector<uint8_t> rsmbFromDmiTables(const std::string& entryPoint,
                                       const std::string& structures) {
    uint8_t major = 0;
    uint8_t minor = 0;
    if (entryPoint.size() >= 9 && entryPoint.compare(0, 5, "_SM3_") == 0) {
        major = static_cast<uint8_t>(entryPoint[7]);
        minor = static_cast<uint8_t>(entryPoint[8]);
    } else if (entryPoint.size() >= 8 && entryPoint.compare(0, 4, "_SM_") == 0) {
        major = static_cast<uint8_t>(entryPoint[6]);
        minor = static_cast<uint8_t>(entryPoint[7]);
    } else {
        return {};
    }
    if (structures.size() > maxStructuresSize)
        return {};

    const auto length = static_cast<uint32_t>(structures.size());
    // Calling method and DMI revision stay 0: Linux publishes neither, and nothing reads them.
    std::vector<uint8_t> table{0,
                               major,
                               minor,
                               0,
                               static_cast<uint8_t>(length),
                               static_cast<uint8_t>(length >> 8),
                               static_cast<uint8_t>(length >> 16),
                               static_cast<uint8_t>(length >> 24)};
    table.insert(table.end(), structures.begin(), structures.end());
    return table;
}

uint32_t rawSmbiosTable(void* buffer, uint32_t size) {
    std::string entryPoint;
    std::string structures;
    if (!readFile(entryPointPath, 64, entryPoint) ||
        !readFile(structuresPath, maxStructuresSize, structures))
        return 0;
    const std::vector<uint8_t> table = rsmbFromDmiTables(entryPoint, structures);
    if (table.empty())
        return 0;
    if (buffer && size >= table.size())
        std::memcpy(buffer, table.data(), table.size());
    return static_cast<uint32_t>(table.size());
}

std::string fallbackMachineId() {
    for (const char* path : fallbackPaths) {
        std::string content;
        if (!readFile(path, 256, content))
            continue;
        const std::string identifier = trimmed(content);
        if (usableIdentifier(identifier))
            return identifier;
    }
    return std::string();
}

} // namespace platform
