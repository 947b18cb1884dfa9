#pragma once

#include <cstdint>
#include <vector>

// A picture that shows the previous one again, made without the encoder: an H.264 P slice in
// which every macroblock is skipped, with a picture parameter set of its own that selects CAVLC,
// where a whole picture of skips is a single number. It is not a reference picture, so the
// encoder's reference list, frame numbers and rate control never learn of it, and the next
// encoded picture predicts from the same picture it would have without it.
//
// It learns what it needs from the encoder's own packets (sequence parameter set, picture
// parameter set ids, the last slice's frame number). It offers a repeat only for a stream it
// fully understands: frames only, picture order derived from frame numbers, no scaling lists.
// In that picture order two pictures that are not references may not follow one another, so
// every repeat follows an encoded reference picture.
class RepeatPicture {
public:
    // Each packet the encoder produced, Annex B, in order.
    void observe(const uint8_t* data, int size);
    // True when the next picture may be a repeat.
    bool ready() const;
    // The repeat's bytes, Annex B; valid until the next call. Only while ready().
    const std::vector<uint8_t>& make();
    // A new stream: nothing known.
    void reset();

private:
    void readSequence(const uint8_t* payload, int size);
    void readPictureSet(const uint8_t* payload, int size);
    void readSlice(const uint8_t* payload, int size, bool reference);

    bool sequenceUsable = false;
    int sequenceId = 0;
    int frameNumBits = 0;
    int macroblocks = 0;
    int ownPictureSetId = -1; // one above every id the encoder used; -1 while none seen
    bool afterReference = false;
    int lastFrameNum = 0;
    std::vector<uint8_t> bytes;
    std::vector<uint8_t> rbsp;
};
