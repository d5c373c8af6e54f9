#pragma once

// The picture source: any file that libavformat opens, decoded to planar 8-bit pictures of one size, one
// chroma format and one frame rate.
//
// Pictures that the encoder can take are handed over as the decoder made them, without a copy. A filter graph
// repeats or leaves out pictures where the frame rate is not constant, and converts other pixel formats.

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "av.h"
#include "caption_packets.h"
#include "captions/schedule.h"

namespace gsve::cli {

/// What all pictures of a source have in common, as the encoder's input description wants it.
struct SourceFormat {
    int width = 0;  ///< luma samples that are handed over; the decoder may have made more
    int height = 0;
    unsigned chroma_shift_x = 0;  ///< log2 of the horizontal chroma subsampling
    unsigned chroma_shift_y = 0;
    AVRational frame_rate = {25, 1};
    bool interlaced = false;
};

/// One picture, in the order of display. The frame belongs to the source and is valid until its next one.
struct Picture {
    const AVFrame* frame = nullptr;
    uint64_t number = 0;  ///< source frame number, from 0
    AVRational display_aspect = {4, 3};
    int field_order = 0;  ///< 0 progressive, 1 top field first, 2 bottom field first
};

struct SourceOptions {
    AVRational frame_rate = {0, 1};  ///< make the rate this one; 0 keeps the source's
    std::string chroma_format;       ///< the encoder's setting: what other pixel formats are converted to
    bool captions = false;           ///< collect the captions, and look whether there are any
};

/// The captions that come with one frame, or from it on. Frames are counted at the source's own rate, before
/// any were repeated or left out.
struct SourceCaptions {
    int64_t frame = 0;
    captions::PictureCaptions captions;
};

/// The lowest rate of 24000/1001, 24, 25, ... 60 that loses no pictures of `rate`, or the highest there is.
AVRational broadcast_rate(AVRational rate);

/// The rate of whole pictures, of the container's two estimates: the rate that all times fit and the average.
/// 25 where it has neither.
AVRational picture_rate(AVFormatContext* input, AVStream* stream);

class Source {
public:
    /// Opens `path` and decodes its first picture. Throws Failure when there is none.
    Source(const std::string& path, const SourceOptions& options);

    const SourceFormat& format() const { return format_; }

    /// The first picture, which next() will return again.
    const Picture& first() const { return picture_; }

    /// The next picture; nothing at the end, after a stop signal, or when the source cannot go on, which
    /// problem() then explains.
    std::optional<Picture> next();

    /// From the next picture on, decodes so far ahead of next(), and keeps the pictures for it; less where
    /// they are so large that they would fill the memory.
    void read_ahead(double seconds);

    const std::string& problem() const { return problem_; }

    /// What was changed or left out on the way to the encoder, a line each.
    const std::string& notes() const { return notes_; }

    /// The rate of the pictures in the file.
    AVRational own_rate() const { return own_rate_; }

    /// Whether the stream carries captions, idle ones included: anywhere in a file, or in the first five
    /// seconds of what can be read only once.
    bool has_captions() const { return caption_form_.has_value(); }

    /// By how many frames at most the captions come after their pictures have been decoded.
    int captions_behind() const;

    /// The captions that were decoded since the last call, in the order of their frames. They run ahead of
    /// next() as the decoding does: those of the picture that it returned are always among them, but for what
    /// captions_behind() tells.
    std::vector<SourceCaptions> take_captions() { return std::exchange(captions_, {}); }

    /// Whether the decoder has given its last picture.
    bool decoded_all() const { return decoded_all_; }

    /// Time code of the first picture, as the stream or its container has it; empty: none.
    const std::string& timecode() const { return timecode_; }

    uint64_t decoded() const { return decoded_; }       ///< pictures that came out of the decoder
    std::optional<uint64_t> expected_pictures() const;  ///< as far as the container tells

private:
    void open(const std::string& path);
    void convert_if_needed(const SourceOptions& options);
    void build_graph(const std::string& description, AVRational frame_rate);
    void describe_first();
    bool advance();
    FramePtr read_picture();
    bool read_filtered();
    bool decode();
    bool feed_decoder();
    void look_for_captions(const std::string& path);
    int read_packet();
    void note_side_data(const AVFrame& frame);
    void note_captions(const AVFrame& frame);
    void note_cc_run(const CcRun& run);
    void add_captions(int64_t frame, captions::PictureCaptions captions);
    int64_t continuous_time(const AVFrame& frame);
    AVRational field_duration() const;
    bool same_shape(const AVFrame& frame) const;

    InputPtr input_;
    AVStream* stream_ = nullptr;
    AVRational own_rate_ = {25, 1};
    bool timed_ = true;         ///< the container has times
    int64_t next_time_ = 0;     ///< expected of the next picture, in the stream's unit
    int64_t clock_offset_ = 0;  ///< added to the container's times since its clock was restarted
    CodecContextPtr decoder_;
    PacketPtr packet_;
    FramePtr decoded_frame_;     ///< latest from the decoder
    FramePtr filtered_frame_;    ///< latest from the graph
    std::deque<FramePtr> held_;  ///< for the next calls of next()
    FramePtr current_;           ///< the picture's
    size_t pictures_ahead_ = 0;  ///< that are to be held
    bool read_all_ = false;      ///< held_ has the last picture, or there is none
    FilterGraphPtr graph_;
    AVFilterContext* graph_in_ = nullptr;
    AVFilterContext* graph_out_ = nullptr;
    bool frame_waits_ = false;  ///< decoded_frame_ holds the first picture, not yet used
    int shape_width_ = 0, shape_height_ = 0, shape_format_ = AV_PIX_FMT_NONE;

    SourceFormat format_;
    Picture picture_;
    bool first_pending_ = true;
    uint64_t produced_ = 0;
    uint64_t decoded_ = 0;
    bool decoded_all_ = false;
    bool collect_captions_ = false;
    std::optional<CaptionForm> caption_form_;  ///< the first that was found
    std::deque<PacketPtr> ahead_;              ///< read while looking for captions
    CaptionFormFilter caption_filter_;
    CcClock cc_clock_;
    bool cc_in_use_ = false;
    bool three_fields_ = false;  ///< a picture has been shown for as long
    int64_t next_frame_ = 0;     ///< after the picture that was decoded last
    int64_t caption_frame_ = 0;  ///< of the latest captions
    std::vector<SourceCaptions> captions_;
    std::string timecode_;
    std::string problem_;
    std::string notes_;
};

}  // namespace gsve::cli
