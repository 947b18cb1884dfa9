#include "smbiostable.h"

namespace smbios {

const Uuid sampleUuid{0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF,
                      0x10, 0x32, 0x54, 0x76, 0x98, 0xBA, 0xDC, 0xFE};

Bytes structure(uint8_t type, uint16_t handle, const Bytes& afterHeader,
                const std::vector<std::string>& strings) {
    Bytes bytes{type, static_cast<uint8_t>(4 + afterHeader.size()),
                static_cast<uint8_t>(handle & 0xFF), static_cast<uint8_t>(handle >> 8)};
    bytes.insert(bytes.end(), afterHeader.begin(), afterHeader.end());
    for (const std::string& text : strings) {
        bytes.insert(bytes.end(), text.begin(), text.end());
        bytes.push_back(0);
    }
    if (strings.empty())
        bytes.push_back(0);
    bytes.push_back(0);
    return bytes;
}

Bytes biosInformation() {
    // Vendor string 1, version string 2, then starting segment, release date 3, ROM size.
    const Bytes fields{1, 2, 0x00, 0xF0, 3, 0x0F};
    return structure(0, 0x0000, fields, {"Myrtle Firmware", "1.07", "03/14/2024"});
}

Bytes systemInformation(const Uuid& uuid, uint8_t formattedLength) {
    // Manufacturer, product, version, serial number strings, the UUID, wake-up type,
    // SKU and family strings.
    Bytes fields{1, 2, 0, 3};
    fields.insert(fields.end(), uuid.begin(), uuid.end());
    fields.insert(fields.end(), {0x06, 0, 0});
    fields.resize(formattedLength - 4u);
    return structure(1, 0x0001, fields, {"Brindle Labs", "Workstation 9", "SN-0042"});
}

Bytes endOfTable() {
    return structure(127, 0xFFFF, {}, {});
}

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes bytes;
    for (const Bytes& part : parts)
        bytes.insert(bytes.end(), part.begin(), part.end());
    return bytes;
}

Bytes rsmb(uint8_t major, uint8_t minor, const Bytes& structures) {
    const auto length = static_cast<uint32_t>(structures.size());
    Bytes bytes{0,
                major,
                minor,
                0,
                static_cast<uint8_t>(length),
                static_cast<uint8_t>(length >> 8),
                static_cast<uint8_t>(length >> 16),
                static_cast<uint8_t>(length >> 24)};
    bytes.insert(bytes.end(), structures.begin(), structures.end());
    return bytes;
}

} // namespace smbios
