#pragma once

// The host: what a program adds to GeneralStreamingVideoEncoder. It describes the source, signals each
// picture's aspect ratio and field order, numbers the pictures, and passes the units on.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <gsve.h>

#include "error.h"
#include "source.h"
#include "unit_times.h"

namespace gsve::cli {

/// One encoded unit. The bytes are the encoder's, valid during the call that delivers them.
struct EncodedUnit {
    std::span<const uint8_t> bytes;
    int64_t pts = 0;  ///< source frame number
    int64_t dts = 0;  ///< the same scale; may be negative at the start
    bool key = false;
};

/// What the encoder did with a picture.
enum class Outcome {
    kEncoded,  ///< taken; its unit leaves now or later
    kSkipped,  ///< left out by the setting "frame rate limit"
    kDropped,  ///< left out by the setting "drop frame for bitrate limit"
};

class Host final : public GeneralStreamingVideoEncoder {
public:
    using Receiver = std::function<void(const EncodedUnit&)>;

    explicit Host(std::string name) : name_(std::move(name)) {}
    ~Host() override {
        if (refcount > 0) client_unref();
    }

    /// Who gets the units. May throw: encode() and drain() pass it on once the encoder has returned.
    void send_units_to(Receiver receiver) { receiver_ = std::move(receiver); }

    void describe_source(const SourceFormat& format) {
        input_width = format.width;
        input_height = format.height;
        input_chroma_shift_x = format.chroma_shift_x;
        input_chroma_shift_y = format.chroma_shift_y;
        frame_rate_num = format.frame_rate.num;
        frame_rate_den = format.frame_rate.den;
        input_interlaced = format.interlaced;
    }

    /// Opens the encoder, after the settings. False: last_error tells why, or "enable" is off.
    bool open(const Picture& first) {
        signal(first);  // applying a setting forgets what was signalled, and the codec starts with this
        if (!client_addref() || !encoder_open) return false;
        times_.emplace(reorder_depth(), frame_rate_divider);
        return true;
    }

    Outcome encode(const Picture& picture) {
        signal(picture);
        const uint64_t taken = input_frame_count;
        const uint64_t sent = encoded_frame_count;
        const AVFrame& f = *picture.frame;
        times_->offered(static_cast<int64_t>(picture.number));
        const bool usable = write_video(f.data[0], f.linesize[0], f.data[1], f.linesize[1], f.data[2],
                                        f.linesize[2], picture.field_order - 1, picture.number);
        if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
        if (!usable) throw Failure("the encoder cannot take a picture: memory ran out");
        if (encoded_frame_count != sent) return Outcome::kEncoded;
        times_->withdrawn();
        return input_frame_count == taken ? Outcome::kSkipped : Outcome::kDropped;
    }

    /// Fetches the pictures that the codec still holds. Returns how many there were.
    uint64_t drain() {
        uint64_t units = 0;
        draining_ = true;
        while (flush_delayed_video()) {
            if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
            units++;
        }
        return units;
    }

    const char* output_name() override { return name_.c_str(); }

    void host_emit_data_out(const uint8_t* data, size_t len, AVPacket* pkt) override {
        // The encoder is no place for an exception to cross; later units of a failed output are of no use.
        if (failure_) return;
        try {
            receiver_({{data, len},
                       source_number(pkt->pts),
                       times_->next_decode_time(),
                       (pkt->flags & AV_PKT_FLAG_KEY) != 0});
        } catch (...) {
            failure_ = std::current_exception();
        }
    }

private:
    void signal(const Picture& picture) {
        current_aspect_num = picture.display_aspect.num;
        current_aspect_den = picture.display_aspect.den;
        current_field_order = static_cast<int8_t>(picture.field_order);
        host_frame_tag = picture.number;
    }

    /// Pictures that the codec may hold back for reordering. Where it does not tell (libx265), assume the
    /// most that B-pictures lead to here: one reference among them.
    int reorder_depth() const {
        constexpr int kBPyramidDepth = 2;
        if (mpeg_context->has_b_frames > 0) return mpeg_context->has_b_frames;
        return mpeg_context->max_b_frames > 0 ? kBPyramidDepth : 0;
    }

    /// The picture that a unit shows. Without per-frame rate control, drained units still count encoded
    /// pictures. With it, the encoder remembers the latest 60 pictures and says 0 for older ones.
    int64_t source_number(int64_t pts) {
        const bool first = !std::exchange(emitted_, true);
        if (per_frame_rate_control && pts == 0 && !first)
            throw Failure(
                "the codec holds pictures back for longer than 60 pictures, and their times are lost: "
                "choose a faster \"h.264 preset\" or leave out \"constant bitrate per frame\"");
        return draining_ && !per_frame_rate_control ? pts * frame_rate_divider : pts;
    }

    std::string name_;
    Receiver receiver_;
    std::optional<UnitTimes> times_;
    std::exception_ptr failure_;
    bool draining_ = false;
    bool emitted_ = false;
};

}  // namespace gsve::cli
