#include "repeatpicture.h"

#include <algorithm>
#include <cstddef>

namespace {

constexpr int sliceNal = 1;
constexpr int idrSliceNal = 5;
constexpr int sequenceNal = 7;
constexpr int pictureSetNal = 8;
constexpr int pictureOrderFromFrameNum = 2;
constexpr int maxPictureSets = 256;
// A slice header's frame number lies within its first bytes whatever the ids and positions.
constexpr int sliceHeaderBytes = 32;

// Removes the emulation prevention bytes (00 00 03 -> 00 00).
void unescape(const uint8_t* data, int size, std::vector<uint8_t>& out) {
    out.clear();
    int zeros = 0;
    for (int i = 0; i < size; ++i) {
        if (zeros >= 2 && data[i] == 3) {
            zeros = 0;
            continue;
        }
        zeros = data[i] == 0 ? zeros + 1 : 0;
        out.push_back(data[i]);
    }
}

class BitReader {
public:
    explicit BitReader(const std::vector<uint8_t>& data) : data(data) {}
    uint32_t bits(int count) {
        uint32_t value = 0;
        for (int i = 0; i < count; ++i) {
            const std::size_t byte = position / 8;
            if (byte >= data.size()) {
                failed = true;
                return 0;
            }
            value = (value << 1) | ((data[byte] >> (7 - position % 8)) & 1);
            ++position;
        }
        return value;
    }
    // Exp-Golomb; anything longer than 32 bits is no stream this reads.
    uint32_t ue() {
        int zeros = 0;
        while (!failed && bits(1) == 0)
            if (++zeros > 31)
                failed = true;
        return failed ? 0 : (1u << zeros) - 1 + bits(zeros);
    }
    bool ok() const { return !failed; }

private:
    const std::vector<uint8_t>& data;
    std::size_t position = 0;
    bool failed = false;
};

class BitWriter {
public:
    explicit BitWriter(std::vector<uint8_t>& out) : out(out) { out.clear(); }
    void bits(uint32_t value, int count) {
        for (int i = count - 1; i >= 0; --i) {
            if (used == 0)
                out.push_back(0);
            out.back() |= ((value >> i) & 1) << (7 - used);
            used = (used + 1) % 8;
        }
    }
    void ue(uint32_t value) {
        int length = 0;
        while ((value + 1) >> length)
            ++length;
        bits(0, length - 1);
        bits(value + 1, length);
    }
    void trailing() {
        bits(1, 1);
        used = 0;
    }

private:
    std::vector<uint8_t>& out;
    int used = 0;
};

// One NAL unit: start code, header byte, the payload with emulation prevention bytes inserted.
void appendNal(std::vector<uint8_t>& out, uint8_t header, const std::vector<uint8_t>& payload) {
    static const uint8_t startCode[] = {0, 0, 0, 1};
    out.insert(out.end(), startCode, startCode + 4);
    out.push_back(header);
    int zeros = 0;
    for (const uint8_t byte : payload) {
        if (zeros >= 2 && byte <= 3) {
            out.push_back(3);
            zeros = 0;
        }
        zeros = byte == 0 ? zeros + 1 : 0;
        out.push_back(byte);
    }
}

// Where the next start code's first zero byte is, or `size`.
int nextStartCode(const uint8_t* data, int from, int size) {
    for (int i = from; i + 2 < size; ++i)
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1)
            return i > from && data[i - 1] == 0 ? i - 1 : i;
    return size;
}

} // namespace

void RepeatPicture::observe(const uint8_t* data, int size) {
    int start = nextStartCode(data, 0, size);
    while (start < size) {
        const int header = start + (data[start + 2] == 1 ? 3 : 4);
        if (header >= size)
            return;
        const int type = data[header] & 0x1f;
        const bool reference = (data[header] >> 5) != 0;
        if (type == sliceNal || type == idrSliceNal) {
            // The rest of the picture is slice data; its first slice says all there is to know.
            readSlice(data + header + 1, std::min(size - header - 1, sliceHeaderBytes), reference);
            return;
        }
        const int end = nextStartCode(data, header + 1, size);
        if (type == sequenceNal)
            readSequence(data + header + 1, end - header - 1);
        else if (type == pictureSetNal)
            readPictureSet(data + header + 1, end - header - 1);
        start = end;
    }
}

