#pragma once

// Captions on their way into one encoder: paced so that each picture gets what it can carry, and followed
// until they have left with its unit.
//
//     CaptionTrack track(caption_forms(encoder, false), source_rate, encoded_rate);
//     track.push(frame, captions);                      // as they come, ahead of the pictures
//     ancillary.captions = track.next(picture_number, encoder.input_frame_count);
//     track.after(encoder.push(picture, ancillary));    // and emitted() for every unit

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "captions/repacer.h"
#include "captions/schedule.h"
#include "encoding/caption_account.h"
#include "encoding/caption_forms.h"
#include "encoding/picture_encoder.h"

namespace gsve::encoding {

/// A queue in front of the encoder that takes back what went to a picture that was then dropped.
class PictureLine {
public:
    explicit PictureLine(captions::FrameRate rate) : budget_(captions::picture_budget(rate)) {}

    /// Adds what is due for picture `picture`, and gives what it can carry.
    captions::PictureWrites next(uint64_t picture, const captions::PictureWrites& due);

    /// The picture of the latest next() was dropped.
    void take_back();

    /// Pairs of a field in the queue, and constructs.
    uint64_t waiting_pairs(int field) const;
    uint64_t waiting_constructs() const { return constructs_.size(); }

private:
    struct Pair {
        captions::Word word = 0;  ///< 0 where a picture is to be idle
        int64_t due = 0;
    };
    struct Construct {
        captions::Cea708Construct construct;
        int64_t due;
    };
    struct Field {
        std::deque<Pair> pairs;  ///< waiting
        Pair sent;               ///< to the latest picture of this field
        Pair before;             ///< to the one before it

        Pair next(Pair due);
        void take_back();
    };

    bool carries(uint64_t picture, int field) const {
        return !budget_.alternating_fields || picture % 2 == static_cast<uint64_t>(field);
    }

    captions::PictureBudget budget_;
    uint64_t picture_ = 0;
    Field fields_[2];
    std::deque<Construct> constructs_;
    std::vector<Construct> sent_constructs_;
};

class CaptionTrack {
public:
    /// For an encoder that sends `forms` at `encoded_rate`; push() counts frames at `source_rate`.
    CaptionTrack(CaptionForms forms, captions::FrameRate source_rate, captions::FrameRate encoded_rate);

    /// Takes in what is known of a whole programme, made for the encoded rate. Nothing is pushed then.
    void load(const captions::Schedule& schedule);

    /// Takes in what comes with one frame, or from it on. Frames ascend. Returns how much that is.
    CaptionCount push(int64_t frame, captions::PictureCaptions captions);

    /// No more will be pushed.
    void finish() { repacer_.finish(); }

    /// For how many seconds push() is to be ahead of next().
    double foresight() const;

    /// What goes with a picture that the encoder takes: number `number`, the `encoded`-th that it takes.
    captions::PictureWrites next(uint64_t number, uint64_t encoded);

    /// The same, where it was decided before what goes with the picture.
    captions::PictureWrites planned(uint64_t number, uint64_t encoded, captions::PictureWrites writes);

    /// Tells what became of that picture.
    void after(PictureFate fate);

    /// A unit has left the encoder.
    void emitted(const EncodedUnit& unit);

    /// What is certain to be in no unit: the stream has no form for it, or its picture was too long in the
    /// codec.
    CaptionCount lost() const;

    /// To be called when the encoder has been drained; `encoded` pictures went into it. The caller adds what
    /// it knows: where the captions came from, and what the files' had to change.
    CaptionAccount account(uint64_t encoded) const;

private:
    /// What a picture that is in the codec carries.
    struct Given {
        CaptionCount count;
        uint64_t delayed_pairs = 0;
        int64_t largest_delay = 0;  ///< in encoded pictures
    };

    static Given given(const captions::PictureWrites& writes, int64_t picture);
    std::vector<LostCaption> lost_captions(uint64_t encoded) const;
    void forget_what_was_sent();

    CaptionForms forms_;
    captions::FrameRate output_rate_;
    captions::Schedule asked_;  ///< the pairs that were taken in lately
    captions::Repacer repacer_;
    PictureLine line_;
    std::map<uint64_t, Given> in_codec_;  ///< by picture number
    uint64_t newest_ = 0;                 ///< picture that next() was given last
    CaptionCount carried_, without_form_, expired_;
    uint64_t delayed_pairs_ = 0;
    int64_t largest_delay_ = 0;
};

/// The SCTE 20 body for what goes with one picture; empty where that has no byte pairs. `top_field_first` as
/// the picture flags it.
std::vector<uint8_t> scte20_body(const captions::PictureWrites& writes, bool top_field_first);

}  // namespace gsve::encoding
