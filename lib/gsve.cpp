#include "gsve.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iterator>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#include <orb_utils_v4/comm.h>
#include <orb_utils_v4/h264.h>
#include <orb_utils_v4/io.h>
#include <orb_utils_v4/misc.h>

#include "detail/assertion.h"
#include "detail/caption_payloads.h"
#include "detail/chroma_format.h"
#include "detail/diagnostics.h"
#include "detail/ffmpeg_compat.h"
#include "detail/frame_rate.h"
#include "detail/gop_timecode.h"
#include "detail/rate_adaptation.h"
#include "detail/scale/plane_scaler.h"
#include "detail/setting_syntax.h"
#include "detail/start_code.h"

extern "C" {
#include <libavutil/buffer.h>
#include <libavutil/dict.h>
#include <libavutil/imgutils.h>
}

namespace detail = gsve::detail;

using Encoder = GeneralStreamingVideoEncoder;
using AuxData = GeneralStreamingVideoEncoderAuxData;

const char* const gsve_encoder_str[9] = {"none", "", "mpeg-2", "", "h.264", "", "", "", "h.265"};

namespace {

constexpr int32_t kCodecMpeg2 = 2;
constexpr int32_t kCodecH264 = 4;
constexpr int32_t kCodecH265 = 8;

constexpr uint64_t kNoTag = UINT64_MAX;
constexpr uint64_t kNoTimestamp = UINT64_MAX;

/// Room in front of every unit, into which ancillary data pushes the unit's beginning.
constexpr size_t kHeadRoom = 8192;

/// Side data and timestamps of this many pictures wait for their packets, which covers reordering and
/// look-ahead.
constexpr uint64_t kPicturesInFlight = 60;

/// Timestamps that go back leave side data behind that is not older by its timestamp. With more records than
/// this the one with the highest timestamp has waited for over 900 pictures, longer than any codec holds one.
constexpr size_t kMostSideData = 1024;

detail::SourceRate source_rate(const Encoder& e) { return {e.frame_rate_num, e.frame_rate_den}; }

using detail::print;
using detail::print_formatted;

}  // namespace

AuxData::GeneralStreamingVideoEncoderAuxData() {}

AuxData::~GeneralStreamingVideoEncoderAuxData() = default;

// Construction and settings

Encoder::GeneralStreamingVideoEncoder() { Encoder::default_config(); }

Encoder::~GeneralStreamingVideoEncoder() {
    Encoder::free_encoder();
    // docs/contract.md, "Texts"
    if (refcount != 0) print_formatted("GVSE: encoder refcount %d on destruct\n", refcount);
}

void Encoder::default_config() {
    codec_id = 0;
    h264_nal_hrd = false;
    temporal_complexity_masking = 0.005;
    spatial_complexity_masking = 0.02;
    p_masking = 0.8;
    noise_reduction = 5;
    bitrate = 6000000;
    min_bitrate = -1;
    max_bitrate = -1;
    h264_b_slice_multithreading = false;
    h264_aud = true;
    h264_profile.clear();
    h264_preset.clear();
    bitrate_tolerance = 0;
    gop_size = -1;
    b_frames = 2;
    minimum_quant = 0;
    maximum_threads = 0;
    gop_synchronization = false;
    maximum_quant = 0;
    buffer_size = 0;
    enabled = enabled_default;
    closed_gop = false;
    closed_gop_auto = true;
    debug_file = false;
    eia608_enable = -1;
    eia608_gop_delay = -1;
    cea708_enable = -1;
    eia608_on_p_frames = -1;
    drop_frame_for_bitrate_limit = 0;
    resize_deinterlace = -1;
    resize_width = -1;
    resize_height = -1;
    s_tune_cpu = 1.0;
    s_tune_bitrate = 1.0;
    s_tune_recovery = 1.0;
    cpu_threshold = 0.6;
    interlaced_motion_estimation = -1;
    motion_estimation_range = 16;
    constant_bitrate_per_frame = -1;
    remove_trailing_zeros = false;
    frame_rate_limit = 0;
    reference_frames = 0;
    global_header = false;
}

// Emission and hooks

void Encoder::emit_data_out(const uint8_t* data, size_t len, AVPacket* pkt) {
    if (debug_fd >= 0) {
        // The dump is a debugging aid: a full disk must not disturb the stream.
        [[maybe_unused]] const ssize_t ignored = write(debug_fd, data, len);
    }
    host_emit_data_out(data, len, pkt);
}

void Encoder::host_emit_data_out(const uint8_t*, size_t, AVPacket*) {}

const char* Encoder::output_name() { return "(unknown)"; }

void Encoder::begin_output() {
    if (output_window) output_window->data = output_window->end = output_window->base;
}

// One picture's road

namespace {

using Timestamps = decltype(Encoder::pts_map);

/// What one exchange with the codec brought.
struct CodecExchange {
    int status = 0;           ///< 0, or the codec's error
    bool has_packet = false;  ///< a packet lies in the output window
};

bool is_usable(const Encoder& e) { return e.mpeg_packet && e.mpeg_context && e.mpeg_frame && e.mpeg_codec; }
bool make_output_window(Encoder& e);
void rewind_output(Encoder& e, unsigned line, const char* function);
void prepare_planes(Encoder& e, const uint8_t* const (&planes)[3], const size_t (&strides)[3], int flags);
void request_picture_type(Encoder& e);
void follow_aspect_and_field_order(Encoder& e, int flags);
bool reserve_side_data(Encoder& e, uint64_t pts);
void store_side_data(Encoder& e, const char* function);
bool drops_picture(Encoder& e);
void remember_timestamp(Encoder& e, Timestamps made);
CodecExchange encode_picture(Encoder& e, const char* function);
bool receive_packet(Encoder& e, unsigned line, const char* function);
void update_statistics(Encoder& e, double encode_seconds);
void count_codec_delay(Encoder& e);
void finish_mpeg2_unit(Encoder& e);
void finish_h264_unit(Encoder& e);
void restore_host_timestamps(Encoder& e);
void map_packet_timestamps(Encoder& e);
void emit_unit(Encoder& e);
void end_picture(Encoder& e, uint64_t timestamp, bool same_run);

/// A picture that passed the frame-rate limit. However the call ends, by a hook that throws too, its books
/// are closed: what was taken for it applies to no other picture, and what was not waits for the next one.
class OpenPicture {
public:
    OpenPicture(Encoder& e, uint64_t pts, uint64_t timestamp)
        : e_(e), pts_(pts), timestamp_(timestamp), run_(e.open_count) {
        made_record_ = reserve_side_data(e, pts);
    }
    OpenPicture(const OpenPicture&) = delete;
    OpenPicture& operator=(const OpenPicture&) = delete;
    ~OpenPicture() {
        const bool same_run = e_.open_count == run_;
        if (has_side_data_) {
            end_picture(e_, timestamp_, same_run);
        } else if (same_run) {
            if (made_record_) e_.aux_data_map.erase(pts_);
            if (!e_.per_frame_rate_control) e_.input_frame_count++;  // its time has passed all the same
        }
    }

    void store_side_data(const char* function) {
        has_side_data_ = true;
        ::store_side_data(e_, function);
    }
    uint64_t run() const { return run_; }

private:
    Encoder& e_;
    const uint64_t pts_, timestamp_, run_;
    bool made_record_ = false;
    bool has_side_data_ = false;
};

}  // namespace

bool Encoder::write_video(const uint8_t* y, size_t y_stride, const uint8_t* u, size_t u_stride,
                          const uint8_t* v, size_t v_stride, int flags, unsigned long long timestamp) try {
    if (!encoder_open || refcount == 0) return true;
    if (!is_usable(*this)) return false;
    current_output_tag = kNoTag;
    if (!make_output_window(*this)) return false;
    rewind_output(*this, 706, __PRETTY_FUNCTION__);  // docs/contract.md, "Assertions"
    if (first_timestamp == kNoTimestamp) first_timestamp = timestamp;
    av_packet_unref(mpeg_packet);
    if (frame_rate_limit != 0 && next_due_timestamp > timestamp) return true;

    const uint64_t pts =
        per_frame_rate_control ? frame_counter : (timestamp - first_timestamp) / frame_rate_divider;
    mpeg_packet->pts = mpeg_packet->dts = static_cast<int64_t>(pts);
    OpenPicture picture(*this, pts, timestamp);
    Timestamps sent_timestamp;
    if (per_frame_rate_control) sent_timestamp.emplace(frame_counter, timestamp - first_timestamp);
    prepare_planes(*this, {y, u, v}, {y_stride, u_stride, v_stride}, flags);
    request_picture_type(*this);
    mpeg_frame->pts = mpeg_packet->pts;
    follow_aspect_and_field_order(*this, flags);
    picture.store_side_data(__PRETTY_FUNCTION__);
    last_relative_timestamp = timestamp - first_timestamp;

    const bool dropped = drops_picture(*this);
    CodecExchange exchange;
    if (!dropped) {
        remember_timestamp(*this, std::move(sent_timestamp));
        const uint64_t before = monotonic_clock_us();
        exchange = encode_picture(*this, __PRETTY_FUNCTION__);
        update_statistics(*this, static_cast<double>(monotonic_clock_us() - before) / 1e6);
    } else {
        update_statistics(*this, 0);
    }

    if (exchange.has_packet) {
        last_key_flag = static_cast<uint8_t>(mpeg_packet->flags % 2);
        if (codec_id == kCodecMpeg2) finish_mpeg2_unit(*this);
        if (codec_id == kCodecH264) finish_h264_unit(*this);
        restore_host_timestamps(*this);
        emit_unit(*this);
    } else if (exchange.status == 0 && !dropped) {
        count_codec_delay(*this);
    }
    return true;
} catch (const std::exception&) {
    return false;
}

