#include "programme/picture_converter.h"

#include <memory>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "encoding/error.h"

namespace gsve::programme {
namespace {

/// Formats that go to the encoder untouched. True 4:1:0 is not among them: the encoder's 4:1:0 has two luma
/// lines to a chroma line, FFmpeg's has four. 4:1:1 needs a chroma format to be encoded in: no codec has it.
bool taken_as_it_is(int format, const std::string& chroma_format) {
    return format == AV_PIX_FMT_YUV420P || format == AV_PIX_FMT_YUV422P || format == AV_PIX_FMT_YUV444P ||
           (format == AV_PIX_FMT_YUV411P && !chroma_format.empty());
}

/// What a picture is converted to: its own format where that is taken, else the chroma format that will be
/// encoded.
const char* conversion_target(int format, const std::string& chroma_format) {
    if (taken_as_it_is(format, chroma_format)) return av_get_pix_fmt_name(static_cast<AVPixelFormat>(format));
    if (chroma_format == "4:4:4") return "yuv444p";
    if (chroma_format == "4:2:2") return "yuv422p";
    return "yuv420p";
}

const char* scale_name(AVColorSpace matrix) { return matrix == AVCOL_SPC_BT709 ? "bt709" : "smpte170m"; }

/// RGB has a matrix to go by; another pixel format of YUV keeps its own. Formats that mean the full range by
/// their name would be brought into the narrow one unasked.
std::string scale_options(const ColourPlan& colour) {
    std::string options;
    if (colour.from == AVCOL_SPC_UNSPECIFIED && colour.converts_matrix())
        options += fmt::format(":out_color_matrix={}", scale_name(colour.to));
    if (colour.to_narrow_range || colour.encoded.range == AVCOL_RANGE_JPEG)
        options += fmt::format(":in_range=full:out_range={}", colour.to_narrow_range ? "limited" : "full");
    return options;
}

/// Luma and chroma of each sample through the other matrix, at the primaries and the transfer that there are.
std::string matrix_filter(const ColourPlan& colour) {
    const char* range = colour.encoded.range == AVCOL_RANGE_JPEG ? "pc" : "tv";
    const std::string matrix = fmt::format(
        "colorspace=fast=1:ispace={}:space={}:iprimaries=bt709:primaries=bt709:itrc=bt709:trc=bt709:irange={}"
        ":range={}",
        scale_name(colour.from), scale_name(colour.to), range, range);
    return colour.by_fields ? fmt::format("il=l=d:c=d,{},il=l=i:c=i", matrix) : matrix;
}

}  // namespace

PictureConverter::PictureConverter(const AVFrame& first, AVRational time_base, const Conversion& conversion)
    : rate_(time_base, conversion.frame_rate) {
    const ColourPlan& colour = conversion.colour;
    const char* target = conversion_target(first.format, conversion.chroma_format);
    const bool another_format = !taken_as_it_is(first.format, conversion.chroma_format);
    std::vector<std::string> filters;
    // libswscale knows one way only from palettes to YUV, that of BT.601.
    const AVPixFmtDescriptor* pixel = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(first.format));
    if (pixel && (pixel->flags & AV_PIX_FMT_FLAG_PAL)) filters.emplace_back("format=rgb24");
    if (another_format || colour.to_narrow_range)
        filters.push_back(fmt::format("scale=interl=-1{},format={}", scale_options(colour), target));
    if (another_format)
        notes_ = fmt::format("pictures are converted from {} to {}\n",
                             av_get_pix_fmt_name(static_cast<AVPixelFormat>(first.format)), target);
    if (colour.from != AVCOL_SPC_UNSPECIFIED) filters.push_back(matrix_filter(colour));
    if (!filters.empty()) build(fmt::format("{}", fmt::join(filters, ",")), first, conversion.frame_rate);
}

void PictureConverter::send(AVFrame& frame) {
    FramePtr taken = new_frame();
    av_frame_move_ref(taken.get(), &frame);
    rate_.put(std::move(taken));
}

int PictureConverter::receive(AVFrame& frame) {
    const FramePtr placed = rate_.take();
    if (!placed) return rate_.at_end() ? AVERROR_EOF : AVERROR(EAGAIN);
    if (!graph_) {
        av_frame_move_ref(&frame, placed.get());
        return 0;
    }
    const int sent = av_buffersrc_add_frame(in_, placed.get());
    return sent < 0 ? sent : av_buffersink_get_frame(out_, &frame);
}

void PictureConverter::build(const std::string& filters, const AVFrame& first, AVRational frame_rate) {
    graph_.reset(avfilter_graph_alloc());
    check_memory(graph_ != nullptr);
    in_ = avfilter_graph_alloc_filter(graph_.get(), avfilter_get_by_name("buffer"), "in");
    const std::unique_ptr<AVBufferSrcParameters, decltype(&av_free)> parameters(
        av_buffersrc_parameters_alloc(), av_free);
    check_memory(in_ && parameters);
    describe_frames(*parameters, first, av_inv_q(frame_rate), frame_rate);
    int error = av_buffersrc_parameters_set(in_, parameters.get());
    if (error >= 0) error = avfilter_init_str(in_, nullptr);
    if (error >= 0)
        error = avfilter_graph_create_filter(&out_, avfilter_get_by_name("buffersink"), "out", nullptr,
                                             nullptr, graph_.get());
    if (error >= 0) {
        // Seen from the description: its open input is our source's output, and the other way round.
        FilterPadsPtr outputs(avfilter_inout_alloc()), inputs(avfilter_inout_alloc());
        check_memory(outputs && inputs);
        *outputs = {av_strdup("in"), in_, 0, nullptr};
        *inputs = {av_strdup("out"), out_, 0, nullptr};
        AVFilterInOut* open_outputs = outputs.release();
        AVFilterInOut* open_inputs = inputs.release();
        error = avfilter_graph_parse_ptr(graph_.get(), filters.c_str(), &open_inputs, &open_outputs, nullptr);
        outputs.reset(open_outputs);
        inputs.reset(open_inputs);
    }
    if (error >= 0) error = avfilter_graph_config(graph_.get(), nullptr);
    if (error < 0) throw Failure(fmt::format("cannot convert the pictures: {}", av_error_text(error)));
}

}  // namespace gsve::programme
