#pragma once

// Captions on their way into the encoder: from the input's pictures or from caption files, paced so that each
// encoded picture gets what it can carry.

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "captions/repacer.h"
#include "host.h"

namespace gsve::cli {

struct CaptionOptions {
    bool carry_over = true;          ///< take the input's captions when there are no files
    std::vector<std::string> files;  ///< the first for one field, the second for the other
    int field = 0;                   ///< of the first file, 1 or 2; 0: not given
    std::optional<int> rows;         ///< SRT, WebVTT: the most rows of a caption
    std::string start;               ///< the file's time, or time code, for the first picture; empty: zero
    bool scte20 = false;             ///< send the byte pairs as SCTE 20 user data, too
};

/// Throws UsageError for files and options that do not go together, and for a codec that does not fit.
void check_caption_options(const CaptionOptions& options, const std::string& codec);

/// In which forms an opened encoder sends captions.
struct CaptionForms {
    bool cc = false;       ///< MPEG-2 "CC" user data
    bool cc_data = false;  ///< A/53 cc_data
    bool scte20 = false;

    bool pairs() const { return cc || cc_data || scte20; }
};

CaptionForms caption_forms(Host& host, bool scte20);

/// Throws UsageError where the encoder's settings would lose captions on the way.
void check_caption_settings(Host& host, const CaptionForms& forms);

/// A file's or an input's captions, counted in EIA-608 byte pairs (idle ones not counted) and CEA-708
/// constructs.
struct CaptionCount {
    uint64_t pairs = 0;
    uint64_t constructs = 0;

    uint64_t all() const { return pairs + constructs; }
    CaptionCount& operator+=(const CaptionCount& other) {
        pairs += other.pairs;
        constructs += other.constructs;
        return *this;
    }
};

/// A caption that is not in the stream, or not with all its text, because the stream ended.
struct LostCaption {
    enum class Reason { kDidNotFit, kCutShort, kAfterTheEnd };

    double time = 0;  ///< seconds from the first picture, at which it was to be seen
    int channel = 1;  ///< 1 to 4, as in CC1 to CC4
    Reason reason = Reason::kDidNotFit;
    std::string text;  ///< UTF-8; rows are separated by '\n'
};

/// What became of the captions. Each pair and construct is counted once.
struct CaptionAccount {
    std::string source;      ///< "input", "file" or "none"
    CaptionCount carried;    ///< went into the stream
    CaptionCount left_over;  ///< waited when the last picture went in: late, or meant for later pictures
    std::vector<LostCaption> lost;  ///< the captions among them
    uint64_t repetitions_left_out =
        0;  ///< of the input's control pairs, to make up for a delay; nothing is lost with them
    CaptionCount without_form;         ///< the stream has no form for them, by its codec or settings
    CaptionCount expired;              ///< their pictures stayed in the codec for too long, or never left it
    uint64_t pairs_after_last_cc = 0;  ///< "CC" user data ends before the last pictures: pairs not in it
    uint64_t delayed_pairs = 0;  ///< of those carried: not on the first picture that could have had them
    double largest_delay = 0;    ///< seconds after that picture, of the latest pair or construct
    std::map<std::string, size_t> warnings;  ///< about files, by kind: how many captions or places
};

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

class CaptionFeed {
public:
    /// For an opened encoder. Throws captions::FileError, and UsageError for a bad start time code.
    CaptionFeed(const CaptionOptions& options, const Source& source, Host& host);

    /// What the files' captions had to change or leave out, a line each.
    const captions::Report& report() const { return report_; }

    /// For how many seconds the source is to be decoded ahead of before().
    double foresight(const Source& source) const;

    /// Queues the captions of a picture that encode() will be given next.
    void before(Source& source, Host& host, const Picture& picture);

    /// Tells what became of that picture.
    void after(Outcome outcome);

    /// A unit has left the encoder.
    void emitted(const EncodedUnit& unit);

    /// To be called when the encoder has been drained.
    CaptionAccount account(const Host& host) const;

private:
    /// What a picture that is in the codec carries.
    struct Given {
        CaptionCount count;
        uint64_t delayed_pairs = 0;
        int64_t largest_delay = 0;  ///< in encoded pictures
    };

    static Given given(const captions::PictureWrites& writes, int64_t picture);
    void take_in(Source& source);
    std::vector<LostCaption> lost_captions(const Host& host) const;

    captions::FrameRate output_rate_;
    CaptionForms forms_;
    std::string origin_;
    captions::Report report_;
    captions::Schedule asked_;  ///< all pairs that were taken in
    captions::Repacer repacer_;
    PictureLine line_;
    std::map<uint64_t, Given> in_codec_;  ///< by picture number
    uint64_t newest_ = 0;                 ///< picture that before() was given last
    CaptionCount carried_, without_form_, expired_;
    uint64_t delayed_pairs_ = 0;
    int64_t largest_delay_ = 0;
};

}  // namespace gsve::cli