namespace {

bool make_output_window(Encoder& e) {
    if (e.output_window) return true;
    const auto two_seconds = static_cast<uint64_t>(2 * (e.mpeg_context->bit_rate / 8));
    e.output_window = sliding_window_v4_create_buffer(std::max<uint64_t>(two_seconds, 1048576));
    if (!e.output_window) print("WARNING: Encoder audio cannot alloc buffer\n");
    return e.output_window != nullptr;
}

void require_sane_window(const Encoder& e, unsigned line, const char* function) {
    detail::require(sliding_window_v4_is_sane(e.output_window), "sliding_window_v4_is_sane(output)", line,
                    function);
}

void rewind_output(Encoder& e, unsigned line, const char* function) {
    require_sane_window(e, line, function);
    e.output_window->data = e.output_window->end = e.output_window->base + kHeadRoom;
}

/// Points the codec's picture at the host's planes, or at the working planes after filling them. Where a
/// plane is missing there is nothing to fill them from, and the codec is to see it.
void prepare_planes(Encoder& e, const uint8_t* const (&planes)[3], const size_t (&strides)[3], int flags) {
    AVFrame& frame = *e.mpeg_frame;
    frame.format = e.output_pixel_format;
    const bool complete = planes[0] && planes[1] && planes[2];
    if (!e.resize_buffer[0] || !complete) {
        for (int plane = 0; plane < 3; plane++) {
            // libavcodec reads the planes of a picture that it does not own, and never writes them.
            frame.data[plane] = const_cast<uint8_t*>(planes[plane]);
            frame.linesize[plane] = static_cast<int>(strides[plane]);
        }
        frame.width = e.input_width;
        frame.height = e.input_height;
        return;
    }

    for (int plane = 0; plane < 3; plane++) {
        frame.data[plane] = e.resize_buffer[plane];
        frame.linesize[plane] = static_cast<int>(e.resize_buffer_stride[plane]);
    }
    frame.width = e.output_width;
    frame.height = e.output_height;

    const auto resize = flags >= 0 && e.resize_deinterlace == 3
                            ? &Encoder::resize_input_to_output_deinterlace_basic_mode3
                        : flags >= 0 && e.resize_deinterlace == 4
                            ? &Encoder::resize_input_to_output_deinterlace_adaptive_mode4
                            : &Encoder::resize_input_to_output;
    (e.*resize)(planes[0], strides[0], planes[1], strides[1], planes[2], strides[2],
                static_cast<unsigned>(e.input_width), static_cast<unsigned>(e.input_height), flags);
}

const char* picture_type_letter(int coding_type) {
    switch (coding_type) {
        case AV_PICTURE_TYPE_I: return "I";
        case AV_PICTURE_TYPE_P: return "P";
        case AV_PICTURE_TYPE_B: return "B";
        default: return "?";
    }
}

/// GOP texts longer than this are closed without waiting for the next GOP.
constexpr size_t kMaxGopText = 80;

bool follows_source_gop(const Encoder& e) {
    return e.gop_size < 1 && e.requested_picture_type >= 0 && e.gop_sync_frame_number >= 0;
}

/// Moves the text of a finished GOP to where it is reported.
void close_gop_text(const Encoder& e, std::string& building, std::string& finished) {
    finished = building;
    if (follows_source_gop(e)) finished += " as-source";
    building.clear();
}

void force_picture_type(AVFrame& frame, AVPictureType type) {
    detail::set_key_frame(frame, type == AV_PICTURE_TYPE_I);
    frame.pict_type = type;
}

/// Takes over the picture type that the host asks for when the encoder follows the source's GOPs.
void request_picture_type(Encoder& e) {
    if (!follows_source_gop(e)) {
        force_picture_type(*e.mpeg_frame, AV_PICTURE_TYPE_NONE);
        e.dgop_building_text.clear();
        e.dgop_text.clear();
        return;
    }
    const AVPictureType type = e.requested_picture_type == 'P'   ? AV_PICTURE_TYPE_P
                               : e.requested_picture_type == 'B' ? AV_PICTURE_TYPE_B
                                                                 : AV_PICTURE_TYPE_I;
    e.output_frame_count = static_cast<uint64_t>(e.gop_sync_frame_number);
    force_picture_type(*e.mpeg_frame, type);
    if (type == AV_PICTURE_TYPE_I || e.dgop_building_text.size() > kMaxGopText)
        close_gop_text(e, e.dgop_building_text, e.dgop_text);
    if (e.codec_id == kCodecMpeg2) e.dgop_building_text += picture_type_letter(type);
}

/// Display aspect ratio to sample aspect ratio, for a picture of this size. Unreduced, so that any change
/// of the host's figures shows.
AVRational sample_aspect_ratio(int height, int32_t aspect_num, int width, int32_t aspect_den) {
    return {detail::product32(height, static_cast<uint32_t>(aspect_num)),
            detail::product32(width, static_cast<uint32_t>(aspect_den))};
}

bool differ(AVRational a, AVRational b) { return a.num != b.num || a.den != b.den; }

/// Signals the picture's aspect ratio and field order, and forces an I-frame where either changes: decoders
/// take both on at a sequence header only.
void follow_aspect_and_field_order(Encoder& e, int flags) {
    AVFrame& frame = *e.mpeg_frame;
    const bool known = e.current_aspect_num > 0 && e.current_aspect_den > 0;
    frame.sample_aspect_ratio = sample_aspect_ratio(
        frame.height, known ? e.current_aspect_num : static_cast<int32_t>(e.default_aspect_num), frame.width,
        known ? e.current_aspect_den : static_cast<int32_t>(e.default_aspect_den));
    const bool aspect_changed = differ(frame.sample_aspect_ratio, e.mpeg_context->sample_aspect_ratio);
    e.mpeg_context->sample_aspect_ratio = frame.sample_aspect_ratio;

    const int order = e.current_field_order < 0 ? flags : e.current_field_order - 1;
    const bool interlaced = e.resize_deinterlace < 0 && order >= 0;
    const bool top_field_first = interlaced && order == 0;
    const bool field_order_changed =
        interlaced != detail::is_interlaced(frame) || top_field_first != detail::is_top_field_first(frame);
    detail::set_interlacing(frame, interlaced, top_field_first);

    if (aspect_changed) print("gsve: a/r change, forcing I-frame\n");
    if (field_order_changed) print("gsve: field order change, forcing I-frame\n");
    if (aspect_changed || field_order_changed) force_picture_type(frame, AV_PICTURE_TYPE_I);
}

uint16_t take_word(std::deque<uint16_t>& queue) {
    if (queue.empty()) return detail::kEia608NoWord;
    const uint16_t word = queue.front();
    queue.pop_front();
    return word;
}

/// Moves one picture's share of the caption queues into its record.
void take_captions(Encoder& e, AuxData& record) {
    // At exactly 40 pictures per second the fields alternate here, while insertion still writes both:
    // docs/contract.md, "Asymmetries".
    constexpr int64_t kSlowestAlternatingRate = 40;
    if (source_rate(e).divided_whole(e.frame_rate_divider) < kSlowestAlternatingRate) {
        record.eia608_word_field1 = take_word(e.eia608_field1_queue);
        record.eia608_word_field2 = take_word(e.eia608_field2_queue);
    } else if (e.input_frame_count % 2 == 0) {
        record.eia608_word_field1 = take_word(e.eia608_field1_queue);
    } else {
        record.eia608_word_field2 = take_word(e.eia608_field2_queue);
    }

    const unsigned limit = detail::caption_budget(source_rate(e).divided(e.frame_rate_divider)).cea708_words;
    while (record.cea708_count < limit && !e.cea708_queue.empty()) {
        const zeph_cea708_word word = e.cea708_queue.front();
        e.cea708_queue.pop_front();
        if (word.header >= detail::kCcDtvccData) record.cea708_words[record.cea708_count++] = word;
    }
}

void take_scte20(const Encoder& e, AuxData& record, const char* function) {
    record.scte20_data_length = e.scte20_length;
    detail::require(record.scte20_data_length <= sizeof(record.scte20_data),
                    "aux.scte20_data_length <= sizeof(aux.scte20_data)", 928, function);
    std::memcpy(record.scte20_data, e.scte20_buffer, record.scte20_data_length);
}

void take_gop_timecode(Encoder& e, AuxData& record) {
    if (!e.pending_gop_timecode.valid) return;
    record.gop_timecode = e.pending_gop_timecode;
    record.gop_timecode.valid = 1;
    e.pending_gop_timecode.valid = 0;
}

/// Makes the picture's place in the map before its aspect ratio, captions, tag and time code are taken, none
/// of which may be lost to a lack of memory. True where it was not there before.
bool reserve_side_data(Encoder& e, uint64_t pts) {
    const auto [place, made] = e.aux_data_map.try_emplace(pts);
    AuxData& record = place->second;
    if (e.pending_gop_timecode.valid) record.gop_timecode.text.reserve(e.pending_gop_timecode.text.size());
    return made;
}

/// Fills the picture's place in the map, where the record waits for the packet. Allocates nothing: a text
/// that is assigned keeps the room it has.
void store_side_data(Encoder& e, const char* function) {
    const auto pts = static_cast<uint64_t>(e.mpeg_frame->pts);
    AuxData& record = e.aux_data_map[pts];
    record = AuxData();
    take_captions(e, record);
    const uint64_t oldest_kept = pts > kPicturesInFlight ? pts - kPicturesInFlight : 0;
    e.aux_data_map.erase(e.aux_data_map.begin(), e.aux_data_map.lower_bound(oldest_kept));
    if (e.aux_data_map.size() > kMostSideData) e.aux_data_map.erase(std::prev(e.aux_data_map.end()));
    record.host_frame_tag = std::exchange(e.host_frame_tag, kNoTag);
    take_scte20(e, record, function);
    take_gop_timecode(e, record);
}

/// Whether the picture is dropped because the stream runs over its bit rate.
bool drops_picture(Encoder& e) {
    constexpr int32_t kAutomaticBelow = 750000;
    const bool on =
        e.drop_frame_for_bitrate_limit < 0 ? e.bitrate < kAutomaticBelow : e.drop_frame_for_bitrate_limit > 0;
    if (on) return detail::drops_picture(e.drop_level, e.drop_credit);
    e.drop_level = e.drop_credit = 0;
    return false;
}

/// Moves the entry that was made for a picture into the map, where one is kept.
void remember_timestamp(Encoder& e, Timestamps made) {
    if (made.empty()) return;
    if (e.frame_counter >= kPicturesInFlight)
        e.pts_map.erase(e.pts_map.begin(), e.pts_map.lower_bound(e.frame_counter - kPicturesInFlight));
    const auto placed = e.pts_map.insert(made.extract(made.begin()));
    if (!placed.inserted) placed.position->second = placed.node.mapped();
}

/// False where the host gave less than three planes. libavcodec refuses such a picture as it copies it, but
/// hands on one that is spared the copy.
bool has_planes(const AVFrame& picture) { return picture.data[0] && picture.data[1] && picture.data[2]; }

/// False where a plane's rows are longer than its stride. libavutil ends the process over such a picture as
/// libavcodec copies it. Chroma of the working planes is one: their stride is that of the width rounded down,
/// while FFmpeg rounds it up, which 16-byte multiples do not always hide.
bool has_whole_rows(const AVFrame& picture) {
    for (int plane = 0; plane < 3; plane++) {
        const int row =
            av_image_get_linesize(static_cast<AVPixelFormat>(picture.format), picture.width, plane);
        if (std::abs(int64_t{picture.linesize[plane]}) < row) return false;
    }
    return true;
}

/// Sends the picture and receives at most one packet.
CodecExchange encode_picture(Encoder& e, const char* function) {
    CodecExchange exchange;
    const bool spared_copy = e.mpeg_frame->buf[0] != nullptr;
    const bool acceptable = spared_copy ? has_planes(*e.mpeg_frame) : has_whole_rows(*e.mpeg_frame);
    exchange.status = acceptable ? avcodec_send_frame(e.mpeg_context, e.mpeg_frame) : AVERROR(EINVAL);
    if (exchange.status == 0) {
        const int received = avcodec_receive_packet(e.mpeg_context, e.mpeg_packet);
        if (received == 0)
            exchange.has_packet = receive_packet(e, 991, function);
        else if (received != AVERROR(EAGAIN))
            exchange.status = received;
    }
    e.frame_counter++;
    e.encoded_frame_count++;
    return exchange;
}

/// Copies the codec's packet into the output window. False, with the window as it was, when there is nothing
/// to copy or no room for it.
bool receive_packet(Encoder& e, unsigned line, const char* function) {
    sliding_window_v4& output = *e.output_window;
    const int size = e.mpeg_packet->size;
    if (size < 1 || size > output.limit - output.end) return false;
    std::memcpy(output.end, e.mpeg_packet->data, static_cast<size_t>(size));
    output.end += size;
    require_sane_window(e, line, function);
    return true;
}

/// Collects the picture types that the MPEG-2 encoder produces, GOP by GOP. Where memory runs out the report
/// lacks some: the unit is worth more.
void track_built_gop(Encoder& e) try {
    const sliding_window_v4& output = *e.output_window;
    bool open_gop = false;
    bool gop_seen = false;
    const int type = mpeg2_get_frame_type_and_gop(output.data, static_cast<size_t>(output.end - output.data),
                                                  &open_gop, &gop_seen);
    if (gop_seen || e.bgop_building_text.size() > kMaxGopText) {
        close_gop_text(e, e.bgop_building_text, e.bgop_text);
        if (type == AV_PICTURE_TYPE_I) e.bgop_building_text = open_gop ? "open-gop " : "closed-gop ";
    }
    e.bgop_building_text += picture_type_letter(type);
} catch (const std::bad_alloc&) {
}

void update_statistics(Encoder& e, double encode_seconds) {
    // Encoders with look-ahead spread their bits over more pictures, so their rate is smoothed for longer.
    const detail::Smoothing smoothing = e.codec_id == kCodecH264 || e.codec_id == kCodecH265
                                            ? detail::Smoothing{0.975, 0.025}
                                            : detail::Smoothing{0.75, 0.25};
    const double bits = e.mpeg_packet->size * 8.0;
    const double bitrate_now = bits * source_rate(e).divided(e.frame_rate_divider);
    e.smoothed_bitrate =
        detail::smooth(e.smoothed_bitrate, bitrate_now, smoothing, detail::kNoValueYet + 1.0);
    e.smoothed_encode_time =
        detail::smooth(e.smoothed_encode_time, encode_seconds, {0.5, 0.5}, detail::kNoValueYet);
    e.drop_level = detail::next_drop_level(e.drop_level, e.smoothed_bitrate, e.bitrate);
}

void count_codec_delay(Encoder& e) {
    e.codec_delay_count++;
    const int64_t scaled_ms =
        static_cast<int64_t>(e.codec_delay_count) * e.frame_rate_divider * e.frame_rate_den * 1000;
    e.codec_delay_ms = e.frame_rate_num == 0 ? 0 : static_cast<uint64_t>(scaled_ms / e.frame_rate_num);
    // docs/contract.md, "Texts"
    print_formatted("avcodec_send frame/receieve packet() codec delay %d (%lu ms)\n",
                    static_cast<int>(e.codec_delay_count), static_cast<unsigned long>(e.codec_delay_ms));
    e.output_frame_count++;
}

void adapt_complexity(Encoder& e) {
    detail::ComplexityState state = {e.saved_spatial_masking, e.mpeg_context->me_range};
    e.mpeg_context->spatial_cplx_masking = detail::adapt_complexity(
        {
            .rate = e.smoothed_bitrate,
            .target = static_cast<double>(e.bitrate),
            .encode_time = e.smoothed_encode_time,
            .period = source_rate(e).period(e.frame_rate_divider),
            .cpu_threshold = e.cpu_threshold,
            .masking_floor = e.spatial_complexity_masking,
            .tune_recovery = e.s_tune_recovery,
            .tune_bitrate = e.s_tune_bitrate,
            .tune_cpu = e.s_tune_cpu,
            .drop_level = e.drop_level,
            .per_frame_rate_control = e.per_frame_rate_control,
            .widens_motion_search = e.output_frame_count % 16 == 0,
            .motion_range_limit = e.motion_estimation_range,
        },
        state);
    e.saved_spatial_masking = state.masking;
    e.mpeg_context->me_range = state.motion_range;
}

void trim_output(Encoder& e) {
    e.output_window->end = detail::trim_trailing_zeros(e.output_window->data, e.output_window->end);
}

void insert_mpeg2_captions(Encoder& e, int picture_type) {
    const auto pts = static_cast<size_t>(e.mpeg_packet->pts);
    const bool carries_cc =
        e.last_key_flag || (picture_type == AV_PICTURE_TYPE_P && e.do_eia608_on_p_frames());
    if (carries_cc && e.enabled_eia608() && !e.aux_data_map.empty()) e.mpeg_insert_eia608_cc();
    if (!e.aux_data_map.empty()) e.mpeg_insert_scte20(pts);
    if (e.enabled_cea708() && !e.aux_data_map.empty()) e.mpeg_insert_cea708_cc(pts);
}

void finish_mpeg2_unit(Encoder& e) {
    track_built_gop(e);
    adapt_complexity(e);

    const sliding_window_v4& output = *e.output_window;
    const uint8_t* picture_header = nullptr;
    const int picture_type =
        mpeg2_get_frame_type(output.data, static_cast<size_t>(output.end - output.data), &picture_header);
    if (e.remove_trailing_zeros) trim_output(e);
    insert_mpeg2_captions(e, picture_type);

    if (output.end - output.data < 5 || picture_type != AV_PICTURE_TYPE_I) return;
    const auto record = e.aux_data_map.find(static_cast<uint64_t>(e.mpeg_packet->pts));
    if (record != e.aux_data_map.end()) e.mpeg_insert_gop_timecode(record->second.gop_timecode);
}

void finish_h264_unit(Encoder& e) {
    if (e.enabled_cea708() && !e.aux_data_map.empty())
        e.h264_insert_cea708_cc(static_cast<size_t>(e.mpeg_packet->pts));
}

/// Turns the packet's timestamps back into source frame numbers and looks up the picture's tag.
void restore_host_timestamps(Encoder& e) {
    AVPacket& packet = *e.mpeg_packet;
    if (e.per_frame_rate_control) {
        map_packet_timestamps(e);
    } else {
        for (int64_t* timestamp : {&packet.dts, &packet.pts})
            if (*timestamp != AV_NOPTS_VALUE)
                *timestamp = static_cast<int64_t>(static_cast<uint64_t>(*timestamp) * e.frame_rate_divider);
    }
    const auto record = e.aux_data_map.find(static_cast<uint64_t>(packet.pts));
    if (record != e.aux_data_map.end()) e.current_output_tag = record->second.host_frame_tag;
}

/// The host's timestamp of the picture that was number `counter` to the codec. An unknown one, such as the
/// negative dts in front of B-frames, becomes known as 0.
int64_t timestamp_of(Encoder& e, int64_t counter) try {
    return static_cast<int64_t>(e.pts_map[static_cast<uint64_t>(counter)]);
} catch (const std::bad_alloc&) {
    return 0;
}

/// Under per-frame rate control the codec's timestamps count pictures.
void map_packet_timestamps(Encoder& e) {
    e.mpeg_packet->dts = timestamp_of(e, e.mpeg_packet->dts);
    e.mpeg_packet->pts = timestamp_of(e, e.mpeg_packet->pts);
}

void emit_unit(Encoder& e) {
    sliding_window_v4& output = *e.output_window;
    e.mpeg_packet->data = output.data;
    e.mpeg_packet->size = static_cast<int>(output.end - output.data);
    if (e.mpeg_packet->size == 0) return;
    // The host may close or reopen the encoder in there: nothing that closing releases is touched afterwards,
    // and nothing counted into a run that began meanwhile.
    const uint64_t run = e.open_count;
    e.emit_data_out(output.data, static_cast<size_t>(output.end - output.data), e.mpeg_packet);
    if (e.open_count == run) e.output_frame_count++;
}

/// Closes the books on one picture, where its run still lasts, and resets what applies to one picture only.
void end_picture(Encoder& e, uint64_t timestamp, bool same_run) {
    if (same_run) {
        if (e.frame_rate_limit != 0)
            e.next_due_timestamp = std::max(e.next_due_timestamp + e.frame_rate_divider, timestamp);
        e.input_frame_count++;
    }
    e.scte20_length = 0;
    e.gop_sync_frame_number = -1;
    e.requested_picture_type = -1;
}

}  // namespace

