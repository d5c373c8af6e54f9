#pragma once

// A programme's pictures: any file that libavformat opens, decoded to planar 8-bit pictures of one size, one
// chroma format and one frame rate, with what came beside them.

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "encoding/picture_encoder.h"
#include "encoding/timecode_track.h"
#include "programme/ahead.h"
#include "programme/av.h"
#include "programme/caption_collector.h"
#include "programme/frame_decoder.h"
#include "programme/packet_source.h"
#include "programme/picture_converter.h"

namespace gsve::programme {

struct InputOptions {
    AVRational frame_rate = {0, 1};  ///< make the rate this one; 0 keeps the source's
    std::string chroma_format;       ///< the encoder's setting: what other pixel formats are converted to
    ColourWish colour;               ///< its output may be the source's size: 0x0
    bool captions = false;           ///< collect the captions, and look whether there are any
    StreamChoice choice;
    Container container =
        Container::kElementary;              ///< for which one: streams that it has no room for are not read
    double longest_repeat = kLongestRepeat;  ///< pauses that last longer, in seconds, are kept as pauses
    int decoder_threads = 0;                 ///< 0 chooses
};

/// One picture, in the order of display. The frame belongs to the input and is valid until its next one.
struct Picture {
    const AVFrame* frame = nullptr;
    uint64_t number = 0;  ///< source frame number, from 0
    AVRational display_aspect = {4, 3};
    int field_order = 0;  ///< 0 progressive, 1 top field first, 2 bottom field first
    std::optional<encoding::PictureTimecode> timecode;
    encoding::PictureShape shape, held_shape;  ///< told with it; told before, and still in force

    encoding::PictureView view() const;
};

class Input {
public:
    /// Opens `path` and decodes its first picture. Throws Failure when there is none.
    Input(const std::string& path, const InputOptions& options, StopRequest stop = {});

    const encoding::SourceDescription& format() const { return format_; }

    /// The first picture, which next() will return again.
    const Picture& first() const { return picture_; }

    /// The next picture; nothing at the end, after a request to stop, or when the input cannot go on, which
    /// problem() then explains.
    std::optional<Picture> next();

    /// From the next picture on, decodes so far ahead of next(), and keeps the pictures for it; less where
    /// they are so large that they would fill the memory.
    void read_ahead(double seconds);

    /// Makes the picture of this number the next one, and first(). Decodes from the key picture before it
    /// that `index` has, or all that lies between. To be called before next(). False where the container does
    /// not lead to the key picture: the input is of no use then. Throws Failure where there is no such
    /// picture.
    bool begin_at(uint64_t number, const KeyIndex& index);

    /// From the next picture on, reads, decodes and converts in threads of their own, some pictures ahead of
    /// next(), until that gives nothing any more. What next() and the take functions give is the same. What
    /// is told of the whole input may be asked for once next() has given nothing.
    void work_in_threads();

    /// Called by next() where packets are to be taken though there is no picture yet: sound may be much
    /// longer.
    void on_packets(std::function<void()> take) { on_packets_ = std::move(take); }

    /// Ends them before the end of the input.
    void end_threads();

    /// Of the decoder.
    int decoder_threads() const { return decoder_.threads(); }

    const std::string& problem() const {
        return converted_.problem.empty() ? decoder_.problem() : converted_.problem;
    }

    /// What becomes of the streams.
    const StreamPlan& plan() const { return packets_.plan(); }
    const AVFormatContext& container() const { return packets_.format(); }

    /// Reads on, and decodes nothing: take_packets() then gives what came with the pictures. False at the
    /// end. After it, nothing else is to be read.
    bool pass_over();

    /// The packets of the other streams that were read since the last call, with times on the input's time
    /// line, in their stream's unit. They run ahead of next() as the decoding does.
    std::vector<PacketPtr> take_packets();

    /// The first picture's time on the input's time line, in kTimeUnit, and in the stream's unit.
    int64_t origin() const;
    int64_t first_time() const { return decoder_.origin(); }

    /// When a picture is shown after the first one, in kTimeUnit: by its number and the frame rate, and later
    /// by the pauses before it that are no pictures. Numbers before the first are times before it.
    int64_t time_of(int64_t number) const;

