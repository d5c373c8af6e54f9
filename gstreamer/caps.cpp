#include "gstreamer/caps.h"

#include <gst/pbutils/codec-utils.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

extern "C" {
#include <libavutil/pixfmt.h>
}

#include "encoding/start_codes.h"

namespace gsve::gstreamer {

const char* const kSrcCaps =
    "video/mpeg, mpegversion = (int) 2, systemstream = (boolean) false, parsed = (boolean) true, "
    "width = (int) [ 1, MAX ], height = (int) [ 1, MAX ], framerate = (fraction) [ 0/1, MAX ]; "
    "video/x-h264, stream-format = (string) byte-stream, alignment = (string) au, "
    "width = (int) [ 1, MAX ], height = (int) [ 1, MAX ], framerate = (fraction) [ 0/1, MAX ]; "
    "video/x-h265, stream-format = (string) byte-stream, alignment = (string) au, "
    "width = (int) [ 1, MAX ], height = (int) [ 1, MAX ], framerate = (fraction) [ 0/1, MAX ]";

namespace {

struct CodecCaps {
    int codec_id;
    const char* setting;
    const char* media_type;
    const char* caps;
};

constexpr CodecCaps kCodecs[] = {
    {encoding::kMpeg2, "mpeg-2", "video/mpeg", "video/mpeg, mpegversion=2, systemstream=false, parsed=true"},
    {encoding::kH264, "h.264", "video/x-h264", "video/x-h264, stream-format=byte-stream, alignment=au"},
    {encoding::kH265, "h.265", "video/x-h265", "video/x-h265, stream-format=byte-stream, alignment=au"},
};

/// The first structure for the codec; null: there is none.
const GstStructure* structure_for(const GstCaps* caps, std::string_view codec) {
    for (guint n = 0; n < gst_caps_get_size(caps); n++) {
        const GstStructure* const structure = gst_caps_get_structure(caps, n);
        for (const CodecCaps& known : kCodecs)
            if (codec == known.setting && gst_structure_has_name(structure, known.media_type))
                return structure;
    }
    return nullptr;
}

/// What a field may be; empty: anything.
std::vector<std::string> texts(const GstStructure* structure, const char* field) {
    const GValue* value = structure ? gst_structure_get_value(structure, field) : nullptr;
    std::vector<std::string> texts;
    const auto add = [&](const GValue* one) {
        if (one && G_VALUE_HOLDS_STRING(one)) texts.emplace_back(g_value_get_string(one));
    };
    if (value && GST_VALUE_HOLDS_LIST(value))
        for (guint n = 0; n < gst_value_list_get_size(value); n++) add(gst_value_list_get_value(value, n));
    else
        add(value);
    return texts;
}

/// GStreamer's code point and FFmpeg's are both those of ITU-T H.273.
encoding::Colour colour_of(const GstVideoInfo& info) {
    const GstVideoColorimetry& c = info.colorimetry;
    encoding::Colour colour;
    if (c.primaries != GST_VIDEO_COLOR_PRIMARIES_UNKNOWN)
        colour.primaries = static_cast<AVColorPrimaries>(gst_video_color_primaries_to_iso(c.primaries));
    if (c.transfer != GST_VIDEO_TRANSFER_UNKNOWN)
        colour.transfer =
            static_cast<AVColorTransferCharacteristic>(gst_video_transfer_function_to_iso(c.transfer));
    if (c.matrix != GST_VIDEO_COLOR_MATRIX_UNKNOWN)
        colour.matrix = static_cast<AVColorSpace>(gst_video_color_matrix_to_iso(c.matrix));
    if (c.range == GST_VIDEO_COLOR_RANGE_0_255) colour.range = AVCOL_RANGE_JPEG;
    if (c.range == GST_VIDEO_COLOR_RANGE_16_235) colour.range = AVCOL_RANGE_MPEG;
    switch (GST_VIDEO_INFO_CHROMA_SITE(&info)) {
        case GST_VIDEO_CHROMA_SITE_JPEG: colour.chroma_location = AVCHROMA_LOC_CENTER; break;
        case GST_VIDEO_CHROMA_SITE_H_COSITED: colour.chroma_location = AVCHROMA_LOC_LEFT; break;
        case GST_VIDEO_CHROMA_SITE_V_COSITED: colour.chroma_location = AVCHROMA_LOC_TOP; break;
        case GST_VIDEO_CHROMA_SITE_COSITED: colour.chroma_location = AVCHROMA_LOC_TOPLEFT; break;
        default: break;
    }
    return colour;
}

/// ISO/IEC 13818-2, 8: escape_bit 1, profile 3, level 4.
void tell_mpeg2_profile(GstCaps* caps, std::span<const uint8_t> unit) {
    struct Name {
        int code;
        const char* text;
    };
    constexpr Name kProfiles[] = {{1, "high"}, {2, "spatial"}, {3, "snr"}, {4, "main"}, {5, "simple"}};
    constexpr Name kLevels[] = {{4, "high"}, {6, "high-1440"}, {8, "main"}, {10, "low"}};
    constexpr Name kEscapedLevels[] = {{2, "high"}, {5, "main"}};  // of the 4:2:2 profile
    constexpr uint8_t kExtension = 0xB5, kSequenceExtension = 1;
    const auto tell = [caps](const char* field, std::span<const Name> names, int code) {
        for (const Name& name : names)
            if (name.code == code) gst_caps_set_simple(caps, field, G_TYPE_STRING, name.text, nullptr);
    };
    for (const encoding::Section& section : encoding::sections(unit)) {
        const auto bytes = section.bytes;
        if (bytes.size() < 3 || bytes[0] != kExtension || bytes[1] >> 4 != kSequenceExtension) continue;
        const int indication = (bytes[1] & 0x0F) << 4 | bytes[2] >> 4;
        const bool escaped = indication & 0x80;
        if (escaped) gst_caps_set_simple(caps, "profile", G_TYPE_STRING, "4:2:2", nullptr);
        if (!escaped) tell("profile", kProfiles, indication >> 4);
        tell("level", escaped ? std::span<const Name>(kEscapedLevels) : kLevels, indication & 0x0F);
        return;
    }
}

void tell_h264_profile(GstCaps* caps, std::span<const uint8_t> unit) {
    constexpr int kParameterSet = 7;
    constexpr guint kProfileAndLevel = 3;
    for (const encoding::Section& nal : encoding::nal_units(unit)) {
        if ((nal.bytes[0] & 0x1F) != kParameterSet) continue;
        const std::vector<uint8_t> rbsp = encoding::rbsp_of(nal.bytes, 1);
        if (rbsp.size() >= kProfileAndLevel)
            gst_codec_utils_h264_caps_set_level_and_profile(caps, rbsp.data(), kProfileAndLevel);
        return;
    }
}

void tell_h265_profile(GstCaps* caps, std::span<const uint8_t> unit) {
    constexpr int kParameterSet = 33;
    constexpr size_t kBefore = 1;  // sps_video_parameter_set_id, sps_max_sub_layers_minus1, the nesting flag
    constexpr guint kProfileTierLevel = 12;
    for (const encoding::Section& nal : encoding::nal_units(unit)) {
        if ((nal.bytes[0] >> 1 & 0x3F) != kParameterSet) continue;
        const std::vector<uint8_t> rbsp = encoding::rbsp_of(nal.bytes, 2);
        if (rbsp.size() >= kBefore + kProfileTierLevel)
            gst_codec_utils_h265_caps_set_level_tier_and_profile(caps, rbsp.data() + kBefore,
                                                                 kProfileTierLevel);
        return;
    }
}

}  // namespace

std::string codec_for(const GstCaps* downstream, const std::string& wanted) {
    for (guint n = 0; n < gst_caps_get_size(downstream); n++)
        for (const CodecCaps& codec : kCodecs)
            if (gst_structure_has_name(gst_caps_get_structure(downstream, n), codec.media_type) &&
                (wanted.empty() || wanted == codec.setting))
                return codec.setting;
    return "";
}

std::string profile_asked(const GstCaps* downstream, const std::string& codec) {
    constexpr struct {
        std::string_view codec, profile, setting;
    } kProfiles[] = {
        {"h.264", "constrained-baseline", "baseline"},
        {"h.264", "baseline", "baseline"},
        {"h.264", "main", "main"},
        {"h.264", "high", "high"},
        {"h.264", "high-10", "high10"},
        {"h.264", "high-4:2:2", "high422"},
        {"h.264", "high-4:4:4", "high444"},
        {"h.265", "main", "main"},
    };
    // Of several, main, which has room for B-pictures and fields; else the first.
    std::vector<std::string> asked = texts(structure_for(downstream, codec), "profile");
    std::ranges::stable_partition(asked, [](const std::string& profile) { return profile == "main"; });
    for (const std::string& profile : asked)
        for (const auto& known : kProfiles)
            if (known.codec == codec && known.profile == profile) return std::string(known.setting);
    return "";
}

/// Of several, the codec takes what the pictures need; where that is none of them, negotiation tells.
std::string level_asked(const GstCaps* downstream, const std::string& codec) {
    const std::vector<std::string> asked = texts(structure_for(downstream, codec), "level");
    return codec == "h.264" && asked.size() == 1 ? asked.front() : "";
}

AVRational frame_rate_of(const GstVideoInfo& info) {
    constexpr AVRational kUsual = {25, 1};
    const bool open = GST_VIDEO_INFO_FPS_N(&info) <= 0 || GST_VIDEO_INFO_FPS_D(&info) <= 0;
    return open ? kUsual : AVRational{GST_VIDEO_INFO_FPS_N(&info), GST_VIDEO_INFO_FPS_D(&info)};
}

encoding::SourceDescription source_of(const GstVideoInfo& info) {
    encoding::SourceDescription source;
    source.width = GST_VIDEO_INFO_WIDTH(&info);
    source.height = GST_VIDEO_INFO_HEIGHT(&info);
    source.chroma_shift_x = GST_VIDEO_FORMAT_INFO_W_SUB(info.finfo, GST_VIDEO_COMP_U);
    source.chroma_shift_y = GST_VIDEO_FORMAT_INFO_H_SUB(info.finfo, GST_VIDEO_COMP_U);
    source.frame_rate = frame_rate_of(info);
    source.interlaced = GST_VIDEO_INFO_IS_INTERLACED(&info);
    source.colour = colour_of(info);
    return source;
}

AVRational display_aspect(const GstVideoInfo& info) {
    gint num = 0, den = 0;
    const bool known = gst_util_fraction_multiply(GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info),
                                                  std::max(GST_VIDEO_INFO_PAR_N(&info), 1),
                                                  std::max(GST_VIDEO_INFO_PAR_D(&info), 1), &num, &den);
    return known ? AVRational{num, den} : AVRational{4, 3};
}