bool Encoder::flush_delayed_video() try {
    if (!encoder_open || refcount == 0) return false;
    if (!mpeg_packet || !mpeg_context || !mpeg_codec || !output_window) return false;
    rewind_output(*this, 605, __PRETTY_FUNCTION__);
    av_packet_unref(mpeg_packet);

    const int sent = avcodec_send_frame(mpeg_context, nullptr);
    const bool draining = sent == 0 || sent == AVERROR_EOF;
    if (!draining || avcodec_receive_packet(mpeg_context, mpeg_packet) != 0 ||
        !receive_packet(*this, 624, __PRETTY_FUNCTION__)) {
        av_packet_unref(mpeg_packet);
        return false;
    }

    last_key_flag = static_cast<uint8_t>(mpeg_packet->flags % 2);
    if (codec_id == kCodecMpeg2 && remove_trailing_zeros) trim_output(*this);
    // Times of units from write_video() are multiplied by the divider, these are not: docs/contract.md,
    // "Asymmetries".
    if (per_frame_rate_control) map_packet_timestamps(*this);
    emit_data_out(output_window->data, static_cast<size_t>(output_window->end - output_window->data),
                  mpeg_packet);
    return true;
} catch (const std::exception&) {
    return false;
}

// Opening and closing

void Encoder::free_encoder() {
    current_field_order = -1;
    current_aspect_num = current_aspect_den = -1;
    host_frame_tag = kNoTag;

    avcodec_free_context(&mpeg_context);
    av_frame_free(&mpeg_frame);
    detail::require(mpeg_frame == nullptr, "mpeg_frame == NULL", __LINE__, __PRETTY_FUNCTION__);
    av_packet_free(&mpeg_packet);
    detail::require(mpeg_packet == nullptr, "mpeg_packet == NULL", __LINE__, __PRETTY_FUNCTION__);

    if (debug_fd >= 0) close(debug_fd);
    debug_fd = -1;
    for (uint8_t*& plane : resize_buffer) {
        std::free(plane);
        plane = nullptr;
    }
    std::fill(std::begin(resize_buffer_stride), std::end(resize_buffer_stride), 0);

    codec_delay_ms = 0;
    codec_delay_count = 0;
    frame_counter = 0;
    pts_map.clear();
    aux_data_map.clear();
    mpeg_codec = nullptr;
    encoder_open = false;
    output_window = sliding_window_v4_destroy(output_window);
}

