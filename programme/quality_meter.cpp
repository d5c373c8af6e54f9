#include "programme/quality_meter.h"

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <utility>

#include <fmt/format.h>

#include "encoding/error.h"

namespace gsve::programme {
namespace {

// The pictures are matched by their numbers, which stand for times.
constexpr AVRational kNumbers = {1, 25};

/// What a filter says of a frame; "inf" is a number, too.
double number_in(const AVFrame& frame, const char* key) {
    const AVDictionaryEntry* entry = av_dict_get(frame.metadata, key, nullptr, 0);
    return entry ? std::strtod(entry->value, nullptr) : 0;
}

[[noreturn]] void fail_to_measure(int error) {
    throw Failure(fmt::format("cannot measure the quality: {}; leave --quality out", av_error_text(error)));
}

void check(int result) {
    if (result < 0) fail_to_measure(result);
}

}  // namespace

QualityMeter::QualityMeter(encoding::PictureEncoder& encoder) {
    const AVCodec* codec = avcodec_find_decoder(encoder.mpeg_context->codec_id);
    if (!codec) fail_to_measure(AVERROR_DECODER_NOT_FOUND);
    decoder_.reset(avcodec_alloc_context3(codec));
    check_memory(decoder_ != nullptr);
    if (const std::vector<uint8_t> headers = encoder.parameter_sets(); !headers.empty()) {
        decoder_->extradata =
            static_cast<uint8_t*>(av_mallocz(headers.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        check_memory(decoder_->extradata != nullptr);
        std::memcpy(decoder_->extradata, headers.data(), headers.size());
        decoder_->extradata_size = static_cast<int>(headers.size());
    }
    decoder_->pkt_timebase = kNumbers;
    check(avcodec_open2(decoder_.get(), codec, nullptr));
    constexpr size_t kWaiting = 4;
    thread_ = std::make_unique<Behind<Work>>(
        kWaiting, [this](Work what) { work(std::move(what)); }, [] {});
}

void QualityMeter::given(const AVFrame& picture, uint64_t number) {
    FramePtr copy = new_frame();
    copy->format = picture.format;
    copy->width = picture.width;
    copy->height = picture.height;
    check_memory(av_frame_get_buffer(copy.get(), 0) >= 0 && av_frame_copy(copy.get(), &picture) >= 0);
    copy->pts = static_cast<int64_t>(number);
    thread_->put({.given = std::move(copy), .coded = nullptr});
}

void QualityMeter::unit(const encoding::EncodedUnit& unit) {
    PacketPtr packet = new_packet();
    check_memory(av_new_packet(packet.get(), static_cast<int>(unit.bytes.size())) >= 0);
    std::memcpy(packet->data, unit.bytes.data(), unit.bytes.size());
    packet->pts = unit.pts;
    packet->dts = unit.dts;
    if (unit.key) packet->flags |= AV_PKT_FLAG_KEY;
    thread_->put({.given = nullptr, .coded = std::move(packet)});
}

std::vector<PictureQuality> QualityMeter::finish() {
    thread_->finish();
    decode_held();
    decode(nullptr);
    return std::move(pictures_);
}

/// A unit may leave while its picture is pushed, which then is told of later. Each unit therefore waits for
/// the next one.
void QualityMeter::work(Work what) {
    if (what.given) {
        const int64_t number = what.given->pts;
        given_[number] = std::move(what.given);
        return;
    }
    decode_held();
    held_ = std::move(what.coded);
}

void QualityMeter::decode_held() {
    if (held_) decode(held_.get());
    held_.reset();
}

/// Null: there is no unit any more.
void QualityMeter::decode(const AVPacket* coded) {
    const int sent = avcodec_send_packet(decoder_.get(), coded);
    if (sent < 0 && sent != AVERROR_INVALIDDATA) fail_to_measure(sent);
    for (;; av_frame_unref(decoded_.get())) {
        const int result = avcodec_receive_frame(decoder_.get(), decoded_.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return;
        if (result == AVERROR_INVALIDDATA) continue;
        check(result);
        const auto given = given_.find(decoded_->pts);
        if (given == given_.end()) continue;
        compare(*decoded_, *given->second);
        given_.erase(given_.begin(), std::next(given));
    }
}

void QualityMeter::compare(AVFrame& decoded, AVFrame& given) {
    if (!graph_) build(given);
    // What both say of their samples' meaning is not compared.
    decoded.color_range = given.color_range;
    decoded.colorspace = given.colorspace;
    const int64_t number = given.pts;
    check(av_buffersrc_add_frame(in_[0], &decoded));
    check(av_buffersrc_add_frame(in_[1], &given));
    const FramePtr measured = new_frame();
    check(av_buffersink_get_frame(out_, measured.get()));
    pictures_.push_back({.number = number,
                         .psnr = number_in(*measured, "lavfi.psnr.psnr_avg"),
                         .ssim = number_in(*measured, "lavfi.ssim.All")});
}

void QualityMeter::build(const AVFrame& first) {
    graph_.reset(avfilter_graph_alloc());
    check_memory(graph_ != nullptr);
    const auto create = [&](const char* filter, const char* name) {
        AVFilterContext* made = nullptr;
        check(avfilter_graph_create_filter(&made, avfilter_get_by_name(filter), name, nullptr, nullptr,
                                           graph_.get()));
        return made;
    };
    for (AVFilterContext*& in : in_) {
        in = avfilter_graph_alloc_filter(graph_.get(), avfilter_get_by_name("buffer"),
                                         &in == in_ ? "decoded" : "given");
        const std::unique_ptr<AVBufferSrcParameters, decltype(&av_free)> parameters(
            av_buffersrc_parameters_alloc(), av_free);
        check_memory(in && parameters);
        describe_frames(*parameters, first, kNumbers, {25, 1});
        check(av_buffersrc_parameters_set(in, parameters.get()));
        check(avfilter_init_str(in, nullptr));
    }
    AVFilterContext* const split = create("split", "split");
    AVFilterContext* const psnr = create("psnr", "psnr");
    AVFilterContext* const ssim = create("ssim", "ssim");
    out_ = create("buffersink", "out");
    check(avfilter_link(in_[1], 0, split, 0));
    check(avfilter_link(in_[0], 0, psnr, 0));
    check(avfilter_link(split, 0, psnr, 1));
    check(avfilter_link(psnr, 0, ssim, 0));
    check(avfilter_link(split, 1, ssim, 1));
    check(avfilter_link(ssim, 0, out_, 0));
    check(avfilter_graph_config(graph_.get(), nullptr));
}

}  // namespace gsve::programme
