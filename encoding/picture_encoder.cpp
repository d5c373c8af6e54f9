#include "encoding/picture_encoder.h"

#include <algorithm>
#include <array>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
}

#include <orb_utils_v4/io.h>

#include "encoding/error.h"
#include "encoding/frame_rate.h"
#include "encoding/unit_messages.h"

namespace gsve::encoding {
namespace {

using Encoder = GeneralStreamingVideoEncoder;

/// Seconds that no measured time can lift to a share of a picture's, and above what the encoder takes for no
/// value yet (-666), which the first measured time would replace.
constexpr double kNoLoad = -600;

/// More than lie between a GOP header and the picture that it is written for.
constexpr uint64_t kTimecodesKept = 256;

/// More than any codec holds back.
constexpr size_t kMostAwaited = 1024;

std::span<const uint8_t> unit_in(const sliding_window_v4& window) { return {window.data, window.end}; }

}  // namespace

/// Has the encoder make a key picture of the next one. It takes picture types from hosts that follow the GOPs
/// of a source, which they say by no "gop size" of their own; what the codec was opened with stays. libx264
/// and libx265 would make an I-picture of it in the middle of an open GOP.
class PictureEncoder::KeyRequest {
public:
    KeyRequest(PictureEncoder& encoder, bool wanted)
        : encoder_(encoder), gop_size_(encoder.gop_size), wanted_(wanted) {
        if (!wanted_) return;
        encoder_.gop_size = -1;
        encoder_.requested_picture_type = 'I';
        encoder_.gop_sync_frame_number = static_cast<int32_t>(encoder_.output_frame_count & INT32_MAX);
        force_idr(1);
    }
    ~KeyRequest() {
        if (!wanted_) return;
        encoder_.gop_size = gop_size_;
        encoder_.requested_picture_type = -1;
        encoder_.gop_sync_frame_number = -1;
        force_idr(0);
    }
    KeyRequest(const KeyRequest&) = delete;
    KeyRequest& operator=(const KeyRequest&) = delete;

private:
    void force_idr(int on) {
        if (encoder_.codec_id == kMpeg2 || !encoder_.mpeg_context) return;
        av_opt_set_int(encoder_.mpeg_context->priv_data, "forced-idr", on, 0);
    }