namespace {

/// The options dictionary of one opening.
class CodecOptions {
public:
    CodecOptions() = default;
    CodecOptions(const CodecOptions&) = delete;
    CodecOptions& operator=(const CodecOptions&) = delete;
    ~CodecOptions() { av_dict_free(&options_); }

    void set(const char* key, const char* value) { av_dict_set(&options_, key, value, 0); }
    void set(const char* key, const std::string& value) { set(key, value.c_str()); }
    void set_number(const char* key, int32_t value) { set(key, std::to_string(value)); }
    AVDictionary** get() { return &options_; }

private:
    AVDictionary* options_ = nullptr;
};

/// The codecs on offer, and from which "constant bitrate per frame" on each controls its rate per frame.
struct CodecChoice {
    int32_t codec_id;
    AVCodecID av_codec_id;
    bool per_frame_by_default;
};

constexpr CodecChoice kCodecs[] = {
    {kCodecMpeg2, AV_CODEC_ID_MPEG2VIDEO, true},
    {kCodecH264, AV_CODEC_ID_H264, false},
    {kCodecH265, AV_CODEC_ID_HEVC, false},
};

const CodecChoice* find_codec(int32_t codec_id) {
    for (const CodecChoice& codec : kCodecs)
        if (codec.codec_id == codec_id) return &codec;
    return nullptr;
}

bool is_h26x(const Encoder& e) { return e.codec_id == kCodecH264 || e.codec_id == kCodecH265; }

void reset_run_state(Encoder& e);
bool refuse(Encoder& e, const char* error);
bool fail(Encoder& e, const char* diagnostic, const char* error);
void negotiate_format(Encoder& e, const detail::ChromaFormat& source);
bool allocate_codec_objects(Encoder& e, AVCodecID id);
bool open_codec(Encoder& e);
void configure_flags(Encoder& e);
void configure_frame_rate(Encoder& e);
void configure_picture(Encoder& e, CodecOptions& options);
void configure_time_base(Encoder& e);
void configure_rate_control(Encoder& e);
void configure_threads(Encoder& e);
void set_h26x_options(Encoder& e, CodecOptions& options);
void spare_picture_copy(Encoder& e);
void open_debug_file(Encoder& e);
bool make_working_planes(Encoder& e, AVPixelFormat source_format, const char* function);

}  // namespace

bool Encoder::init_encoder() try {
    if (!enabled || encoder_open) return true;
    if (refcount == 0 || codec_id == 0) return false;
    reset_run_state(*this);
    effective_gop_size = detail::effective_gop_size(gop_size, b_frames, closed_gop);
    last_error.clear();
    last_notes.clear();
    // Room for every text that may follow: a lack of memory must not cost the one that tells of it.
    constexpr size_t kLongestError = 40;
    last_error.reserve(kLongestError);

    constexpr int32_t kLowestBitrate = 10000;
    if (bitrate < kLowestBitrate) return refuse(*this, "Bitrate out of range");
    codec_changed = false;
    aux_data_map.clear();

    const CodecChoice* const codec = find_codec(codec_id);
    if (!codec) return refuse(*this, "Codec unknown");
    per_frame_rate_control =
        codec->per_frame_by_default ? constant_bitrate_per_frame != 0 : constant_bitrate_per_frame > 0;

    const detail::ChromaFormat* const source =
        detail::find_source_format(input_chroma_shift_x, input_chroma_shift_y);
    if (!source) {
        print_formatted("Unrecognized chroma x/y %d/%d\n", static_cast<int>(input_chroma_shift_x),
                        static_cast<int>(input_chroma_shift_y));
        return refuse(*this, "Unsupported chroma format");
    }
    output_width = input_width;
    output_height = input_height;
    negotiate_format(*this, *source);

    if (!allocate_codec_objects(*this, codec->av_codec_id)) return false;
    if (!open_codec(*this)) return fail(*this, "Unable to open encoder\n", "Unable to open encoder");
    print_formatted("Using %u threads, active_thread_flags=%u, ticks/frame=%u\n",
                    static_cast<unsigned>(mpeg_context->thread_count),
                    static_cast<unsigned>(mpeg_context->active_thread_type),
                    static_cast<unsigned>(detail::ticks_per_frame(*mpeg_context)));
    spare_picture_copy(*this);
    open_debug_file(*this);
    if (!make_working_planes(*this, source->pixel_format, __PRETTY_FUNCTION__)) return false;

    print("MPEG video init\n");
    open_count++;
    encoder_open = true;
    return true;
} catch (const std::exception&) {
    return fail(*this, "", "Out of memory");
}