    /// What the input's times had that is no steady run, so far, a line each.
    std::string timing_notes() const;

    /// What was damaged or missing of all that has been decoded. To be asked once, at the end.
    Damage damage() { return decoder_.damage(); }

    /// What was changed or left out on the way, a line each.
    const std::string& notes() const { return notes_; }

    /// The rate of the pictures in the file.
    AVRational own_rate() const { return decoder_.own_rate(); }

    /// Of the captions, where they are collected, and there are any.
    std::optional<CaptionForm> caption_form() const { return caption_form_; }

    /// Whether the stream carries captions, idle ones included: anywhere in a file, or in the first five
    /// seconds of what can be read only once.
    bool has_captions() const { return caption_form_.has_value(); }

    /// By how many frames at most the captions come after their pictures have been decoded.
    int captions_behind() const { return captions_ ? captions_->behind() : 0; }

    /// The captions that were decoded since the last call, in the order of their frames. They run ahead of
    /// next() as the decoding does: those of the picture that it returned are always among them, but for what
    /// captions_behind() tells.
    std::vector<SourceCaptions> take_captions();

    /// The captions' byte pairs that came with wrong parity so far.
    captions::ParityDamage parity_damage() const {
        return captions_ ? captions_->parity_damage() : captions::ParityDamage();
    }

    /// Whether the decoder has given its last picture.
    bool decoded_all() const { return converted_.decoded_all; }

    /// Time code of the first picture, as the stream or its container has it; empty: none.
    const std::string& timecode() const { return timecode_; }
    bool container_has_timecode() const { return container_has_timecode_; }

    uint64_t decoded() const { return decoder_.decoded(); }  ///< pictures that came out of the decoder
    std::optional<uint64_t> expected_pictures() const;       ///< as far as the container tells

private:
    /// A picture on its way, with what was found since the one before. The last one has no frame, nor have
    /// those that bring packets alone.
    struct Found {
        FramePtr frame;
        bool goes_on = false;  ///< without a frame
        std::vector<SourceCaptions> captions;
        std::vector<PacketPtr> packets;
        int64_t end_time = 0;  ///< of the frame, or of the last one, as the decoder counts
        bool decoded_all = false;
        std::string problem;  ///< why the input cannot go on

        void add(Found&& later);
    };

    void choose_rate(const InputOptions& options);
    void describe_first();
    bool advance();
    Found decode();
    Found convert();
    FramePtr read_picture(Found& found);
    std::string change_of_colour(const AVFrame& frame);
    void note_first_timecode(const AVFrame& frame);

    PacketSource packets_;
    FrameDecoder decoder_;
    std::optional<CaptionForm> caption_form_;
    std::optional<CaptionCollector> captions_;  ///< where they are collected
    std::optional<Found> first_decoded_;        ///< which is not converted yet
    std::string timecode_;
    bool container_has_timecode_ = false;  ///< those of the pictures do not count
    std::string notes_;
    encoding::SourceDescription format_;
    std::optional<PictureConverter> converter_;
    std::optional<encoding::Colour> first_colour_;
    bool colour_changed_ = false;

    // Of the conversion.
    std::deque<FramePtr> held_;  ///< for the next pictures
    size_t pictures_ahead_ = 0;  ///< that are to be held
    bool read_all_ = false;      ///< held_ has the last picture, or there is none

    // Of who calls next().
    std::function<void()> on_packets_;
    Found converted_;  ///< the picture's frame, and what was not taken yet
    Picture picture_;
    bool first_pending_ = true;
    uint64_t produced_ = 0;

    // In the order of the work: each waits for the one before.
    std::unique_ptr<Ahead<Found>> decoding_, converting_;
};

/// Opens `path` with its first picture the one of this number: from the key picture before it that `index`
/// has, or, where the container does not lead there, from the beginning. Throws Failure as Input does.
std::unique_ptr<Input> open_input_at(const std::string& path, const InputOptions& options, StopRequest stop,
                                     uint64_t number, const KeyIndex& index);

}  // namespace gsve::programme