void RepeatPicture::readSequence(const uint8_t* payload, int size) {
    unescape(payload, size, rbsp);
    BitReader reader(rbsp);
    const uint32_t profile = reader.bits(8);
    reader.bits(16); // constraint flags and level
    sequenceId = static_cast<int>(reader.ue());
    bool usable = true;
    static const uint32_t chromaProfiles[] = {100, 110, 122, 244, 44,  83, 86,
                                              118, 128, 138, 139, 134, 135};
    if (std::find(std::begin(chromaProfiles), std::end(chromaProfiles), profile) !=
        std::end(chromaProfiles)) {
        if (reader.ue() == 3)
            usable = reader.bits(1) == 0;       // colour planes coded apart
        reader.ue();                            // luma bit depth
        reader.ue();                            // chroma bit depth
        reader.bits(1);                         // lossless bypass
        usable = usable && reader.bits(1) == 0; // scaling lists are not read here
    }
    frameNumBits = static_cast<int>(reader.ue()) + 4;
    usable = usable && reader.ue() == pictureOrderFromFrameNum;
    reader.ue();    // reference frames
    reader.bits(1); // gaps in frame numbers
    const uint32_t widthMbs = reader.ue() + 1;
    const uint32_t heightMbs = reader.ue() + 1;
    usable = usable && reader.bits(1) == 1; // frames only
    sequenceUsable = usable && reader.ok() && frameNumBits <= 16 && widthMbs * heightMbs <= 139264;
    macroblocks = static_cast<int>(widthMbs * heightMbs);
}

void RepeatPicture::readPictureSet(const uint8_t* payload, int size) {
    unescape(payload, std::min(size, 4), rbsp);
    BitReader reader(rbsp);
    const uint32_t id = reader.ue();
    if (reader.ok())
        ownPictureSetId =
            std::max(ownPictureSetId, static_cast<int>(std::min<uint32_t>(id, 255)) + 1);
}

void RepeatPicture::readSlice(const uint8_t* payload, int size, bool reference) {
    unescape(payload, size, rbsp);
    BitReader reader(rbsp);
    reader.ue(); // first macroblock
    reader.ue(); // slice type
    reader.ue(); // picture parameter set
    lastFrameNum = static_cast<int>(reader.bits(frameNumBits));
    afterReference = reference && reader.ok();
}

bool RepeatPicture::ready() const {
    return sequenceUsable && afterReference && ownPictureSetId > 0 &&
           ownPictureSetId < maxPictureSets;
}

const std::vector<uint8_t>& RepeatPicture::make() {
    bytes.clear();
    // The picture parameter set goes with every repeat, so that a viewer who joins at any key
    // frame can decode the repeats after it.
    BitWriter set(rbsp);
    set.ue(static_cast<uint32_t>(ownPictureSetId));
    set.ue(static_cast<uint32_t>(sequenceId));
    set.bits(0, 1); // CAVLC
    set.bits(0, 1); // no field order in the slice header
    set.ue(0);      // one slice group
    set.ue(0);      // one reference in list 0 ...
    set.ue(0);      // ... and in list 1
    set.bits(0, 3); // no weighted prediction
    set.ue(0);      // initial QP 26, as signed Exp-Golomb 0
    set.ue(0);      // the same for SP slices
    set.ue(0);      // no chroma QP offset
    set.bits(1, 1); // the slice says how to deblock
    set.bits(0, 2); // no constrained intra, no redundant pictures
    set.trailing();
    appendNal(bytes, 0x68, rbsp); // a parameter set must be marked as referenced

    BitWriter slice(rbsp);
    slice.ue(0); // first macroblock
    slice.ue(5); // P, as every slice of this picture
    slice.ue(static_cast<uint32_t>(ownPictureSetId));
    slice.bits(static_cast<uint32_t>((lastFrameNum + 1) % (1 << frameNumBits)), frameNumBits);
    slice.bits(0, 1);                             // the reference count of the set
    slice.bits(0, 1);                             // the reference list as it is
    slice.ue(0);                                  // QP as the set's (se 0)
    slice.ue(1);                                  // no deblocking: nothing changes at any edge
    slice.ue(static_cast<uint32_t>(macroblocks)); // every macroblock skipped
    slice.trailing();
    appendNal(bytes, 0x01, rbsp); // not a reference picture, a slice of one
    afterReference = false;
    return bytes;
}

void RepeatPicture::reset() {
    sequenceUsable = false;
    frameNumBits = 0;
    macroblocks = 0;
    ownPictureSetId = -1;
    afterReference = false;
    lastFrameNum = 0;
}
