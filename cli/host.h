#pragma once

// The host: what a program adds to GeneralStreamingVideoEncoder. It describes the source, signals each
// picture's aspect ratio and field order, numbers the pictures, and passes the units on.

#include <algorithm>
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
#include <libavutil/rational.h>
}

#include <gsve.h>
#include <orb_utils_v4/io.h>
#include <orb_utils_v4/mpeg12_video.h>

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
    bool ancillary = false;  ///< what was queued for the picture was still there to be inserted
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

    /// Pictures per second that are encoded. For an opened encoder.
    AVRational encoded_rate() const {
        return av_mul_q({frame_rate_num, frame_rate_den}, {1, static_cast<int>(frame_rate_divider)});
    }

    /// Whether encode() will take the picture, rather than leave it out for the frame-rate limit. Captions
    /// and time codes are queued for pictures that it takes.
    bool takes(const Picture& picture) const {
        return frame_rate_limit == 0 || next_due_timestamp <= picture.number;
    }

    /// Lets the load of the processor coarsen MPEG-2 pictures, as is right on air. Off, the same pictures
    /// give the same bytes, however busy the machine is.
    void adapt_to_load(bool on) { adapts_to_load_ = on; }

    Outcome encode(const Picture& picture) {
        signal(picture);
        if (!adapts_to_load_) smoothed_encode_time = kNoLoad;
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

    /// The encoder leaves drained units as the codec made them. What their pictures' records hold is inserted
    /// here, with the encoder's own operations: the unit stands in the output window.
    void emit_data_out(const uint8_t* data, size_t len, AVPacket* pkt) override {
        if (draining_) {
            insert_ancillary_data(*pkt);
            data = output_window->data;
            len = static_cast<size_t>(output_window->end - output_window->data);
        }
        GeneralStreamingVideoEncoder::emit_data_out(data, len, pkt);
    }

    void host_emit_data_out(const uint8_t* data, size_t len, AVPacket* pkt) override {
        // The encoder is no place for an exception to cross; later units of a failed output are of no use.
        if (failure_) return;
        try {
            receiver_({{data, len},
                       source_number(pkt->pts),
                       times_->next_decode_time(),
                       (pkt->flags & AV_PKT_FLAG_KEY) != 0,
                       aux_data_map.contains(record_key(pkt->pts))});
        } catch (...) {
            failure_ = std::current_exception();
        }
    }

    /// What the GOP header of an I-picture with this time code says, the I-picture being displayed that many
    /// pictures after the GOP's first.
    using GopTimecode = std::function<mpeg2_gop_timecode_t(const mpeg2_gop_timecode_t&, int)>;
    void say_in_gop_headers(GopTimecode timecode) { gop_timecode_ = std::move(timecode); }

    /// The header's time code is that of the picture displayed first (ISO/IEC 13818-2, 6.3.8): in an open GOP
    /// a B-picture in front of the I-picture that the encoder hands over.
    void mpeg_insert_gop_timecode(const mpeg2_gop_timecode_t& tc) override {
        GeneralStreamingVideoEncoder::mpeg_insert_gop_timecode(
            gop_timecode_ && tc.valid ? gop_timecode_(tc, temporal_reference()) : tc);
    }

private:
    /// Seconds that no measured time can lift to a share of a picture's, and above what the encoder takes for
    /// no value yet (-666), which the first measured time would replace.
    static constexpr double kNoLoad = -600;

    /// How many pictures of its GOP are displayed before the one in the output window.
    int temporal_reference() const {
        const uint8_t* header = nullptr;
        const auto size = static_cast<size_t>(output_window->end - output_window->data);
        if (mpeg2_get_frame_type(output_window->data, size, &header) == 0) return 0;
        return header[4] << 2 | header[5] >> 6;
    }

    void signal(const Picture& picture) {
        current_aspect_num = picture.display_aspect.num;
        current_aspect_den = picture.display_aspect.den;
        current_field_order = static_cast<int8_t>(picture.field_order);
        host_frame_tag = picture.number;
    }

    /// The key of a picture's side-data record: the codec's own count of pictures.
    uint64_t record_key(int64_t emitted_time) const {
        const auto time = static_cast<uint64_t>(emitted_time);
        if (!per_frame_rate_control) return draining_ ? time : time / frame_rate_divider;
        const auto entry = std::find_if(pts_map.begin(), pts_map.end(),
                                        [time](const auto& numbers) { return numbers.second == time; });
        return entry == pts_map.end() ? UINT64_MAX : entry->first;
    }

    /// As write_video() does, in the same order.
    void insert_ancillary_data(AVPacket& unit) {
        constexpr int kMpeg2 = 2, kH264 = 4, kTypeI = 1, kTypeP = 2;
        const uint64_t key = record_key(unit.pts);
        if (aux_data_map.empty()) return;
        if (codec_id == kH264 && enabled_cea708()) h264_insert_cea708_cc(key);
        if (codec_id != kMpeg2) return;

        const uint8_t* header = nullptr;
        const auto size = static_cast<size_t>(output_window->end - output_window->data);
        const int type = mpeg2_get_frame_type(output_window->data, size, &header);
        if ((last_key_flag || (type == kTypeP && do_eia608_on_p_frames())) && enabled_eia608()) {
            // The inserter counts pictures as the codec does, up to the packet's decoding time.
            const int64_t dts = unit.dts;
            if (per_frame_rate_control) unit.dts = static_cast<int64_t>(record_key(dts));
            mpeg_insert_eia608_cc();
            unit.dts = dts;
        }
        mpeg_insert_scte20(key);
        if (enabled_cea708()) mpeg_insert_cea708_cc(key);
        const auto record = aux_data_map.find(key);
        if (type == kTypeI && record != aux_data_map.end())
            mpeg_insert_gop_timecode(record->second.gop_timecode);
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
    GopTimecode gop_timecode_;
    std::optional<UnitTimes> times_;
    std::exception_ptr failure_;
    bool adapts_to_load_ = true;
    bool draining_ = false;
    bool emitted_ = false;
};

}  // namespace gsve::cli
