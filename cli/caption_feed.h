#pragma once

// Captions on their way into the encoder: from the input's pictures or from caption files, paced so that each
// encoded picture gets what it can carry.

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "captions/repacer.h"
#include "host.h"

namespace gsve::cli {

struct CaptionOptions {
    bool carry_over = true;          ///< take the input's captions when there are no files
    std::vector<std::string> files;  ///< the first for one field, the second for the other
    int field = 0;                   ///< of the first file, 1 or 2; 0: not given
    int rows = 2;                    ///< SRT, WebVTT: the most rows of a caption
    std::string start;               ///< SCC, MCC: the file's time code for the first picture; empty: zero
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

/// What became of the captions. Apart from those that were given to the encoder and lost by its codec, each
/// pair and construct is counted once.
struct CaptionAccount {
    std::string source;         ///< "input", "file" or "none"
    CaptionCount carried;       ///< went into the stream
    uint64_t left_over = 0;     ///< waited when the last picture went in: late, or meant for later pictures
    CaptionCount without_form;  ///< the stream has no form for them, by its codec or settings
    CaptionCount expired;       ///< their pictures stayed in the codec for too long, or never left it
    uint64_t pairs_after_last_cc = 0;  ///< "CC" user data ends before the last pictures: pairs not in it
    double largest_delay = 0;          ///< seconds, by which captions came later than asked
    std::map<std::string, size_t> warnings;  ///< about files, by kind
};

/// A queue in front of the encoder that takes back what went to a picture that was then dropped.
class PictureLine {
public:
    explicit PictureLine(captions::FrameRate rate) : budget_(captions::picture_budget(rate)) {}

    /// Adds what is due for picture `picture`, and gives what it can carry.
    captions::PictureWrites next(uint64_t picture, captions::PictureWrites due);

    /// The picture of the latest next() was dropped.
    void take_back();

    /// Pairs and constructs in the queue.
    uint64_t waiting() const;

private:
    struct Field {
        std::deque<captions::Word> pairs;  ///< waiting, with 0 where a picture is to be idle
        captions::Word sent = 0;           ///< to the latest picture of this field
        captions::Word before = 0;         ///< to the one before it

        captions::Word next(captions::Word due);
        void take_back();
    };

    bool carries(uint64_t picture, int field) const {
        return !budget_.alternating_fields || picture % 2 == static_cast<uint64_t>(field);
    }

    captions::PictureBudget budget_;
    uint64_t picture_ = 0;
    Field fields_[2];
    std::deque<captions::Cea708Construct> constructs_;
    std::vector<captions::Cea708Construct> sent_constructs_;
};

class CaptionFeed {
public:
    /// For an opened encoder. Throws captions::FileError, and UsageError for a bad start time code.
    CaptionFeed(const CaptionOptions& options, const Source& source, Host& host);

    /// What the files' captions had to change or leave out, a line each.
    const captions::Report& report() const { return report_; }

    /// Queues the captions of a picture that encode() will be given next.
    void before(Source& source, Host& host, const Picture& picture);

    /// Tells what became of that picture.
    void after(Outcome outcome);

    /// A unit has left the encoder.
    void emitted(const EncodedUnit& unit);

    /// To be called when the encoder has been drained.
    CaptionAccount account(const Host& host) const;

private:
    void take_in(Source& source);

    captions::FrameRate source_rate_;
    captions::FrameRate output_rate_;
    CaptionForms forms_;
    std::string origin_;
    captions::Report report_;
    captions::Repacer repacer_;
    PictureLine line_;
    std::map<uint64_t, CaptionCount> in_codec_;  ///< by picture number
    uint64_t newest_ = 0;                        ///< picture that before() was given last
    CaptionCount carried_, without_form_, expired_;
};

}  // namespace gsve::cli