    PictureEncoder& encoder_;
    const int32_t gop_size_;
    const bool wanted_;
};

PictureEncoder::~PictureEncoder() {
    if (refcount > 0) client_unref();
}

void PictureEncoder::describe_source(const SourceDescription& source) {
    input_width = source.width;
    input_height = source.height;
    input_chroma_shift_x = source.chroma_shift_x;
    input_chroma_shift_y = source.chroma_shift_y;
    frame_rate_num = source.frame_rate.num;
    frame_rate_den = source.frame_rate.den;
    input_interlaced = source.interlaced;
    colour_ = source.colour;
    may_have_shape_ = source.may_have_shape;
}

bool PictureEncoder::open(const Ancillary& first) {
    leave_room_in_buffer();
    signal(first, 0);  // applying a setting forgets what was signalled, and the codec starts with this
    if (!client_addref() || !encoder_open) return false;
    times_.emplace(reorder_depth(), frame_rate_divider);
    types_.emplace(*mpeg_context);
    return true;
}

/// The largest buffer of MPEG-2's main level, which the encoder takes for itself at high rates, has to hold
/// what is inserted, too.
void PictureEncoder::leave_room_in_buffer() {
    constexpr int kMainLevelBuffer = 1835008, kMostInserted = 48'000;  // bits, bits/s
    constexpr int kMainLevelWidth = 720, kMainLevelHeight = 576;
    const bool resized = resize_width > 0 && resize_height > 0;
    const int width = resized ? resize_width : input_width, height = resized ? resize_height : input_height;
    if (codec_id != kMpeg2 || buffer_size > 0 || width > kMainLevelWidth || height > kMainLevelHeight) return;
    const double share = bitrate / static_cast<double>(bitrate + kMostInserted);
    const auto room = static_cast<int32_t>(kMainLevelBuffer * share);
    if (bitrate / 4 > room) buffer_size = room;
}

AVRational PictureEncoder::encoded_rate() const {
    return av_mul_q({frame_rate_num, frame_rate_den}, {1, static_cast<int>(frame_rate_divider)});
}

double PictureEncoder::inserted_rate() {
    // Of a sequence display extension, or a description of the colour; and for a byte of emulation
    // prevention.
    constexpr double kHeaders = 16, kEmulationPrevention = 1;
    const captions::FrameRate rate = caption_rate(encoded_rate());
    const auto message = [&](const std::vector<uint8_t>& body) {
        return static_cast<double>(codec_id == kMpeg2 ? mpeg2_user_data(body).size()
                                                      : atsc_message(codec_id, body).size());
    };
    double bytes = 0;
    if (colour_ != Colour()) bytes += kHeaders / std::max<int>(static_cast<int>(effective_gop_size), 1);
    if (enabled_cea708() && codec_id != kMpeg2) bytes += kEmulationPrevention;
    if (enabled_cea708()) bytes += message(caption_data({}, rate, 0));
    if (may_have_shape_) bytes += message(afd_data(0)) + message(bar_data({0, 0, {}, {}}));
    if (codec_id == kMpeg2) {
        // Pairs of all pictures since the one before that had some; two constructs of SCTE 20.
        constexpr double kCcHeader = 9, kCcPairs = 6, kScte20 = 14;
        const double distance =
            do_eia608_on_p_frames() ? mpeg_context->max_b_frames + 1.0 : effective_gop_size;
        if (enabled_eia608()) bytes += kCcPairs + kCcHeader / std::max(distance, 1.0);
        if (carries_scte20_) bytes += kScte20;
    }
    return 8 * bytes * rate.per_second();
}

std::vector<uint8_t> PictureEncoder::parameter_sets() {
    const std::span<const uint8_t> of_codec = {
        mpeg_context->extradata, static_cast<size_t>(std::max(mpeg_context->extradata_size, 0))};
    std::vector<uint8_t> rewritten = headers().rewritten(of_codec);
    return rewritten.empty() ? std::vector<uint8_t>(of_codec.begin(), of_codec.end()) : rewritten;
}

/// Only of 4:2:0 may H.264 and H.265 say where the chroma is.
Colour PictureEncoder::stated_colour() const {
    Colour colour = colour_;
    if (mpeg_context->pix_fmt != AV_PIX_FMT_YUV420P) colour.chroma_location = AVCHROMA_LOC_UNSPECIFIED;
    return colour;
}

StreamHeaders& PictureEncoder::headers() {
    if (!headers_)
        headers_.emplace(codec_id, HeaderFacts{.colour = stated_colour(),
                                               .inserted_rate = inserted_rate(),
                                               .codec_rate = mpeg_context->rc_max_rate});
    return *headers_;
}

PictureFate PictureEncoder::push(const PictureView& picture, const Ancillary& ancillary) {
    if (takes(picture.number)) {
        queue(ancillary, picture.number);
        await(ancillary, picture.number);
    }
    signal(ancillary, picture.number);
    if (!adapts_to_load_) smoothed_encode_time = kNoLoad;
    const uint64_t taken = input_frame_count;
    const uint64_t sent = encoded_frame_count;
    times_->offered(static_cast<int64_t>(picture.number));
    const KeyRequest key(*this, ancillary.key && takes(picture.number));
    const bool usable =
        write_video(picture.planes[0], picture.strides[0], picture.planes[1], picture.strides[1],
                    picture.planes[2], picture.strides[2], ancillary.field_order - 1, picture.number);
    rethrow_failure();
    if (!usable) throw Failure("the encoder cannot take a picture: memory ran out");
    if (encoded_frame_count != sent) return PictureFate::kEncoded;
    times_->withdrawn();
    awaited_.erase(picture.number);
    return input_frame_count == taken ? PictureFate::kSkipped : PictureFate::kDropped;
}

void PictureEncoder::close_gops(bool on) {
    if (codec_id != kMpeg2 || closed_gop || !mpeg_context) return;
    if (on)
        mpeg_context->flags |= AV_CODEC_FLAG_CLOSED_GOP;
    else
        mpeg_context->flags &= ~AV_CODEC_FLAG_CLOSED_GOP;
}

void PictureEncoder::count_gops_from(int64_t encoded) {
    if (codec_id == kMpeg2) av_opt_set_int(mpeg_context->priv_data, "timecode_frame_start", encoded, 0);
}

uint64_t PictureEncoder::drain() {
    uint64_t units = 0;
    draining_ = true;
    while (flush_delayed_video()) {
        rethrow_failure();
        units++;
    }
    return units;
}

uint64_t PictureEncoder::pairs_after_last_cc() const {
    uint64_t pairs = 0;
    for (auto record = aux_data_map.lower_bound(eia608_next_pts); record != aux_data_map.end(); ++record)
        pairs += (record->second.eia608_word_field1 != 0) + (record->second.eia608_word_field2 != 0);
    return pairs;
}

void PictureEncoder::rethrow_failure() {
    if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
}

void PictureEncoder::signal(const Ancillary& ancillary, uint64_t number) {
    current_aspect_num = ancillary.display_aspect.num;
    current_aspect_den = ancillary.display_aspect.den;
    current_field_order = static_cast<int8_t>(ancillary.field_order);
    host_frame_tag = number;
}

/// Hands over what the encoder keeps with the picture until its unit comes.
void PictureEncoder::queue(const Ancillary& ancillary, uint64_t number) {
    for (uint8_t field = 0; field < 2; field++)
        if (ancillary.captions.words[field] != 0) write_eia608(field, ancillary.captions.words[field]);
    std::vector<zeph_cea708_word> words;
    words.reserve(ancillary.captions.cea708.size());
    for (const captions::Cea708Construct& c : ancillary.captions.cea708)
        words.push_back({c.header, static_cast<uint16_t>(c.data_1 << 8 | c.data_2)});
    if (!words.empty()) write_cea708(static_cast<unsigned>(words.size()), words.data());
    if (!ancillary.scte20.empty()) {
        std::vector<uint8_t> body = ancillary.scte20;
        write_scte20(body.data(), body.size());
    }
    if (!ancillary.timecode) return;
    const captions::GopTimecode& timecode = *ancillary.timecode;
    const uint64_t encoded = number / frame_rate_divider;
    timecodes_[encoded] = timecode;
    timecodes_.erase(timecodes_.begin(), timecodes_.lower_bound(encoded - std::min(encoded, kTimecodesKept)));
    write_mpeg2_gop_timecode({1, timecode.drop_frame_flag, timecode.hours, timecode.minutes, timecode.seconds,
                              timecode.pictures, std::to_string(encoded)});
}

void PictureEncoder::emit_data_out(const uint8_t*, size_t, AVPacket* pkt) {
    codec_size_ = unit_in(*output_window).size();
    complete_unit(*pkt);
    const std::span<const uint8_t> unit = unit_in(*output_window);
    pkt->data = output_window->data;
    pkt->size = static_cast<int>(unit.size());
    Encoder::emit_data_out(unit.data(), unit.size(), pkt);
}

void PictureEncoder::host_emit_data_out(const uint8_t* data, size_t len, AVPacket* pkt) {
    // The encoder is no place for an exception to cross; later units of a failed output are of no use.
    if (failure_) return;
    try {
        const int64_t number = source_number(pkt->pts);
        const bool ancillary = composes_captions() ? awaited_.contains(static_cast<uint64_t>(number))
                                                   : aux_data_map.contains(record_key(pkt->pts));
        const std::span<const uint8_t> bytes =
            with_additions({data, len}, static_cast<uint64_t>(number), (pkt->flags & AV_PKT_FLAG_KEY) != 0);
        receiver_({bytes, number, times_->next_decode_time(), (pkt->flags & AV_PKT_FLAG_KEY) != 0,
                   types_->type(bytes), ancillary});
    } catch (...) {
        failure_ = std::current_exception();
    }
}

/// Inserts what went with the picture into its unit, which stands in the output window: in the order in which
/// the encoder itself does, each in front of what was inserted before.
void PictureEncoder::complete_unit(AVPacket& unit) {
    if (aux_data_map.empty()) return;
    const uint64_t key = record_key(unit.pts);
    if (codec_id == kMpeg2) complete_mpeg2_unit(unit, key);
    if (codec_id == kH264 && enabled_cea708()) insert_cc_data(key);
}

void PictureEncoder::complete_mpeg2_unit(AVPacket& unit, uint64_t key) {
    const std::optional<Mpeg2PictureHeader> header = mpeg2_picture_header(unit_in(*output_window));
    const char type = header ? header->type : '?';
    if ((last_key_flag || (type == 'P' && do_eia608_on_p_frames())) && enabled_eia608()) {
        // The inserter counts pictures as the codec does, up to the unit's decoding time.
        const int64_t dts = unit.dts;
        unit.dts = dts < 0 ? dts : static_cast<int64_t>(record_key(dts));
        Encoder::mpeg_insert_eia608_cc();
        unit.dts = dts;
    }
    Encoder::mpeg_insert_scte20(key);
    if (enabled_cea708()) insert_cc_data(key);
    const auto record = aux_data_map.find(key);
    if (type == 'I' && record != aux_data_map.end())
        insert_timecode(header->temporal_reference, record->second.gop_timecode);
}

void PictureEncoder::insert_cc_data(uint64_t key) {
    if (composes_captions()) return;
    if (codec_id == kMpeg2)
        Encoder::mpeg_insert_cea708_cc(key);
    else
        Encoder::h264_insert_cea708_cc(key);
}

/// Whether A/53 captions are composed here, in the encoder's place.
bool PictureEncoder::composes_captions() const {
    return codec_id == kH265 || line_rate_ == captions::LineRate::kFull;
}

void PictureEncoder::await(const Ancillary& ancillary, uint64_t number) {
    Awaited awaited = {.captions = {},
                       .timecode = {},
                       .shape = ancillary.shape,
                       .held_shape = ancillary.held_shape,
                       .encoded = input_frame_count};
    if (composes_captions() && enabled_cea708()) awaited.captions = ancillary.captions;
    if (codec_id == kH265) awaited.timecode = ancillary.timecode;
    for (PictureShape* shape : {&awaited.shape, &awaited.held_shape})
        if (shape->bars)
            shape->bars = scaled(*shape->bars, {input_width, input_height}, {output_width, output_height});
    awaited_[number] = std::move(awaited);
    if (awaited_.size() > kMostAwaited) awaited_.erase(awaited_.begin());
}

/// What goes into the picture's unit, at the place where it goes.
std::vector<uint8_t> PictureEncoder::additions(std::span<const uint8_t> unit, size_t position,
                                               uint64_t number, bool key) {
    const auto found = awaited_.find(number);
    const Awaited awaited = found == awaited_.end() ? Awaited() : std::move(found->second);
    if (found != awaited_.end()) awaited_.erase(found);

    const int temporal_id = codec_id == kH265 ? temporal_id_at(unit, position) : 0;
    const captions::FrameRate rate = caption_rate(encoded_rate());
    std::vector<uint8_t> bytes;
    const auto append = [&bytes](const std::vector<uint8_t>& more) {
        bytes.insert(bytes.end(), more.begin(), more.end());
    };
    const auto append_user_data = [&](const std::vector<uint8_t>& body) {
        append(codec_id == kMpeg2 ? mpeg2_user_data(body) : atsc_message(codec_id, body, temporal_id));
    };
    if (awaited.timecode) append(timecode_message(*awaited.timecode, rate, temporal_id));
    if (composes_captions() && enabled_cea708())
        append_user_data(caption_data(awaited.captions, rate, awaited.encoded));
    // Receivers forget the shape at a sequence header: it is said again where one may stand.
    const PictureShape& shape = key && awaited.shape.empty() ? awaited.held_shape : awaited.shape;
    if (shape.afd) append_user_data(afd_data(*shape.afd));
    if (shape.bars && *shape.bars != Bars()) append_user_data(bar_data(*shape.bars));
    return bytes;
}

/// The unit of picture `number` as it leaves. Valid until the next one.
std::span<const uint8_t> PictureEncoder::with_additions(std::span<const uint8_t> unit, uint64_t number,
                                                        bool key) {
    const size_t position = codec_id == kMpeg2 ? user_data_position(unit) : sei_position(codec_id, unit);
    const std::vector<uint8_t> added = additions(unit, position, number, key);
    unit_.assign(unit.begin(), unit.end());
    if (position < unit.size())
        unit_.insert(unit_.begin() + static_cast<ptrdiff_t>(position), added.begin(), added.end());
    if (std::vector<uint8_t> rewritten = headers().rewritten(unit_); !rewritten.empty())
        unit_ = std::move(rewritten);
    // Without its stuffing, no rate of MPEG-2 is constant.
    if (codec_id == kMpeg2 && remove_trailing_zeros) state_variable_rate(unit_);
    if (!headers_->raised_by()) return unit_;
    if (!delays_) {
        delays_.emplace(codec_id, headers_->declared_rate(), 1 / av_q2d(encoded_rate()));
        delays_->know(parameter_sets());
    }
    delays_->restate(unit_);
    if (has_constant_rate()) fill_up();
    delays_->left(unit_.size());
    return unit_;
}

/// Whether the codec fills up what it sends, and so has to be done with what is inserted.
bool PictureEncoder::has_constant_rate() const {
    const bool equal =
        mpeg_context->rc_max_rate > 0 && mpeg_context->rc_min_rate == mpeg_context->rc_max_rate;
    return equal && headers_->raised_by() && (codec_id == kMpeg2 ? !remove_trailing_zeros : h264_nal_hrd);
}

/// Adds stuffing to the unit where less was inserted than is declared: zero bytes (ISO/IEC 13818-2, 5.2.3),
/// or filler data (ITU-T H.264, 7.3.2.7).
void PictureEncoder::fill_up() {
    const double declared = *headers_->raised_by() / 8 / av_q2d(encoded_rate());
    unfilled_ += declared - (static_cast<double>(unit_.size()) - static_cast<double>(codec_size_));
    constexpr std::array<uint8_t, 5> kFillerData = {0, 0, 0, 1, 0x0C};
    constexpr size_t kLeastFiller = kFillerData.size() + 1;
    const auto missing = static_cast<size_t>(std::max(unfilled_, 0.0));
    if (missing < (codec_id == kMpeg2 ? 1 : kLeastFiller)) return;
    unfilled_ -= static_cast<double>(missing);
    if (codec_id == kMpeg2) {
        unit_.resize(unit_.size() + missing);
        return;
    }
    unit_.insert(unit_.end(), kFillerData.begin(), kFillerData.end());
    unit_.insert(unit_.end(), missing - kLeastFiller, 0xFF);
    unit_.push_back(0x80);
}

/// The GOP header's time code is that of the picture displayed first (ISO/IEC 13818-2, 6.3.8): in an open GOP
/// a B-picture in front of the I-picture, `pictures_before` of which are.
void PictureEncoder::insert_timecode(int pictures_before, const mpeg2_gop_timecode_t& of_picture) {
    if (!of_picture.valid) return;
    mpeg2_gop_timecode_t first = of_picture;
    const uint64_t number = std::stoull(of_picture.text);
    const auto known = timecodes_.find(number - static_cast<uint64_t>(pictures_before));
    if (known != timecodes_.end()) {
        const captions::GopTimecode& t = known->second;
        first = {1, t.drop_frame_flag, t.hours, t.minutes, t.seconds, t.pictures, {}};
    }
    Encoder::mpeg_insert_gop_timecode(first);
}

/// The key of a picture's side-data record: the codec's own count of pictures. Without per-frame rate
/// control, units that leave at once count source pictures, and drained ones encoded pictures.
uint64_t PictureEncoder::record_key(int64_t emitted_time) const {
    const auto time = static_cast<uint64_t>(emitted_time);
    if (!per_frame_rate_control) return draining_ ? time : time / frame_rate_divider;
    const auto entry = std::find_if(pts_map.begin(), pts_map.end(),
                                    [time](const auto& numbers) { return numbers.second == time; });
    return entry == pts_map.end() ? UINT64_MAX : entry->first;
}

/// Pictures that the codec may hold back for reordering. Where it does not tell (libx265), assume the most
/// that B-pictures lead to here: one reference among them.
int PictureEncoder::reorder_depth() const {
    constexpr int kBPyramidDepth = 2;
    if (mpeg_context->has_b_frames > 0) return mpeg_context->has_b_frames;
    return mpeg_context->max_b_frames > 0 ? kBPyramidDepth : 0;
}

/// The picture that a unit shows. With per-frame rate control, the encoder remembers the latest 60 pictures
/// and says 0 for older ones.
int64_t PictureEncoder::source_number(int64_t pts) {
    const bool first = !std::exchange(emitted_, true);
    if (per_frame_rate_control && pts == 0 && !first)
        throw Failure(
            "the codec holds pictures back for longer than 60 pictures, and their times are lost: choose a "
            "faster \"h.264 preset\" or leave out \"constant bitrate per frame\"");
    return draining_ && !per_frame_rate_control ? pts * frame_rate_divider : pts;
}

}  // namespace gsve::encoding
