#include <algorithm>
#include <cstring>

#include <fmt/format.h>

#include "encoding/error.h"
#include "programme/stream_converter.h"

namespace gsve::programme {
namespace {

constexpr AVRational kMilliseconds = {1, 1000};

/// Subtitles of text: each packet is a title with its time and duration.
class TextConverter final : public StreamConverter {
public:
    TextConverter(const AVStream& source, const std::string& codec);

    const AVCodecParameters& form() const override { return *form_; }
    AVRational time_base() const override { return source_.time_base; }
    std::vector<PacketPtr> convert(const AVPacket* packet) override;
    uint64_t refused() const override { return refused_; }

private:
    const AVStream& source_;
    CodecContextPtr decoder_;
    CodecContextPtr encoder_;
    ParametersPtr form_;
    uint64_t refused_ = 0;
};

TextConverter::TextConverter(const AVStream& source, const std::string& codec) : source_(source) {
    const auto fail = [&](int error) {
        throw Failure(fmt::format("stream {} cannot be converted to {}: {}; --streams leaves it out",
                                  source.index, codec, av_error_text(error)));
    };
    const AVCodec* from = avcodec_find_decoder(source.codecpar->codec_id);
    decoder_.reset(avcodec_alloc_context3(from));
    check_memory(decoder_ && avcodec_parameters_to_context(decoder_.get(), source.codecpar) >= 0);
    decoder_->pkt_timebase = source.time_base;
    if (const int error = avcodec_open2(decoder_.get(), from, nullptr); error < 0) fail(error);

    const AVCodec* to = avcodec_find_encoder_by_name(codec.c_str());
    if (!to) fail(AVERROR_ENCODER_NOT_FOUND);
    encoder_.reset(avcodec_alloc_context3(to));
    check_memory(encoder_ != nullptr);
    encoder_->time_base = kMilliseconds;
    // The style in which every decoder gives its titles.
    if (decoder_->subtitle_header) {
        const auto size = static_cast<size_t>(decoder_->subtitle_header_size);
        encoder_->subtitle_header = static_cast<uint8_t*>(av_mallocz(size + 1));
        check_memory(encoder_->subtitle_header != nullptr);
        std::memcpy(encoder_->subtitle_header, decoder_->subtitle_header, size);
        encoder_->subtitle_header_size = decoder_->subtitle_header_size;
    }
    if (const int error = avcodec_open2(encoder_.get(), to, nullptr); error < 0) fail(error);
    form_.reset(avcodec_parameters_alloc());
    check_memory(form_ && avcodec_parameters_from_context(form_.get(), encoder_.get()) >= 0);
}

std::vector<PacketPtr> TextConverter::convert(const AVPacket* packet) {
    std::vector<PacketPtr> packets;
    if (!packet || packet->size == 0) return packets;
    AVSubtitle title = {};
    int complete = 0;
    const PacketPtr copy = new_packet();
    check_memory(av_packet_ref(copy.get(), packet) >= 0);
    if (avcodec_decode_subtitle2(decoder_.get(), &title, &complete, copy.get()) < 0 || !complete) {
        refused_++;
        return packets;
    }
    constexpr int kLargest = 64 << 10;
    PacketPtr converted = new_packet();
    const bool has_room = av_new_packet(converted.get(), kLargest) >= 0;
    const int size = has_room ? avcodec_encode_subtitle(encoder_.get(), converted->data, kLargest, &title)
                              : AVERROR(ENOMEM);
    avsubtitle_free(&title);
    check_memory(has_room);
    if (size < 0) {
        refused_++;
        return packets;
    }
    av_shrink_packet(converted.get(), size);
    converted->pts = packet->pts;
    converted->dts = packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts;
    converted->duration = packet->duration;
    converted->flags |= AV_PKT_FLAG_KEY;
    packets.push_back(std::move(converted));
    return packets;
}

}  // namespace

std::unique_ptr<StreamConverter> convert_text(const AVStream& source, const std::string& codec) {
    return std::make_unique<TextConverter>(source, codec);
}

}  // namespace gsve::programme