namespace {

void reset_run_state(Encoder& e) {
    e.bgop_text.clear();
    e.bgop_building_text.clear();
    e.dgop_text.clear();
    e.dgop_building_text.clear();
    e.first_timestamp = kNoTimestamp;
    e.last_relative_timestamp = kNoTimestamp;
    e.encoded_frame_count = 0;
    e.vbr_value = -1;
    e.next_due_timestamp = 0;
    e.input_frame_count = 0;
    e.output_frame_count = 0;
    e.eia608_next_pts = 0;
}

/// Fails before anything was allocated.
bool refuse(Encoder& e, const char* error) {
    e.last_error = error;
    return false;
}

/// Fails and releases what was allocated so far.
bool fail(Encoder& e, const char* diagnostic, const char* error) {
    print(diagnostic);
    e.last_error = error;
    e.free_encoder();
    return false;
}

/// Settles the format that is encoded: the one asked for, stepped down to what codec and profile can take.
void negotiate_format(Encoder& e, const detail::ChromaFormat& source) {
    detail::ChromaFormat format = detail::wanted_format(e.chroma_format, source);
    for (const detail::FormatLimit& limit : detail::kFormatLimits) {
        if (!limit.applies(e.codec_id == kCodecMpeg2, e.h264_profile, format.pixel_format)) continue;
        print(limit.diagnostic);
        e.last_notes += limit.note;
        format = limit.to;
    }
    e.output_pixel_format = format.pixel_format;
    e.output_chroma_shift_x = format.shift_x;
    e.output_chroma_shift_y = format.shift_y;

    e.last_notes += std::string("Encoding to pixel format ") + source.label;
    if (!format.same_shifts(source)) e.last_notes += std::string(" to ") + format.label;
    e.last_notes += "\n";
}

bool allocate_codec_objects(Encoder& e, AVCodecID id) {
    e.mpeg_codec = avcodec_find_encoder(id);
    // docs/contract.md, "Texts"
    if (!e.mpeg_codec) return fail(e, "Unable to find any MPEG-2 encoder\n", "Unable to find encoder");
    e.mpeg_context = avcodec_alloc_context3(e.mpeg_codec);
    if (!e.mpeg_context) return fail(e, "Unable to allocate FFMPEG context\n", "Unable to allocate encoder");
    e.mpeg_frame = av_frame_alloc();
    if (!e.mpeg_frame)
        return fail(e, "Unable to allocate FFMPEG AVFrame\n", "Unable to allocate encoder frame");
    e.mpeg_packet = av_packet_alloc();
    if (!e.mpeg_packet)
        return fail(e, "Unable to allocate FFMPEG AVPacket\n", "Unable to allocate encoder packet");
    return true;
}

bool open_codec(Encoder& e) {
    CodecOptions options;
    configure_flags(e);
    configure_frame_rate(e);
    configure_picture(e, options);
    configure_time_base(e);
    configure_rate_control(e);
    configure_threads(e);
    if (e.codec_id == kCodecMpeg2) options.set("alternate_scan", "0");
    if (is_h26x(e)) set_h26x_options(e, options);
    e.pts_map.clear();
    e.smoothed_encode_time = e.smoothed_bitrate = detail::kNoValueYet;
    e.drop_level = e.drop_credit = 0;
    return avcodec_open2(e.mpeg_context, e.mpeg_codec, options.get()) == 0;
}

void configure_flags(Encoder& e) {
    int flags = 0;
    if (e.closed_gop) flags |= AV_CODEC_FLAG_CLOSED_GOP;
    if (e.input_interlaced && e.resize_deinterlace < 0) {
        flags |= AV_CODEC_FLAG_INTERLACED_DCT;
        if (e.interlaced_motion_estimation > 0) flags |= AV_CODEC_FLAG_INTERLACED_ME;
    }
    if (e.global_header) flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    e.mpeg_context->flags = flags;
}

void configure_frame_rate(Encoder& e) {
    const detail::SourceRate rate = source_rate(e);
    e.frame_rate_divider = detail::frame_rate_divider(rate, e.frame_rate_limit);
    if (e.frame_rate_limit > 0) {
        const double divided = e.frame_rate_divider == 1 ? rate.value() : rate.divided(e.frame_rate_divider);
        print_formatted("Frame rate divider div=%u %.6f => %.6f\n", e.frame_rate_divider, rate.value(),
                        divided);
    }
    e.frame_duration_90k = detail::frame_duration_90k(rate, e.frame_rate_divider);

    AVCodecContext& context = *e.mpeg_context;
    context.flags2 = AV_CODEC_FLAG2_FAST;
    detail::set_ticks_per_frame(context, 1);
    context.time_base = {detail::product32(e.frame_rate_den, e.frame_rate_divider), e.frame_rate_num};
}

/// Size, aspect ratio and what does not depend on the codec.
void configure_picture(Encoder& e, CodecOptions& options) {
    AVCodecContext& context = *e.mpeg_context;
    if (e.resize_width > 0 && e.resize_height > 0) {
        e.output_width = e.resize_width;
        e.output_height = e.resize_height;
    }
    context.width = e.output_width;
    context.height = e.output_height;

    context.gop_size = e.effective_gop_size;
    context.me_range = e.motion_estimation_range;
    options.set("mepre", "0");
    context.pre_dia_size = -2;
    context.dia_size = -2;
    context.pix_fmt = static_cast<AVPixelFormat>(e.output_pixel_format);
    context.max_b_frames = e.b_frames;
    options.set("mpeg_quant", "0");
    context.temporal_cplx_masking = static_cast<float>(e.temporal_complexity_masking);
    context.spatial_cplx_masking = static_cast<float>(e.spatial_complexity_masking);
    context.p_masking = static_cast<float>(e.p_masking);
    e.saved_spatial_masking = e.spatial_complexity_masking;
    context.mb_decision = FF_MB_DECISION_BITS;
    if (e.codec_id == kCodecMpeg2 && e.closed_gop) {
        // Scene-change detection would open GOPs of its own.
        options.set("sc_threshold", "1000000000");
    }

    const bool known = e.current_aspect_num > 0 && e.current_aspect_den != 0;
    context.sample_aspect_ratio = sample_aspect_ratio(
        context.height, known ? e.current_aspect_num : static_cast<int32_t>(e.default_aspect_num),
        context.width, known ? e.current_aspect_den : static_cast<int32_t>(e.default_aspect_den));
    context.keyint_min = e.effective_gop_size;
    if (e.reference_frames > 0) context.refs = e.reference_frames;
    context.qmin = 2;
    context.max_qdiff = 32768;
    options.set_number("noise_reduction", e.noise_reduction);
}

void configure_time_base(Encoder& e) {
    const detail::SourceRate rate = source_rate(e);
    const detail::TimeBase time_base = detail::codec_time_base(rate, e.frame_rate_divider);
    e.mpeg_context->time_base = {time_base.num, time_base.den};
    print_formatted("Source frame rate %.6f (%u/%u) encoder frame rate %.6f (%u/%u)\n", rate.value(),
                    static_cast<unsigned>(rate.num), static_cast<unsigned>(rate.den), time_base.frame_rate,
                    static_cast<unsigned>(time_base.den), static_cast<unsigned>(time_base.num));
}

/// Takes the room for caption data off the video's bit rate. Returns how much was taken, bits/s.
int64_t reserve_caption_bitrate(Encoder& e) {
    // For H.265, too: docs/contract.md, "Values".
    constexpr int64_t kEia608Bitrate = 1504;
    constexpr int64_t kCea708Bitrate = 14512;
    int64_t reserve = 0;
    const auto reserve_for = [&](const char* what, int64_t caption_bitrate) {
        e.last_notes += std::string("Making room for ") + what + " CC data in bitrate, " +
                        std::to_string(caption_bitrate) + " bits/sec\n";
        reserve += caption_bitrate;
    };
    if (e.codec_id == kCodecMpeg2 && e.enabled_eia608()) reserve_for("608", kEia608Bitrate);
    if (e.enabled_cea708()) reserve_for("708", kCea708Bitrate);
    return reserve;
}

void configure_rate_control(Encoder& e) {
    constexpr int32_t kMainLevelVbvBits = 1835008;
    AVCodecContext& context = *e.mpeg_context;
    const int64_t reserve = reserve_caption_bitrate(e);

    context.qmax = 63;
    context.bit_rate = context.rc_max_rate = context.rc_min_rate = e.bitrate - reserve;
    context.rc_buffer_size = std::min(e.bitrate / 4, kMainLevelVbvBits);
    context.bit_rate_tolerance = e.bitrate / 5;
    context.field_order = AV_FIELD_TT;

    if (e.buffer_size > 0) context.rc_buffer_size = e.buffer_size;
    if (e.bitrate_tolerance > 0) context.bit_rate_tolerance = e.bitrate_tolerance;
    if (e.minimum_quant > 0) context.qmin = e.minimum_quant;
    if (e.maximum_quant > 0) context.qmax = e.maximum_quant;
    if (e.min_bitrate >= 0) context.rc_min_rate = e.min_bitrate;
    if (e.max_bitrate >= 0) context.rc_max_rate = e.max_bitrate;
    e.vbr_value = static_cast<int32_t>(std::max(context.bit_rate, context.rc_max_rate) + reserve);
}

int automatic_thread_limit(const Encoder& e) {
    if (e.codec_id == kCodecH265) return 5;
    return e.mpeg_context->width > 1920 || e.mpeg_context->height > 1080 ? 4 : 3;
}

void configure_threads(Encoder& e) {
    AVCodecContext& context = *e.mpeg_context;
    const int limit = e.maximum_threads > 0 ? e.maximum_threads : automatic_thread_limit(e);
    context.thread_count = std::min(static_cast<int>(how_many_cpus()), limit);
    if (e.codec_id != kCodecH264)
        context.thread_type = FF_THREAD_FRAME | FF_THREAD_SLICE;
    else if (e.h264_b_slice_multithreading)
        context.thread_type = FF_THREAD_SLICE;
}

/// Without a profile of the host's, B-frames and interlacing need main.
const char* default_profile(const AVCodecContext& context) {
    const bool main = (context.flags & AV_CODEC_FLAG_INTERLACED_DCT) != 0 || context.max_b_frames > 0;
    print(main ? "H.264 profile default: main\n" : "H.264 profile default: baseline\n");
    return main ? "main" : "baseline";
}

/// The fastest preset that a live channel can afford at this size.
const char* default_preset(const Encoder& e) {
    if (e.codec_id == kCodecH265) return "ultrafast";
    return e.mpeg_context->width <= 720 && e.mpeg_context->height <= 576 ? "veryfast" : "superfast";
}

/// libx265 writes to standard error past libavutil's log, which a host that takes diagnostics wants left
/// alone.
constexpr const char* kQuietX265 = "log-level=none";

bool prints_nothing_itself() { return detail::host_takes(""); }

/// Parameters of our own, which a preset of the host's leaves out.
void set_tuned_parameters(const Encoder& e, CodecOptions& options) {
    if (e.codec_id == kCodecH264) {
        options.set("x264-params",
                    "trellis=0:scenecut=0:mixed-refs=0:me=dia:subme=0:aq-mode=0:b-adapt=0:deblock=1:"
                    "rc-lookahead=0:ref=0:weightb=0:weightp=0");
        options.set("coder", "vlc");
        return;
    }
    std::string parameters =
        "scenecut=0:subme=0:max-merge=1:ref=2:limit-refs=3:fast-intra=1:b-adapt=0:b-pyramid=0:deblock=1:"
        "limit-tu=4:me=dia:ref=1:weightb=0:weightp=0:slices=0:wpp=0";
    if (e.mpeg_context->max_b_frames >= 0)
        parameters += ":rc-lookahead=" + std::to_string(e.mpeg_context->max_b_frames + 1);
    if (prints_nothing_itself()) parameters += std::string(":") + kQuietX265;
    options.set("x265-params", parameters);
}

void set_h26x_options(Encoder& e, CodecOptions& options) {
    AVCodecContext& context = *e.mpeg_context;
    if (e.h264_profile == "baseline" && e.b_frames == 2) {
        // docs/contract.md, "Texts"
        print("H.264 baseline does not support H.264, defaulting to zero B-frames\n");
        context.max_b_frames = 0;
    }
    options.set("aud", e.h264_aud ? "1" : "0");
    options.set("profile", e.h264_profile.empty() ? default_profile(context) : e.h264_profile.c_str());

    const bool deblocking_ultrafast = e.h264_preset == "ultrafast+deblock";
    const bool own_preset = !e.h264_preset.empty() && !deblocking_ultrafast;
    options.set("preset", own_preset             ? e.h264_preset.c_str()
                          : deblocking_ultrafast ? "ultrafast"
                                                 : default_preset(e));
    if (!e.h264_level.empty()) options.set("level", e.h264_level);
    if (!own_preset)
        set_tuned_parameters(e, options);
    else if (e.codec_id == kCodecH265 && prints_nothing_itself())
        options.set("x265-params", kQuietX265);
    if (own_preset || e.codec_id == kCodecH264) options.set("mbtree", "1");

    if (e.minimum_quant > 0) options.set_number("crf", e.minimum_quant);
    options.set_number("crf_max", e.maximum_quant > 0 ? e.maximum_quant : 63);
    const bool variable = context.rc_min_rate != context.rc_max_rate;
    if (e.h264_nal_hrd) options.set("nal-hrd", variable ? "vbr" : "cbr");
    print(variable ? "H.264 VBR\n" : "H.264 CBR\n");
}

/// libavcodec copies every picture that no buffer of its own stands behind. libx264 and libx265 take a copy
/// of theirs inside the call that hands them the picture, so for them an empty buffer claims the host's
/// planes. MPEG-2 must not be spared: its encoder refers to pictures until they leave.
void spare_picture_copy(Encoder& e) {
    constexpr std::string_view kCopyingEncoders[] = {"libx264", "libx265"};
    if (std::find(std::begin(kCopyingEncoders), std::end(kCopyingEncoders), e.mpeg_codec->name) ==
        std::end(kCopyingEncoders))
        return;
    static uint8_t nothing;
    e.mpeg_frame->buf[0] = av_buffer_create(
        &nothing, sizeof(nothing), [](void*, uint8_t*) {}, nullptr, AV_BUFFER_FLAG_READONLY);
}

const char* debug_file_extension(int32_t codec_id) {
    switch (codec_id) {
        case kCodecH264: return ".h264";
        case kCodecH265: return ".h265";
        default: return ".m2v";
    }
}

/// Opens or closes the dump of the elementary stream as set. A dump that cannot be opened is left out.
void open_debug_file(Encoder& e) {
    if (e.debug_fd >= 0 && !e.debug_file) {
        close(e.debug_fd);
        e.debug_fd = -1;
    }
    if (e.debug_fd >= 0 || !e.debug_file) return;
    const char* const name = e.output_name();
    const std::string path = std::string("/mnt/main/DEBUG_") + (name ? name : "(unknown)") + "_m2v." +
                             std::to_string(e.encoder_index) + debug_file_extension(e.codec_id);
    e.debug_fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
}

/// Makes the planes that resizing, deinterlacing and chroma conversion write into, where any of them is due.
bool make_working_planes(Encoder& e, AVPixelFormat source_format, const char* function) {
    const bool resizes = e.output_width != e.input_width || e.output_height != e.input_height;
    const bool deinterlaces = e.resize_deinterlace == 3 || e.resize_deinterlace == 4;
    if (!resizes && !deinterlaces && e.output_pixel_format == source_format) return true;

    print("Allocating resize buffer\n");
    for (size_t plane = 0; plane < 3; plane++) {
        detail::require(e.resize_buffer[plane] == nullptr, "resize_buffer[plane] == NULL", __LINE__,
                        function);
        const auto width =
            static_cast<uint32_t>(e.output_width) >> (plane == 0 ? 0 : e.output_chroma_shift_x);
        const uint32_t stride = (width + 15) & ~15u;
        // Sixteen rows and a full-height chroma plane more than 4:2:0 needs; serves every chroma format.
        const size_t size = static_cast<size_t>(stride) * (static_cast<size_t>(e.output_height) + 16);
        e.resize_buffer[plane] = static_cast<uint8_t*>(std::malloc(size));
        if (!e.resize_buffer[plane]) {
            print_formatted("Init error: unable to malloc resize buffer plane %zu/%zu\n", plane + 1,
                            size_t{3});
            return fail(e, "", "Unable to allocate resizing frame");
        }
        constexpr int kBlackLuma = 16;
        constexpr int kNeutralChroma = 128;
        std::memset(e.resize_buffer[plane], plane == 0 ? kBlackLuma : kNeutralChroma, size);
        e.resize_buffer_stride[plane] = stride;
    }
    return true;
}

}  // namespace

