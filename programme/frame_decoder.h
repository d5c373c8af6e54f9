#pragma once

// The pictures of a stream as the decoder makes them, on one time line from 0.

#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "encoding/picture_shape.h"
#include "programme/av.h"
#include "programme/damage_finder.h"
#include "programme/packet_source.h"

namespace gsve::programme {

/// A pause of the pictures, in the stream's unit.
struct Pause {
    int64_t at = 0;      ///< frame().pts of the picture after it, which leaves out what was skipped before
    int64_t lasted = 0;  ///< from the end of the picture before it
    bool skipped =
        false;  ///< frame().pts leaves it out, since it lasted longer than pictures are repeated for
};

/// What the coded unit of a decoded picture said of its shape: it goes with the frame through filters.
encoding::PictureShape shape_of(const AVFrame& frame);

class FrameDecoder {
public:
    /// Sees packets on their way to the decoder, and may change them.
    using PacketHook = std::function<void(AVPacket&)>;

    /// `threads`: of the decoder; 0 chooses. Throws Failure where the decoder does not open.
    FrameDecoder(PacketSource& source, const std::string& path, int threads);

    int threads() const { return decoder_->thread_count; }

    void on_packet(PacketHook hook) { on_packet_ = std::move(hook); }

    /// Decodes the next picture into frame(). Its pts is the time in the stream's unit since the first one,
    /// but for the pauses that are skipped. Where times go back, the picture follows the one before it. False
    /// at the end, and where the stream cannot be decoded further, which problem() then explains.
    bool next();

    /// Whether next() gave nothing since the source has others' packets to be taken first. It may go on.
    bool waits() const { return waits_; }

    AVFrame& frame() const { return *frame_; }
    uint64_t decoded() const { return decoded_; }      ///< pictures so far
    bool decoded_all() const { return decoded_all_; }  ///< the decoder has given its last picture
    const std::string& problem() const { return problem_; }
    AVRational own_rate() const { return own_rate_; }

    /// The time after the last picture, in the stream's unit.
    int64_t end_time() const { return next_time_; }

    /// The first picture's time on the input's time line, in the stream's unit.
    int64_t origin() const { return origin_; }

    /// Skips pauses that are longer. In seconds.
    void repeat_for(double longest) { longest_repeat_ = longest; }

    /// Goes on with a key picture of the source, which the caller has it go to. What is shown before that one
    /// is left out, since it may refer to what is not decoded.
    void go_on_from(int64_t pts);

    /// The time that a key picture's frame().pts will be.
    int64_t time_of(const KeyPicture& key) const { return key.pts - origin_; }

    /// Where no picture came for two seconds or longer, or for longer than pictures are repeated, so far.
    const std::vector<Pause>& pauses() const { return pauses_; }

    /// How long the pauses were, in kTimeUnit, that frame().pts leaves out before a picture that has been
    /// decoded, by its number at `frame_rate`. May be asked while another thread decodes.
    int64_t skipped_before(int64_t number, AVRational frame_rate) const;

    /// What was damaged or missing of all that has been decoded. To be asked once, at the end.
    Damage damage();

private:
    bool feed();
    bool fail(int error);
    void note_complaints();
    void note_shown(const AVFrame& frame, int64_t unit);
    int64_t continuous_time(const AVFrame& frame);
    double seconds(int64_t time) const {
        return static_cast<double>(time) * av_q2d(source_.stream().time_base);
    }
    bool changes_shape(const AVFrame& frame);
    void attach_shape(AVFrame& frame, int64_t unit);

    /// What all pictures have in common.
    struct Shape {
        int width = 0, height = 0, format = AV_PIX_FMT_NONE;

        friend bool operator==(const Shape&, const Shape&) = default;
    };

    PacketSource& source_;
    AVRational own_rate_;
    DamageFinder finder_;
    CodecContextPtr decoder_;
    PacketPtr packet_ = new_packet();
    FramePtr frame_ = new_frame();
    PacketHook on_packet_;
    Shape shape_;
    std::map<int64_t, encoding::PictureShape> shapes_;  ///< by unit, of pictures in the decoder
    uint64_t decoded_ = 0;
    bool decoded_all_ = false;
    bool read_all_ = false;  ///< there is no further packet
    bool waits_ = false;
    bool interrupted_ = false;  ///< since nobody wanted more
    int64_t gap_ = 0;           ///< time for which no picture came, before the latest one
    int64_t time_ = 0;          ///< of the latest picture
    int64_t next_time_ = 0;     ///< expected of the next picture
    int64_t offset_ = 0;        ///< added to the time line's times
    int64_t origin_ = 0;
    bool placed_ = false;           ///< origin_ is known
    std::optional<int64_t> begin_;  ///< in frame().pts: what is shown before is left out
    double longest_repeat_ = std::numeric_limits<double>::infinity();
    mutable std::mutex pauses_mutex_;
    std::vector<Pause> pauses_;
    std::string problem_;
};

}  // namespace gsve::programme
