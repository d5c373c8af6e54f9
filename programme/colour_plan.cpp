#include "programme/colour_plan.h"

#include <fmt/format.h>

#include "encoding/error.h"

namespace gsve::programme {
namespace {

using encoding::Colour;
using encoding::PictureSize;

bool is_high_definition(PictureSize size) { return size.width > 1024 || size.height > 576; }

bool is_bt601(AVColorSpace matrix) { return matrix == AVCOL_SPC_SMPTE170M || matrix == AVCOL_SPC_BT470BG; }

/// Of a picture that is not tagged. BT.601 has two names for one matrix: one of 525 lines, one of 625.
AVColorSpace usual_matrix(PictureSize size) {
    if (is_high_definition(size)) return AVCOL_SPC_BT709;
    return size.height == 576 || size.height == 288 ? AVCOL_SPC_BT470BG : AVCOL_SPC_SMPTE170M;
}

const char* name_of(AVColorSpace matrix) { return matrix == AVCOL_SPC_BT709 ? "BT.709" : "BT.601"; }

bool is_rgb(const AVFrame& frame) {
    const AVPixFmtDescriptor* pixel = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
    return pixel && (pixel->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL));
}

bool has_full_range(const AVFrame& frame) {
    switch (frame.format) {
        case AV_PIX_FMT_YUVJ420P:
        case AV_PIX_FMT_YUVJ422P:
        case AV_PIX_FMT_YUVJ444P:
        case AV_PIX_FMT_YUVJ440P:
        case AV_PIX_FMT_YUVJ411P: return true;
        default: return frame.color_range == AVCOL_RANGE_JPEG && !is_rgb(frame);
    }
}

/// RGB has its matrix from the conversion, and its range.
Colour colour_of_rgb(const AVFrame& frame, PictureSize output) {
    Colour colour = colour_of(frame);
    colour.matrix = usual_matrix(output);
    colour.range = AVCOL_RANGE_MPEG;
    return colour;
}

}  // namespace

Colour colour_of(const AVFrame& frame) {
    return {.primaries = frame.color_primaries,
            .transfer = frame.color_trc,
            // What is no RGB by its samples is none by its tag.
            .matrix = frame.colorspace == AVCOL_SPC_RGB ? AVCOL_SPC_UNSPECIFIED : frame.colorspace,
            .range = has_full_range(frame) ? AVCOL_RANGE_JPEG : frame.color_range,
            .chroma_location = frame.chroma_location};
}

const char* high_dynamic_range(const AVFrame& frame) {
    switch (frame.color_trc) {
        case AVCOL_TRC_SMPTE2084: return "PQ";
        case AVCOL_TRC_ARIB_STD_B67: return "HLG";
        default: return nullptr;
    }
}

ColourPlan plan_colour(const AVFrame& first, const ColourWish& wish) {
    if (const char* name = high_dynamic_range(first))
        throw UsageError(
            fmt::format("the picture has high dynamic range ({}), which 8 bits do not hold: bring it to "
                        "BT.709 first, for example "
                        "with FFmpeg's filters zscale and tonemap",
                        name));
    const PictureSize source = {first.width, first.height};
    ColourPlan plan;
    if (is_rgb(first)) {
        plan.encoded = colour_of_rgb(first, wish.output);
        plan.to = plan.encoded.matrix;
        return plan;
    }
    plan.encoded = colour_of(first);
    if (wish.narrow_range_only) plan.encoded.chroma_location = AVCHROMA_LOC_LEFT;  // MPEG-2 has no other
    if (plan.encoded.range == AVCOL_RANGE_JPEG && wish.narrow_range_only) {
        plan.to_narrow_range = true;
        plan.encoded.range = AVCOL_RANGE_MPEG;
        plan.notes +=
            "sample values are brought from the full range into the narrow one, the only one that MPEG-2 "
            "has\n";
    }
    if (is_high_definition(source) == is_high_definition(wish.output)) return plan;

    const AVColorSpace from =
        plan.encoded.matrix == AVCOL_SPC_UNSPECIFIED ? usual_matrix(source) : plan.encoded.matrix;
    const AVColorSpace to = usual_matrix(wish.output);
    const bool same = from == to || (is_bt601(from) && is_bt601(to));
    const bool known = from == AVCOL_SPC_BT709 || is_bt601(from);
    if (same || !known) return plan;
    if (wish.keep) {
        plan.encoded.matrix = from;
        return plan;
    }
    plan.from = from;
    plan.by_fields = wish.interlaced && first.height % 4 == 0;
    plan.to = plan.encoded.matrix = to;
    plan.notes += fmt::format(
        "sample values are converted from {} to {}, which is {}'s; --colour keep leaves them as they are\n",
        name_of(from), name_of(to),
        is_high_definition(wish.output) ? "high definition" : "standard definition");
    return plan;
}

}  // namespace gsve::programme