bool Encoder::client_addref() try {
    refcount++;
    return init_encoder();
} catch (const std::exception&) {
    return false;
}

void Encoder::client_unref() try {
    refcount--;
    if (refcount < 0)
        print_formatted("WARNING: encoder[%u] negative refcount %d\n", encoder_index, refcount);
    else if (refcount == 0)
        free_encoder();
} catch (const std::exception&) {
}

// Resizing

namespace {

/// The planes of a picture that the host delivered.
struct SourcePlanes {
    const uint8_t* data[3];
    size_t strides[3];
};

detail::PictureFormat source_format(const Encoder& e, unsigned width, unsigned height) {
    return {width, height, e.input_chroma_shift_x, e.input_chroma_shift_y};
}

detail::PictureFormat output_format(const Encoder& e) {
    return {e.output_width, e.output_height, e.output_chroma_shift_x, e.output_chroma_shift_y};
}

/// Hands each of the three planes, with its working plane and geometry, to `scale_plane`, which is also told
/// whether it is chroma.
template <class ScalePlane>
void scale_planes(Encoder& e, const SourcePlanes& planes, const detail::PictureGeometry& geometry,
                  const ScalePlane& scale_plane) {
    if (!e.resize_buffer[0]) return;  // closed, or open with nothing to resize
    for (int i = 0; i < 3; i++) {
        const detail::PlaneGeometry& g = i == 0 ? geometry.luma : geometry.chroma;
        scale_plane(detail::PlaneScaling{e.resize_buffer[i], e.resize_buffer_stride[i], planes.data[i],
                                         planes.strides[i], g.to_width, g.to_height, g.x_step, g.y_step,
                                         g.src_width, g.src_height},
                    i != 0);
    }
}

}  // namespace

void Encoder::do_resize_yuv_plane(uint8_t* dY, size_t dY_stride, const uint8_t* sY, size_t sY_stride,
                                  unsigned to_width, unsigned to_height, unsigned x_step, unsigned y_step,
                                  unsigned src_width, unsigned src_height, int field) {
    detail::scale_plane(
        {dY, dY_stride, sY, sY_stride, to_width, to_height, x_step, y_step, src_width, src_height},
        resize_deinterlace, field, __PRETTY_FUNCTION__);
}

void Encoder::resize_input_to_output(const uint8_t* y, size_t y_stride, const uint8_t* u, size_t u_stride,
                                     const uint8_t* v, size_t v_stride, unsigned width, unsigned height,
                                     int field) {
    const auto geometry =
        detail::end_point_aligned(source_format(*this, width, height), output_format(*this));
    if (!geometry) return;
    scale_planes(*this, {{y, u, v}, {y_stride, u_stride, v_stride}}, *geometry,
                 [&](const detail::PlaneScaling& p, bool) {
                     do_resize_yuv_plane(p.dst, p.dst_stride, p.src, p.src_stride, p.to_width, p.to_height,
                                         p.x_step, p.y_step, p.src_width, p.src_height, field);
                 });
}

void Encoder::do_resize_yuv_plane_deinterlace_basic_mode3(uint8_t* dY, size_t dY_stride, const uint8_t* sY,
                                                          size_t sY_stride, unsigned to_width,
                                                          unsigned to_height, unsigned x_step,
                                                          unsigned y_step, unsigned src_width,
                                                          unsigned src_height, int) {
    detail::deinterlace_plane_basic(
        {dY, dY_stride, sY, sY_stride, to_width, to_height, x_step, y_step, src_width, src_height});
}

void Encoder::resize_input_to_output_deinterlace_basic_mode3(const uint8_t* y, size_t y_stride,
                                                             const uint8_t* u, size_t u_stride,
                                                             const uint8_t* v, size_t v_stride,
                                                             unsigned width, unsigned height, int field) {
    const auto geometry = detail::cell_aligned(source_format(*this, width, height), output_format(*this));
    if (!geometry) return;
    scale_planes(*this, {{y, u, v}, {y_stride, u_stride, v_stride}}, *geometry,
                 [&](const detail::PlaneScaling& p, bool) {
                     do_resize_yuv_plane_deinterlace_basic_mode3(p.dst, p.dst_stride, p.src, p.src_stride,
                                                                 p.to_width, p.to_height, p.x_step, p.y_step,
                                                                 p.src_width, p.src_height, field);
                 });
}

void Encoder::do_resize_yuv_plane_deinterlace_adaptive_mode4(
    uint8_t* dY, size_t dY_stride, const uint8_t* sY, size_t sY_stride, unsigned to_width, unsigned to_height,
    unsigned x_step, unsigned y_step, unsigned src_width, unsigned src_height, int, uint8_t* motion_map,
    unsigned mb_cols, uint8_t map_shift_x, uint8_t map_shift_y) {
    detail::deinterlace_plane_adaptive(
        {dY, dY_stride, sY, sY_stride, to_width, to_height, x_step, y_step, src_width, src_height},
        {motion_map, mb_cols, map_shift_x, map_shift_y});
}

void Encoder::resize_input_to_output_deinterlace_adaptive_mode4(const uint8_t* y, size_t y_stride,
                                                                const uint8_t* u, size_t u_stride,
                                                                const uint8_t* v, size_t v_stride,
                                                                unsigned width, unsigned height, int field) {
    const auto geometry = detail::cell_aligned(source_format(*this, width, height), output_format(*this));
    if (!geometry) return;
    // The map shifts are the output's subsampling, also where the input's differs.
    const unsigned mb_cols = detail::macroblocks(width);
    const auto shift_x = static_cast<uint8_t>(output_chroma_shift_x);
    const auto shift_y = static_cast<uint8_t>(output_chroma_shift_y);

    // Where chroma is subsampled less than these say, its operation reads on past the map's last row. What it
    // finds there is what the last row holds: blocks on the picture's edge, which count as combed.
    const size_t blocks = detail::motion_map_size(width, height);
    const size_t size =
        std::max(blocks, detail::map_reach({nullptr, mb_cols, shift_x, shift_y}, geometry->chroma));
    const std::unique_ptr<uint8_t[]> map(new (std::nothrow) uint8_t[size]);
    if (!map) return;  // the working planes keep the picture before
    detail::build_motion_map(map.get(), y, y_stride, width, height);
    std::memset(map.get() + blocks, 1, size - blocks);
    scale_planes(*this, {{y, u, v}, {y_stride, u_stride, v_stride}}, *geometry,
                 [&](const detail::PlaneScaling& p, bool is_chroma) {
                     do_resize_yuv_plane_deinterlace_adaptive_mode4(
                         p.dst, p.dst_stride, p.src, p.src_stride, p.to_width, p.to_height, p.x_step,
                         p.y_step, p.src_width, p.src_height, field, map.get(), mb_cols,
                         is_chroma ? shift_x : uint8_t{0}, is_chroma ? shift_y : uint8_t{0});
                 });
}