CapsPtr stream_caps(int codec_id, std::span<const uint8_t> first_unit) {
    for (const CodecCaps& codec : kCodecs) {
        if (codec.codec_id != codec_id) continue;
        CapsPtr caps(gst_caps_from_string(codec.caps));
        if (codec_id == encoding::kMpeg2) tell_mpeg2_profile(caps.get(), first_unit);
        if (codec_id == encoding::kH264) tell_h264_profile(caps.get(), first_unit);
        if (codec_id == encoding::kH265) tell_h265_profile(caps.get(), first_unit);
        return caps;
    }
    return nullptr;
}

void call_by_profile_taken(GstCaps* caps, const GstCaps* downstream) {
    // Each is a part of the next one.
    constexpr std::string_view kAscending[] = {"constrained-baseline", "main",      "high", "high-10",
                                               "high-4:2:2",           "high-4:4:4"};
    GstStructure* const structure = gst_caps_get_structure(caps, 0);
    const gchar* const profile = gst_structure_get_string(structure, "profile");
    if (!profile || gst_caps_can_intersect(caps, downstream)) return;
    const std::string own = profile;
    auto candidate = std::ranges::find(kAscending, own);
    if (candidate == std::end(kAscending)) return;
    std::vector<std::string> higher(candidate + 1, std::end(kAscending));
    if (own == kAscending[0]) higher.insert(higher.begin(), "baseline");
    for (const std::string& name : higher) {
        gst_structure_set(structure, "profile", G_TYPE_STRING, name.c_str(), nullptr);
        if (gst_caps_can_intersect(caps, downstream)) return;
    }
    gst_structure_set(structure, "profile", G_TYPE_STRING, own.c_str(), nullptr);
}

void describe_output(GstVideoInfo& info, const encoding::PictureEncoder& encoder) {
    const AVRational display = display_aspect(info);
    const AVRational rate = encoder.encoded_rate();
    info.fps_n = rate.num;
    info.fps_d = rate.den;
    if (encoder.output_width != info.width || encoder.output_height != info.height) {
        info.width = encoder.output_width;
        info.height = encoder.output_height;
        gst_util_fraction_multiply(display.num, display.den, info.height, info.width, &info.par_n,
                                   &info.par_d);
    }
    if (encoder.resize_deinterlace >= 0) info.interlace_mode = GST_VIDEO_INTERLACE_MODE_PROGRESSIVE;
}

}  // namespace gsve::gstreamer
