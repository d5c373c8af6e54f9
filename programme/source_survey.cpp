#include "programme/source_survey.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <span>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>

extern "C" {
#include <libavutil/adler32.h>
}

#include "encoding/coded_unit.h"
#include "encoding/error.h"
#include "programme/content_hash.h"

namespace gsve::programme {
namespace {

/// Of the pictures as they are coded.
class PictureHash {
public:
    void add(const AVPacket& packet) {
        const uint32_t sum = av_adler32_update(1, packet.data, static_cast<unsigned>(packet.size));
        hash_.add(fmt::format("{} {} {} {}\n", packet.pts, packet.dts, packet.size, sum));
    }

    std::string finish() { return hash_.finish(); }

private:
    ContentHash hash_;
};

/// The frames of a stream as its packets tell of them.
class FrameList {
public:
    explicit FrameList(const Input& input)
        : codec_(input.container().streams[input.plan().video]->codecpar->codec_id),
          wants_captions_(input.caption_form().has_value()),
          parser_(av_parser_init(codec_), av_parser_close),
          context_(avcodec_alloc_context3(nullptr)) {
        check_memory(context_ &&
                     avcodec_parameters_to_context(
                         context_.get(), input.container().streams[input.plan().video]->codecpar) >= 0);
        if (parser_) parser_->flags |= PARSER_FLAG_COMPLETE_FRAMES;
        if (!parser_) why_not_ = "its coded pictures do not tell how long they are shown";
    }

    void packet(const AVPacket& packet) {
        if (!why_not_.empty()) return;
        if (packet.pts == AV_NOPTS_VALUE) return give_up("not every picture has a time");
        uint8_t* parsed = nullptr;
        int size = 0;
        av_parser_parse2(parser_.get(), context_.get(), &parsed, &size, packet.data, packet.size, packet.pts,
                         packet.dts, packet.pos);
        const bool told = parser_->picture_structure != AV_PICTURE_STRUCTURE_UNKNOWN;
        constexpr int kOneFrame = 1;  // as parsers count: fields after the first
        if (told &&
            (parser_->picture_structure != AV_PICTURE_STRUCTURE_FRAME || parser_->repeat_pict != kOneFrame))
            return give_up("its pictures are fields, or shown for three of them");
        frames_.push_back({packet.pts, wants_captions_ ? cc_data(packet) : std::vector<uint8_t>()});
    }

    /// In the order of display.
    std::vector<std::pair<int64_t, std::vector<uint8_t>>> take() {
        std::stable_sort(frames_.begin(), frames_.end(),
                         [](const auto& a, const auto& b) { return a.first < b.first; });
        return std::move(frames_);
    }

    const std::string& why_not() const { return why_not_; }

private:
    void give_up(const char* why) {
        why_not_ = why;
        frames_.clear();
    }

    std::vector<uint8_t> cc_data(const AVPacket& packet) {
        const std::span<const uint8_t> unit = bytes_of(packet);
        if (!encoding::is_mpeg_video(codec_)) return encoding::nal_cc_data(unit);
        const encoding::UnitCaptions captions = encoding::read_unit(codec_, unit, false).captions;
        if (captions.scte20 || captions.cc) give_up("its captions are not, or not only, those of A/53");
        return captions.cc_data.value_or(std::vector<uint8_t>());
    }

    AVCodecID codec_;
    bool wants_captions_;
    std::unique_ptr<AVCodecParserContext, decltype(&av_parser_close)> parser_;
    CodecContextPtr context_;
    std::vector<std::pair<int64_t, std::vector<uint8_t>>> frames_;
    std::string why_not_;
};

/// As the decoder would give it, as far as captions and time go.
FramePtr frame_of(int64_t time, const std::vector<uint8_t>& cc_data) {
    FramePtr frame = new_frame();
    frame->pts = time;
    if (cc_data.empty()) return frame;
    AVFrameSideData* side = av_frame_new_side_data(frame.get(), AV_FRAME_DATA_A53_CC, cc_data.size());
    check_memory(side != nullptr);
    std::memcpy(side->data, cc_data.data(), cc_data.size());
    return frame;
}

void count_frames(SourceSurvey& survey, FrameList& list, const Input& input) {
    const AVStream& stream = *input.container().streams[input.plan().video];
    const AVRational rate = input.own_rate();
    std::optional<CaptionCollector> captions;
    if (input.caption_form())
        captions.emplace(input.caption_form(), stream.codecpar->codec_id, rate, stream.time_base);
    int64_t end = 0;
    for (const auto& [pts, cc_data] : list.take()) {
        const int64_t time = pts - input.first_time();
        if (time < 0) continue;  // pictures in front of the first that can be decoded
        if (captions) captions->frame(*frame_of(time, cc_data));
        end = time + av_rescale_q(2, {rate.den, 2 * rate.num}, stream.time_base);
    }
    survey.pictures =
        static_cast<uint64_t>(av_rescale_q(end, stream.time_base, av_inv_q(input.format().frame_rate)));
    if (!captions) return;
    survey.captions = captions->take();
    survey.parity = captions->parity_damage();
}

void decode_frames(SourceSurvey& survey, const std::string& path, const InputOptions& options,
                   const StopRequest& stop) {
    Input input(path, options, stop);
    const auto take = [&] {
        std::vector<SourceCaptions> captions = input.take_captions();
        std::move(captions.begin(), captions.end(), std::back_inserter(survey.captions));
        input.take_packets();
    };
    input.on_packets(take);
    input.work_in_threads();
    while (input.next()) {
        survey.pictures++;
        take();
    }
    take();
    survey.parity = input.parity_damage();
    if (!input.problem().empty()) throw Failure(input.problem());
}

}  // namespace

SourceSurvey survey(const std::string& path, const InputOptions& options, const Input& input,
                    const StopRequest& stop) {
    SourceSurvey survey;
    PictureHash hash;
    FrameList list(input);
    std::optional<CaptionFormFilter> filter;
    const AVCodecID codec = input.container().streams[input.plan().video]->codecpar->codec_id;
    if (encoding::is_mpeg_video(codec) && input.caption_form()) filter.emplace();
    survey.index = index_keys(path, options.choice, options.longest_repeat, [&](AVPacket& packet) {
        hash.add(packet);
        if (filter) filter->filter(codec, packet);
        list.packet(packet);
    });
    survey.hash = hash.finish();
    survey.decoded_since = survey.index.keys.empty() ? survey.index.why_none : list.why_not();
    if (survey.decoded_since.empty())
        count_frames(survey, list, input);
    else
        decode_frames(survey, path, options, stop);
    return survey;
}

std::string source_hash(const std::string& path, const StreamChoice& choice) {
    PictureHash hash;
    index_keys(path, choice, 0, [&](AVPacket& packet) { hash.add(packet); });
    return hash.finish();
}

}  // namespace gsve::programme