// Status and settings

namespace {

/// Appends text formatted as by printf; formats here stay far below the buffer's size.
template <class... Values>
void append(std::string& text, const char* format, Values... values) {
    char buffer[128];
    std::snprintf(buffer, sizeof(buffer), format, values...);
    text += buffer;
}

/// The state of an encoder that runs, "0" for one that does not.
std::string activity_text(const Encoder& e) {
    if (e.refcount == 0 || !e.encoder_open) return "0";
    std::string text = "1";
    append(text, ",res=%lux%lu", static_cast<unsigned long>(e.output_width),
           static_cast<unsigned long>(e.output_height));
    if (const AVCodecContext* const context = e.mpeg_context) {
        if (context->flags & AV_CODEC_FLAG_INTERLACED_DCT) text += "i";
        append(text, ",vrate=%.3f", static_cast<double>(context->time_base.den) / context->time_base.num);
    }
    const bool known = e.current_aspect_num > 0 && e.current_aspect_den > 0;
    append(text, ",ar=%lu:%lu",
           known ? static_cast<unsigned long>(e.current_aspect_num) : e.default_aspect_num,
           known ? static_cast<unsigned long>(e.current_aspect_den) : e.default_aspect_den);
    append(text, ",efc=%llu", static_cast<unsigned long long>(e.encoded_frame_count));
    if (e.vbr_value > 0) append(text, ",vbr=%u", static_cast<unsigned>(e.vbr_value));
    if (!e.dgop_text.empty()) text += ",dgop=" + e.dgop_text;
    if (!e.bgop_text.empty()) text += ",bgop=" + e.bgop_text;
    return text;
}

}  // namespace

bool Encoder::on_report(comm_socket_v4_packet* pkt, const char* report_name, const char*,
                        common_pkt_parsing* parsing) try {
    const std::string prefix = std::string("*") + report_name + ", ";
    if (!parsing->omit_debug)
        comm_socket_v4_packet_write_nv_pairf(pkt, (prefix + "debug status").c_str(), "scplx=%.3f me_range=%d",
                                             saved_spatial_masking,
                                             mpeg_context ? mpeg_context->me_range : -1);
    const auto write = [&](const char* name, const std::string& value) {
        return comm_socket_v4_packet_write_nv_pair(pkt, (prefix + name).c_str(), value.c_str());
    };
    write("active", activity_text(*this));
    write("last error", last_error);
    return write("last notes", last_notes);
} catch (const std::exception&) {
    return false;
}

namespace {

/// What a setting asks of an encoder that is open.
enum class Effect { ignored, applies_at_once, closes_encoder };

/// One setting: its key, and how a value text reaches its field.
struct Setting {
    const char* key;
    Effect (*apply)(Encoder& e, const char* value);
};

template <auto field, auto parse>
Effect store(Encoder& e, const char* value) {
    e.*field = parse(value);
    return Effect::closes_encoder;
}

template <auto field, auto parse>
Effect store_at_once(Encoder& e, const char* value) {
    e.*field = parse(value);
    return Effect::applies_at_once;
}

const char* as_text(const char* value) { return value; }

Effect select_codec(Encoder& e, const char* value) {
    int32_t id = 0;
    if (!detail::is_empty(value)) {
        const auto* const name =
            std::find_if(std::begin(gsve_encoder_str), std::end(gsve_encoder_str),
                         [&](const char* entry) { return std::strcmp(entry, value) == 0; });
        if (name == std::end(gsve_encoder_str)) return Effect::ignored;
        id = static_cast<int32_t>(name - std::begin(gsve_encoder_str));
    }
    if (id == e.codec_id) return Effect::ignored;
    e.codec_changed = true;
    e.free_encoder();
    e.codec_id = id;
    return Effect::closes_encoder;
}

Effect set_enabled(Encoder& e, const char* value) {
    e.enabled = detail::is_empty(value) ? e.enabled_default : detail::parse_whole_switch(value);
    return Effect::closes_encoder;
}

Effect set_closed_gop(Encoder& e, const char* value) {
    e.closed_gop_auto = detail::is_empty(value);
    e.closed_gop = detail::parse_whole_switch(value);
    return Effect::closes_encoder;
}

Effect set_resize(Encoder& e, const char* value) {
    const detail::PictureSize size = detail::parse_size(value);
    e.resize_width = size.width;
    e.resize_height = size.height;
    return Effect::closes_encoder;
}

// Why each key has the syntax that it has: docs/contract.md, "Settings".
// clang-format off
constexpr Setting kSettings[] = {
    {"encoder",                       select_codec},
    {"enable h.264 nal hrd",          store<&Encoder::h264_nal_hrd, detail::parse_nonzero_switch>},
    {"temporal complexity masking",   store<&Encoder::temporal_complexity_masking, detail::parse_temporal_masking>},
    {"spatial complexity masking",    store<&Encoder::spatial_complexity_masking, detail::parse_spatial_masking>},
    {"p masking",                     store<&Encoder::p_masking, detail::parse_p_masking>},
    {"noise reduction",               store<&Encoder::noise_reduction, detail::parse_positive<15, 0>>},
    {"bitrate",                       store<&Encoder::bitrate, detail::parse_positive<6000000, -1>>},
    {"min bitrate",                   store<&Encoder::min_bitrate, detail::parse_min_bitrate>},
    {"max bitrate",                   store<&Encoder::max_bitrate, detail::parse_max_bitrate>},
    {"h.264 b-slice multithreading",  store<&Encoder::h264_b_slice_multithreading, detail::parse_digit_led_switch<false>>},
    {"h.264 aud",                     store<&Encoder::h264_aud, detail::parse_digit_led_switch<true>>},
    {"h.264 level",                   store<&Encoder::h264_level, as_text>},
    {"h.264 profile",                 store<&Encoder::h264_profile, as_text>},
    {"h.264 preset",                  store<&Encoder::h264_preset, as_text>},
    {"bitrate tolerance",             store<&Encoder::bitrate_tolerance, detail::parse_positive<-1, -1>>},
    {"gop size",                      store<&Encoder::gop_size, detail::parse_gop_size>},
    {"b frames",                      store<&Encoder::b_frames, detail::parse_b_frames>},
    {"minimum quant",                 store<&Encoder::minimum_quant, detail::parse_positive<-1, -1>>},
    {"maximum threads",               store<&Encoder::maximum_threads, detail::parse_positive<0, 0>>},
    {"gop synchronization",           store_at_once<&Encoder::gop_synchronization, detail::parse_switch>},
    {"maximum quant",                 store<&Encoder::maximum_quant, detail::parse_positive<-1, -1>>},
    {"buffer size",                   store<&Encoder::buffer_size, detail::parse_positive<-1, -1>>},
    {"name",                          store_at_once<&Encoder::encoder_name, as_text>},
    {"enable",                        set_enabled},
    {"closed gop",                    set_closed_gop},
    {"debug file",                    store<&Encoder::debug_file, detail::parse_whole_switch>},
    {"enable eia-608",                store<&Encoder::eia608_enable, detail::parse_number_or_empty<-1>>},
    {"enable eia-608 gop delay",      store<&Encoder::eia608_gop_delay, detail::parse_number_or_empty<-1>>},
    {"enable cea-708",                store<&Encoder::cea708_enable, detail::parse_number_or_empty<-1>>},
    {"eia-608 on p-frames",           store<&Encoder::eia608_on_p_frames, detail::parse_number_or_empty<-1>>},
    {"drop frame for bitrate limit",  store<&Encoder::drop_frame_for_bitrate_limit, detail::parse_drop_frame>},
    {"chroma format",                 store<&Encoder::chroma_format, as_text>},
    {"resize deinterlace",            store<&Encoder::resize_deinterlace, detail::parse_digit_led_number<-1>>},
    {"resize",                        set_resize},
    {"s_tune_cpu",                    store<&Encoder::s_tune_cpu, detail::parse_tuning_gain>},
    {"s_tune_bitrate",                store<&Encoder::s_tune_bitrate, detail::parse_tuning_gain>},
    {"s_tune_recovery",               store<&Encoder::s_tune_recovery, detail::parse_tuning_gain>},
    {"cpu threshhold",                store<&Encoder::cpu_threshold, detail::parse_cpu_threshold>},
    {"interlaced motion estimation",  store<&Encoder::interlaced_motion_estimation, detail::parse_digit_led_number<-1>>},
    {"motion estimation range",       store<&Encoder::motion_estimation_range, detail::parse_motion_estimation_range>},
    {"constant bitrate per frame",    store<&Encoder::constant_bitrate_per_frame, detail::parse_constant_bitrate_per_frame>},
    {"remove trailing zeros",         store_at_once<&Encoder::remove_trailing_zeros, detail::parse_digit_led_switch<false>>},
    {"frame rate limit",              store<&Encoder::frame_rate_limit, detail::parse_digit_led_number<-1, 0>>},
    {"reference frames",              store<&Encoder::reference_frames, detail::parse_digit_led_number<0, 0>>},
};
// clang-format on

const Setting* find_setting(const char* key) {
    const auto* const found = std::find_if(std::begin(kSettings), std::end(kSettings),
                                           [&](const Setting& s) { return std::strcmp(s.key, key) == 0; });
    return found == std::end(kSettings) ? nullptr : found;
}

}  // namespace

void Encoder::on_set(const char* name, const char* value, bool restart) try {
    const Setting* const setting = find_setting(name);
    if (!setting || setting->apply(*this, value) != Effect::closes_encoder) return;
    free_encoder();
    if (restart) init_encoder();
} catch (const std::exception&) {
}

void Encoder::transmit() {}

// Captions and timecodes: intake

void Encoder::write_scte20(uint8_t* data, size_t len) {
    if (len > sizeof(scte20_buffer)) return;
    scte20_length = len;
    if (len > 0) std::memcpy(scte20_buffer, data, len);
}

namespace {

bool accepts_captions(const Encoder& e) { return e.encoder_open && e.refcount != 0; }

/// Drops the oldest entries until `kept` remain.
template <class Queue>
void keep_newest(Queue& queue, size_t kept) {
    queue.erase(queue.begin(), queue.end() - static_cast<ptrdiff_t>(kept));
}

bool is_padding(uint16_t word) { return word == detail::kEia608NoWord || word == detail::kEia608Padding; }

}  // namespace

