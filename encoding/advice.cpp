#include "encoding/advice.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include <fmt/format.h>

extern "C" {
#include <libavutil/pixfmt.h>
}

#include "encoding/frame_rate.h"
#include "encoding/stuffing.h"
#include "encoding/vbv_delay.h"

namespace gsve::encoding {

std::string opening_advice(const PictureEncoder& encoder) {
    constexpr int kMostBPictures = 16;
    const bool mpeg2 = encoder.codec_id == kMpeg2, h265 = encoder.codec_id == kH265;
    const bool main_profile =
        encoder.h264_profile == "main" || (encoder.h264_profile.empty() && encoder.b_frames > 0);
    const bool interlaced = encoder.input_interlaced && encoder.resize_deinterlace < 0;
    const bool subsampled = encoder.output_chroma_shift_x > 0;
    const AVRational source = {encoder.frame_rate_num, encoder.frame_rate_den};
    const double buffer =
        encoder.buffer_size > 0 ? encoder.buffer_size : std::min(encoder.bitrate / 4, 1835008);
    const double bits_per_picture = encoder.bitrate / av_q2d(encoder.encoded_rate());
    const std::pair<bool, std::string> cases[] = {
        {h265 && !main_profile, "H.265 has the main profile: --set \"h.264 profile=main\""},
        {encoder.b_frames > kMostBPictures, "no codec takes more than 16 B-pictures: --set \"b frames=16\""},
        {encoder.resize_width > 0 && subsampled &&
             (encoder.resize_width % 2 > 0 || encoder.resize_height % 2 > 0),
         "this chroma format needs even sizes: change \"resize\", or --set \"h.264 profile=high444\""},
        {interlaced && encoder.resize_height % 4 > 0,
         "interlaced pictures need a height in multiples of 4: change \"resize\""},
        {encoder.output_pixel_format == AV_PIX_FMT_YUV411P,
         "no codec has 4:1:1: --set \"chroma format=4:2:0\""},
        {mpeg2 && buffer < bits_per_picture,
         fmt::format("MPEG-2 needs room for a picture in its buffer: --set \"buffer size={:.0f}\" --set "
                     "\"min bitrate=0\"",
                     std::ceil(bits_per_picture))},
        {mpeg2 && av_cmp_q(source, broadcast_rate(source)) != 0,
         fmt::format("MPEG-2 may not have {:.3f} pictures/s: --rate {}/{}", av_q2d(source),
                     broadcast_rate(source).num, broadcast_rate(source).den)},
        {encoder.max_bitrate >= 0 && encoder.max_bitrate < std::max(encoder.bitrate, encoder.min_bitrate),
         "\"max bitrate\" is below \"bitrate\" or \"min bitrate\": raise it"},
        {encoder.maximum_quant > 0 && encoder.minimum_quant > encoder.maximum_quant,
         "\"minimum quant\" is above \"maximum quant\": lower it"},
    };
    for (const auto& [applies, text] : cases)
        if (applies) return text;
    return "check the settings; --verbose shows what the codec says";
}

std::string long_picture_warning(const PictureEncoder& encoder) {
    const VbvDelayAdvice advice = vbv_delay_advice(encoder);
    if (!advice.needed) return "";
    return fmt::format(
        "at a constant {} bits/s a noisy picture can take more than the {:.2f} s that MPEG-2 has for it, and "
        "libavcodec then ends the program: --set \"min bitrate=0\", or --set \"buffer size={}\", or give {} "
        "bits/s",
        encoder.bitrate, kLongestVbvDelay, advice.buffer_size, advice.bitrate);
}

std::string stuffing_warning(const PictureEncoder& encoder) {
    const AVCodecContext& context = *encoder.mpeg_context;
    if (!lacks_room_for_stuffing(context)) return "";
    return fmt::format(
        "at no less than {} bits/s a still picture of {}x{} can take more stuffing than libavcodec has room "
        "for with {} {}, and libavcodec then ends the program: --set \"min bitrate=0\", or give at most {} "
        "bits/s",
        encoder.min_bitrate >= 0 ? encoder.min_bitrate : encoder.bitrate, context.width, context.height,
        context.thread_count, context.thread_count == 1 ? "thread" : "threads",
        highest_stuffed_rate(context));
}

}  // namespace gsve::encoding
