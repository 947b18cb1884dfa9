#include "smbiostable.h"

namespace smbios {

Bytes structure(uint8_t type, uint8_t length, uint8_t uuidSeed) {
    Bytes bytes(length, 1);
    bytes[0] = type;
    bytes[1] = length;
    for (int i = 8; i < 24 && i < length && type == 1; ++i)
        bytes[i] = static_cast<uint8_t>(uuidSeed + (uuidSeed % 0xFF ? i - 8 : 0));
    bytes.insert(bytes.end(), {'M', 'y', 'r', 't', 'l', 'e', 0, 0});
    return bytes;
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