void Encoder::write_cea708(unsigned count, zeph_cea708_word* words) try {
    constexpr unsigned kMostWords = 256;
    constexpr size_t kKeptWords = 192;
    if (!accepts_captions(*this)) return;
    if (count > kMostWords) {
        print("[gsve] CEA-708 incoming too many words, truncating\n");
        count = kMostWords;
    }
    if (cea708_queue.size() > kKeptWords) {
        print_formatted("[gsve] CEA-708 incoming overflow (%zu)\n", cea708_queue.size());
        keep_newest(cea708_queue, kKeptWords);
    }
    cea708_queue.insert(cea708_queue.end(), words, words + count);
} catch (const std::exception&) {
}

void Encoder::write_eia608(uint8_t field, uint16_t word) try {
    constexpr size_t kKeptWords = 32;
    if (!accepts_captions(*this) || field > 1) return;
    std::deque<uint16_t>& queue = field == 0 ? eia608_field1_queue : eia608_field2_queue;
    while (!queue.empty() && is_padding(queue.front())) queue.pop_front();
    if (queue.size() > kKeptWords) {
        print_formatted("[gsve] EIA-608 incoming overflow (%zu)\n", queue.size());
        keep_newest(queue, kKeptWords);
    }
    queue.push_back(word);
} catch (const std::exception&) {
}

// Captions and timecodes: insertion into the unit in the output window

bool Encoder::mpeg_insert_output(uint8_t*& out, size_t n) {
    if (!output_window) return false;
    sliding_window_v4& output = *output_window;
    if (out < output.data || out < output.base || out >= output.end) return false;
    if (n > static_cast<size_t>(output.data - output.base)) return false;
    std::memmove(output.data - n, output.data, static_cast<size_t>(out - output.data));
    output.data -= n;
    out -= n;
    return true;
}

namespace {

/// Opens a gap of `size` bytes in front of `position` through the host's virtual operation. Returns its first
/// byte, or null where there is no room.
uint8_t* open_gap(Encoder& e, uint8_t* position, size_t size) {
    uint8_t* gap = position;
    return e.mpeg_insert_output(gap, size) ? gap : nullptr;
}

uint8_t* find_first_slice(const Encoder& e) {
    return e.output_window ? detail::find_first_slice(e.output_window->data, e.output_window->end) : nullptr;
}

/// The record of picture `pts`, or null.
const AuxData* find_record(const Encoder& e, uint64_t pts, const char* function) {
    require_sane_window(e, __LINE__, function);
    const auto record = e.aux_data_map.find(pts);
    return record == e.aux_data_map.end() ? nullptr : &record->second;
}

detail::PictureWords captions_of(const AuxData* record) {
    if (!record) return {};
    return {record->eia608_word_field1, record->eia608_word_field2, record->cea708_words,
            std::min<uint32_t>(record->cea708_count, AuxData::kMaxCea708Words)};
}

unsigned cc_count(const Encoder& e) {
    return detail::caption_budget(source_rate(e).divided(e.frame_rate_divider)).cc_count;
}

/// Whether pictures carry EIA-608 fields in turn.
bool alternates_fields(const Encoder& e) {
    constexpr int64_t kFastestRateWithBothFields = 40;
    return source_rate(e).divided_whole(e.frame_rate_divider) > kFastestRateWithBothFields;
}

void complain(const detail::PayloadOutcome& outcome, const detail::PictureWords& captions) {
    if (outcome.anomaly != detail::Eia608Anomaly::none)
        print(detail::kEia608AnomalyTexts[static_cast<size_t>(outcome.anomaly)]);
    if (outcome.cea708_examined < captions.cea708_count)
        print_formatted("[gsve] WARNING: Some CEA-708 was dropped (%u/%u written)\n", outcome.cea708_examined,
                        captions.cea708_count);
}

}  // namespace

void Encoder::mpeg_insert_eia608_cc() {
    constexpr int64_t kFastestRate = 33;
    if (!mpeg_packet || source_rate(*this).divided_whole(frame_rate_divider) > kFastestRate) return;
    if (!aux_data_map.empty() && eia608_next_pts + 2 < aux_data_map.begin()->first)
        eia608_next_pts = aux_data_map.begin()->first - 2;
    const int64_t dts = mpeg_packet->dts;
    if (dts < 0 || eia608_next_pts >= static_cast<uint64_t>(dts)) return;
    uint8_t* const slice = find_first_slice(*this);
    if (!slice) return;

    const size_t pictures = static_cast<uint64_t>(dts) - eia608_next_pts;
    if (pictures > detail::kMaxCcUserDataPictures) {
        std::fprintf(stderr, "[gsve] EIA-608 insertion: too many words (%zu)!\n", pictures);
        std::abort();
    }
    uint8_t* p = open_gap(*this, slice, detail::cc_user_data_size(pictures));
    if (!p) return;
    p = detail::write_cc_user_data_header(p, pictures);
    for (; eia608_next_pts < static_cast<uint64_t>(dts); eia608_next_pts++) {
        const detail::PictureWords captions =
            captions_of(find_record(*this, eia608_next_pts, __PRETTY_FUNCTION__));
        p = detail::write_cc_user_data_words(p, captions.eia608_word_field1, captions.eia608_word_field2);
    }
}

void Encoder::mpeg_insert_cea708_cc(size_t pts) {
    uint8_t* const slice = find_first_slice(*this);
    if (!slice) return;
    const unsigned count = cc_count(*this);
    const size_t size = detail::kStartCodeSize + detail::atsc1_data_size(count);
    uint8_t* const p = open_gap(*this, slice, size);
    if (!p) return;
    detail::require(p + size == slice, "p == pf", __LINE__, __PRETTY_FUNCTION__);

    const detail::PictureWords captions = captions_of(find_record(*this, pts, __PRETTY_FUNCTION__));
    const detail::PayloadOutcome outcome = detail::write_atsc1_data(
        detail::write_user_data_start_code(p), captions, count, alternates_fields(*this), pts % 2 != 0);
    complain(outcome, captions);
}

void Encoder::h264_insert_cea708_cc(size_t pts) {
    if (!output_window) return;
    const uint8_t* const data = output_window->data;
    uint8_t* const slice = detail::find_caption_sei_position(output_window->data, output_window->end);
    if (!slice) return;
    detail::require(slice >= data, "p >= output->data", __LINE__, __PRETTY_FUNCTION__);
    detail::require(slice[0] == 0 && slice[1] == 0 && slice[2] == 1, "p[0] == 0 && p[1] == 0 && p[2] == 0x01",
                    __LINE__, __PRETTY_FUNCTION__);

    const unsigned count = cc_count(*this);
    const detail::PictureWords captions = captions_of(find_record(*this, pts, __PRETTY_FUNCTION__));
    uint8_t sei[detail::caption_sei_size(detail::kMaxCcCount)];
    const detail::PayloadOutcome outcome =
        detail::write_caption_sei(sei, captions, count, alternates_fields(*this), pts % 2 != 0);
    complain(outcome, captions);

    constexpr unsigned kNalRefIdcNone = 0;
    constexpr uint8_t kNalTypeSei = 6;
    uint8_t nal[4096];
    const int size = h264_nal_write(nal, sizeof(nal), sei, static_cast<unsigned long>(outcome.end - sei),
                                    kNalRefIdcNone, kNalTypeSei);
    if (size < 1 || static_cast<size_t>(size) > sizeof(nal)) return;
    uint8_t* const p = open_gap(*this, slice, static_cast<size_t>(size));
    if (!p) return;
    detail::require(p + size == slice, "(p+fsz) == pf", __LINE__, __PRETTY_FUNCTION__);
    std::memcpy(p, nal, static_cast<size_t>(size));
}

void Encoder::mpeg_insert_scte20(size_t pts) {
    constexpr uint8_t kScte20TypeCode = 0x03;
    uint8_t* const slice = find_first_slice(*this);
    if (!slice) return;
    const auto record = aux_data_map.find(pts);
    if (record == aux_data_map.end() || record->second.scte20_data_length == 0) return;
    const AuxData& aux = record->second;

    const size_t size = detail::kStartCodeSize + 1 + aux.scte20_data_length;
    uint8_t* p = open_gap(*this, slice, size);
    if (!p) return;
    detail::require(p + size == slice, "p == pf", __LINE__, __PRETTY_FUNCTION__);
    p = detail::write_user_data_start_code(p);
    *p++ = kScte20TypeCode;
    std::memcpy(p, aux.scte20_data, aux.scte20_data_length);
}

void Encoder::write_mpeg2_gop_timecode(const mpeg2_gop_timecode_t& tc) try {
    mpeg2_gop_timecode_t copy = tc;
    pending_gop_timecode = std::move(copy);
} catch (const std::exception&) {
}

void Encoder::mpeg_insert_gop_timecode(const mpeg2_gop_timecode_t& tc) {
    if (!tc.valid || !output_window) return;
    uint8_t* const word = detail::find_gop_timecode(output_window->data, output_window->end);
    if (word) detail::write_be32(word, detail::with_gop_timecode(detail::read_be32(word), tc));
}

// Caption predicates

namespace {

/// Source rates at which captions are on unless set otherwise. 24.1 itself is out: docs/contract.md,
/// "Asymmetries".
bool is_caption_rate(double rate) {
    return (rate >= 23.0 && rate < 24.1) || (rate >= 29.0 && rate <= 30.5) || (rate >= 59.0 && rate <= 60.5);
}

bool has_caption_rate(const Encoder& e) {
    return e.frame_rate_num >= 1 && e.frame_rate_den >= 1 && is_caption_rate(source_rate(e).value());
}

}  // namespace

bool Encoder::enabled_eia608() {
    if (eia608_enable >= 0) return eia608_enable > 0;
    const bool standard_definition = input_width <= 752 && input_height <= 576;
    return standard_definition && has_caption_rate(*this);
}

bool Encoder::enabled_cea708() { return cea708_enable >= 0 ? cea708_enable > 0 : has_caption_rate(*this); }

bool Encoder::do_eia608_on_p_frames() { return eia608_on_p_frames != 0; }
