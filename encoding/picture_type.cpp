#include "encoding/picture_type.h"

#include <string_view>

#include <orb_utils_v4/mpeg12_video.h>

namespace gsve::encoding {

std::optional<Mpeg2PictureHeader> mpeg2_picture_header(std::span<const uint8_t> unit) {
    constexpr std::string_view kLetters = "?IPB";
    const uint8_t* header = nullptr;
    const int type = mpeg2_get_frame_type(unit.data(), unit.size(), &header);
    if (type == 0) return std::nullopt;
    return Mpeg2PictureHeader{kLetters[static_cast<size_t>(type & 3)], header[4] << 2 | header[5] >> 6};
}

PictureTypeReader::PictureTypeReader(const AVCodecContext& encoder) : codec_(encoder.codec_id) {
    if (codec_ == AV_CODEC_ID_MPEG2VIDEO) return;
    parser_.reset(av_parser_init(codec_));
    context_.reset(avcodec_alloc_context3(nullptr));
    ParametersPtr parameters(avcodec_parameters_alloc());
    check_memory(parser_ && context_ && parameters);
    check_memory(avcodec_parameters_from_context(parameters.get(), &encoder) >= 0);
    check_memory(avcodec_parameters_to_context(context_.get(), parameters.get()) >=
                 0);  // with its parameter sets
    parser_->flags |= PARSER_FLAG_COMPLETE_FRAMES;
}

char PictureTypeReader::type(std::span<const uint8_t> unit) {
    if (codec_ == AV_CODEC_ID_MPEG2VIDEO) {
        const std::optional<Mpeg2PictureHeader> header = mpeg2_picture_header(unit);
        return header ? header->type : '?';
    }
    uint8_t* out = nullptr;
    int out_size{};
    parser_->pict_type = AV_PICTURE_TYPE_NONE;
    av_parser_parse2(parser_.get(), context_.get(), &out, &out_size, unit.data(),
                     static_cast<int>(unit.size()), AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
    return av_get_picture_type_char(static_cast<AVPictureType>(parser_->pict_type));
}

}  // namespace gsve::encoding
