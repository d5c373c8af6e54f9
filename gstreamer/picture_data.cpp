#include "gstreamer/picture_data.h"

#include <span>
#include <stdexcept>
#include <utility>

#include "captions/cc_data.h"
#include "captions/cdp.h"
#include "captions/parity.h"
#include "encoding/timecode_track.h"

namespace gsve::gstreamer {
namespace {

using captions::FrameRate;
using captions::PictureCaptions;
using captions::Timecode;
using Bytes = std::span<const uint8_t>;

captions::Word word_at(Bytes bytes, size_t at) { return captions::make_word(bytes[at], bytes[at + 1]); }

/// Byte pairs of field 1.
PictureCaptions line_21_pairs(Bytes data) {
    PictureCaptions captions;
    for (size_t at = 0; at + 2 <= data.size(); at += 2) captions.fields[0].push_back(word_at(data, at));
    return captions;
}

/// SMPTE ST 334-1, annex A: field_number 1 (1: field 1), reserved 2, line_offset 5, then the pair.
PictureCaptions line_21_triples(Bytes data) {
    constexpr size_t kTriple = 3;
    constexpr uint8_t kField1 = 0x80;
    PictureCaptions captions;
    for (size_t at = 0; at + kTriple <= data.size(); at += kTriple)
        captions.fields[data[at] & kField1 ? 0 : 1].push_back(word_at(data, at + 1));
    return captions;
}

PictureCaptions of_packet(Bytes data, std::vector<std::string>& damage) try {
    const captions::Cdp cdp = captions::parse_cdp(data);
    for (const captions::CdpDamage& fault : cdp.damage) damage.push_back(fault.text);
    return captions::parse_cc_data(cdp.cc_data).captions;
} catch (const std::invalid_argument& error) {
    damage.emplace_back(error.what());
    return {};
}

/// The richest is the highest; 0 for what is unknown.
int richness(GstVideoCaptionType type) {
    switch (type) {
        case GST_VIDEO_CAPTION_TYPE_CEA608_RAW: return 1;
        case GST_VIDEO_CAPTION_TYPE_CEA608_S334_1A: return 2;
        case GST_VIDEO_CAPTION_TYPE_CEA708_RAW: return 3;
        case GST_VIDEO_CAPTION_TYPE_CEA708_CDP: return 4;
        default: return 0;
    }
}

PictureCaptions captions_of(const GstVideoCaptionMeta& meta, std::vector<std::string>& damage) {
    const Bytes data(meta.data, meta.size);
    switch (meta.caption_type) {
        case GST_VIDEO_CAPTION_TYPE_CEA608_RAW: return line_21_pairs(data);
        case GST_VIDEO_CAPTION_TYPE_CEA608_S334_1A: return line_21_triples(data);
        case GST_VIDEO_CAPTION_TYPE_CEA708_RAW: return captions::parse_cc_data(data).captions;
        case GST_VIDEO_CAPTION_TYPE_CEA708_CDP: return of_packet(data, damage);
        default: return {};
    }
}

void add(PictureCaptions& sum, PictureCaptions more) {
    for (int field = 0; field < captions::kFields; field++)
        sum.fields[field].insert(sum.fields[field].end(), more.fields[field].begin(),
                                 more.fields[field].end());
    sum.cea708.insert(sum.cea708.end(), more.cea708.begin(), more.cea708.end());
}

void read_captions(GstBuffer* buffer, PictureData& data) {
    int richest = 0;
    gpointer state = nullptr;
    while (GstMeta* const meta =
               gst_buffer_iterate_meta_filtered(buffer, &state, GST_VIDEO_CAPTION_META_API_TYPE)) {
        const auto& caption = *reinterpret_cast<const GstVideoCaptionMeta*>(meta);
        const int rich = richness(caption.caption_type);
        if (rich < richest || rich == 0) continue;
        if (rich > richest) data.captions = {};
        richest = rich;
        add(data.captions, captions_of(caption, data.damage));
    }
    data.has_captions = richest > 0;
}

/// A bar that is not there has 0.
std::optional<int> line(guint number) {
    return number > 0 ? std::optional(static_cast<int>(number)) : std::nullopt;
}

encoding::Bars bars_of(const GstVideoBarMeta& meta) {
    encoding::Bars bars;
    (meta.is_letterbox ? bars.top_end : bars.left_end) = line(meta.bar_data1);
    (meta.is_letterbox ? bars.bottom_begin : bars.right_begin) = line(meta.bar_data2);
    return bars;
}

void read_shape(GstBuffer* buffer, encoding::PictureShape& shape) {
    if (const GstMeta* const meta = gst_buffer_get_meta(buffer, GST_VIDEO_AFD_META_API_TYPE))
        shape.afd = reinterpret_cast<const GstVideoAFDMeta*>(meta)->afd & 0x0F;
    if (const GstMeta* const meta = gst_buffer_get_meta(buffer, GST_VIDEO_BAR_META_API_TYPE))
        shape.bars = bars_of(*reinterpret_cast<const GstVideoBarMeta*>(meta));
}

std::optional<CountedTimecode> timecode_of(GstBuffer* buffer) {
    const GstVideoTimeCodeMeta* const meta = gst_buffer_get_video_time_code_meta(buffer);
    if (!meta) return std::nullopt;
    const GstVideoTimeCode& code = meta->tc;
    CountedTimecode found;
    found.timecode = {static_cast<int>(code.hours), static_cast<int>(code.minutes),
                      static_cast<int>(code.seconds), static_cast<int>(code.frames),
                      (code.config.flags & GST_VIDEO_TIME_CODE_FLAGS_DROP_FRAME) != 0};
    if (code.config.fps_n > 0 && code.config.fps_d > 0)
        found.rate = FrameRate{static_cast<int>(code.config.fps_n), static_cast<int>(code.config.fps_d)};
    return found;
}

bool is_timecode_at(const Timecode& code, FrameRate rate) {
    const bool in_range =
        code.hours < 24 && code.minutes < 60 && code.seconds < 60 && code.frames < nominal_rate(rate);
    return in_range && (!code.drop_frame || has_drop_frame(rate)) && is_counted(code, rate);
}

}  // namespace

PictureData picture_data(GstBuffer* buffer) {
    PictureData data;
    read_captions(buffer, data);
    read_shape(buffer, data.shape);
    data.timecode = timecode_of(buffer);
    return data;
}

int field_order(const GstVideoInfo& info, GstBuffer* buffer) {
    const GstVideoInterlaceMode mode = GST_VIDEO_INFO_INTERLACE_MODE(&info);
    const bool interlaced = mode == GST_VIDEO_INTERLACE_MODE_INTERLEAVED ||
                            (mode == GST_VIDEO_INTERLACE_MODE_MIXED &&
                             GST_BUFFER_FLAG_IS_SET(buffer, GST_VIDEO_BUFFER_FLAG_INTERLACED));
    if (!interlaced) return 0;
    switch (GST_VIDEO_INFO_FIELD_ORDER(&info)) {
        case GST_VIDEO_FIELD_ORDER_TOP_FIELD_FIRST: return 1;
        case GST_VIDEO_FIELD_ORDER_BOTTOM_FIELD_FIRST: return 2;
        default: return GST_BUFFER_FLAG_IS_SET(buffer, GST_VIDEO_BUFFER_FLAG_TFF) ? 1 : 2;
    }
}

/// At the counting rate.
Timecode TimecodeFollower::counted(int64_t number) const {
    const auto frames = static_cast<int64_t>(
        gst_util_uint64_scale(static_cast<guint64>(number - anchored_at_),
                              static_cast<guint64>(counting_.num) * static_cast<guint64>(source_.den),
                              static_cast<guint64>(counting_.den) * static_cast<guint64>(source_.num)));
    return captions::TimecodeCounter(*anchor_, counting_).at(frames);
}

std::optional<captions::GopTimecode> TimecodeFollower::next(int64_t number,
                                                            const std::optional<CountedTimecode>& found) {
    if (found) {
        const FrameRate rate = found->rate.value_or(source_);
        const bool goes_on = anchor_ && rate == counting_ && counted(number) == found->timecode;
        if (!goes_on && is_timecode_at(found->timecode, rate)) {
            anchor_ = found->timecode;
            counting_ = rate;
            anchored_at_ = number;
        }
    }
    if (!anchor_) return std::nullopt;
    const encoding::TimecodeTrack track(
        *anchor_, {.counting = counting_, .source = source_, .encoded = encoded_, .divider = divider_});
    return captions::gop_timecode(track.at((number - anchored_at_) / divider_));
}

}  // namespace gsve::gstreamer
