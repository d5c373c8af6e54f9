#include "programme/stream_plan.h"

#include <algorithm>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "encoding/error.h"

namespace gsve::programme {
namespace {

std::span<AVStream* const> streams_of(const AVFormatContext& input) {
    return {input.streams, input.nb_streams};
}
std::span<AVProgram* const> programs_of(const AVFormatContext& input) {
    return {input.programs, input.nb_programs};
}

bool is_cover(const AVStream& stream) { return stream.disposition & AV_DISPOSITION_ATTACHED_PIC; }

/// QuickTime's track of time codes, which the programme's time code is read from.
bool is_timecode_track(const AVStream& stream) {
    return stream.codecpar->codec_tag == MKTAG('t', 'm', 'c', 'd');
}

bool has(const AVProgram& program, int stream) {
    const std::span<const unsigned> members(program.stream_index, program.nb_stream_indexes);
    return std::find(members.begin(), members.end(), static_cast<unsigned>(stream)) != members.end();
}

/// Programs that have a picture; others are lists of services, or radio.
std::vector<const AVProgram*> television(const AVFormatContext& input) {
    std::vector<const AVProgram*> found;
    for (const AVProgram* program : programs_of(input))
        for (const AVStream* stream : streams_of(input))
            if (stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO && has(*program, stream->index)) {
                found.push_back(program);
                break;
            }
    return found;
}

std::string numbers_of(const std::vector<const AVProgram*>& programs) {
    std::vector<int> numbers;
    for (const AVProgram* program : programs) numbers.push_back(program->id);
    return fmt::format("{}", fmt::join(numbers, ", "));
}

const AVProgram* wanted_program(const AVFormatContext& input, const std::string& path, int number) {
    for (const AVProgram* program : programs_of(input))
        if (program->id == number) return program;
    const auto known = television(input);
    throw UsageError(
        known.empty()
            ? fmt::format("--program: {} has no programs to choose from; leave it out", path)
            : fmt::format("--program: {} has no program {}; it has {}", path, number, numbers_of(known)));
}

void check_streams(const AVFormatContext& input, const std::string& path, const std::vector<int>& wanted) {
    for (const int number : wanted)
        if (number < 0 || number >= static_cast<int>(input.nb_streams))
            throw UsageError(fmt::format("--streams: {} has no stream {}; its streams are 0 to {}", path,
                                         number, static_cast<int>(input.nb_streams) - 1));
}

/// Whether `choice` has the stream, as far as numbers and programs go.
class Chosen {
public:
    Chosen(const StreamChoice& choice, const AVProgram* program) : choice_(choice), program_(program) {}

    bool operator()(const AVStream& stream) const {
        if (!choice_.streams.empty())
            return std::find(choice_.streams.begin(), choice_.streams.end(), stream.index) !=
                   choice_.streams.end();
        return !program_ || has(*program_, stream.index);
    }

private:
    const StreamChoice& choice_;
    const AVProgram* program_;
};

/// The best of the chosen pictures: libavformat knows, unless it is told which.
int choose_video(AVFormatContext& input, const std::string& path, const Chosen& chosen,
                 const AVCodec*& codec) {
    const AVCodec* found = nullptr;
    int best = av_find_best_stream(&input, AVMEDIA_TYPE_VIDEO, -1, -1, &found, 0);
    if (best >= 0 && !chosen(*input.streams[best])) {
        best = -1;
        for (const AVStream* stream : streams_of(input)) {
            if (best >= 0 || !chosen(*stream) || is_cover(*stream)) continue;
            if (av_find_best_stream(&input, AVMEDIA_TYPE_VIDEO, stream->index, -1, &found, 0) ==
                stream->index)
                best = stream->index;
        }
        if (best < 0)
            throw UsageError(
                fmt::format("none of the chosen streams of {} is a picture that can be decoded", path));
    }
    if (best < 0) throw Failure(fmt::format("{} has no video stream that can be decoded", path));
    codec = found;
    return best;
}

/// The containers that carry a stream, as their extensions.
std::string containers_for(const AVCodecParameters& stream) {
    constexpr std::array<std::string_view, kContainers.size()> kExtensions = {".ts",  ".mp4", ".mov",
                                                                              ".mkv", ".mxf", ".m3u8"};
    std::vector<std::string_view> taking;
    for (const Container container : kContainers)
        if (treatment_of(stream, container) == Treatment::kCarried)
            taking.push_back(kExtensions[static_cast<size_t>(container)]);
    return fmt::format("{}", fmt::join(taking, " or "));
}

std::string why_left_out(const AVStream& stream, Container container) {
    const AVCodecParameters& parameters = *stream.codecpar;
    if (parameters.codec_type == AVMEDIA_TYPE_VIDEO && !is_cover(stream))
        return fmt::format("one picture is encoded; --streams {} chooses this one", stream.index);
    const std::string taking = containers_for(parameters);
    if (container == Container::kElementary)
        return fmt::format("an elementary stream has room for the picture alone; a name in {} carries it",
                           taking.empty() ? ".ts, .mp4, .mov or .mkv" : taking);
    if (parameters.codec_id == AV_CODEC_ID_NONE) return "its codec is unknown";
    if (taking.empty()) return "no container that is written here takes it";
    return fmt::format("{} does not take it; a name in {} carries it", name_of(container), taking);
}

Treatment treatment_of(const AVStream& stream, Container container) {
    const AVCodecParameters& parameters = *stream.codecpar;
    if (parameters.codec_type == AVMEDIA_TYPE_VIDEO) {
        const bool takes_covers = container == Container::kMp4 || container == Container::kMov;
        return is_cover(stream) && takes_covers ? Treatment::kCarried : Treatment::kNamed;
    }
    return programme::treatment_of(parameters, container);
}

}  // namespace

std::string_view kind_of(const AVStream& stream) {
    switch (stream.codecpar->codec_type) {
        case AVMEDIA_TYPE_VIDEO: return is_cover(stream) ? "cover" : "picture";
        case AVMEDIA_TYPE_AUDIO: return "sound";
        case AVMEDIA_TYPE_SUBTITLE: return "subtitles";
        case AVMEDIA_TYPE_ATTACHMENT: return "attachment";
        default: return "data";
    }
}

std::string codec_name(const AVStream& stream) {
    const AVCodecID codec = stream.codecpar->codec_id;
    return codec == AV_CODEC_ID_NONE ? "unknown codec" : avcodec_get_name(codec);
}

std::string language_of(const AVStream& stream) {
    const AVDictionaryEntry* language = av_dict_get(stream.metadata, "language", nullptr, 0);
    return language ? language->value : "";
}

std::string describe(const AVStream& stream) {
    const std::string language = language_of(stream);
    return fmt::format("stream {} ({}, {}{}{})", stream.index, kind_of(stream), codec_name(stream),
                       language.empty() ? "" : ", ", language);
}

StreamPlan plan_streams(AVFormatContext& input, const std::string& path, const StreamChoice& choice,
                        Container container) {
    StreamPlan plan;
    check_streams(input, path, choice.streams);
    if (choice.program) plan.program = wanted_program(input, path, *choice.program);
    plan.video = choose_video(input, path, Chosen(choice, plan.program), plan.codec);
    const auto programs = television(input);
    if (!plan.program)
        for (const AVProgram* program : programs)
            if (has(*program, plan.video) && !plan.program) plan.program = program;
    if (programs.size() > 1 && !choice.program && choice.streams.empty() && plan.program)
        plan.notes += fmt::format("the input has programs {}: {} is encoded; --program chooses another\n",
                                  numbers_of(programs), plan.program->id);

    const Chosen chosen(choice, plan.program);
    for (const AVStream* stream : streams_of(input)) {
        const bool unwanted = stream->codecpar->codec_type == AVMEDIA_TYPE_AUDIO && !choice.sound;
        if (stream->index == plan.video || !chosen(*stream) || unwanted || is_timecode_track(*stream))
            continue;
        const Treatment treatment = treatment_of(*stream, container);
        if (treatment == Treatment::kNamed) {
            plan.left_out.push_back({.index = stream->index, .why = why_left_out(*stream, container)});
            plan.notes += fmt::format("{} is left out: {}\n", describe(*stream), plan.left_out.back().why);
            continue;
        }
        if (treatment == Treatment::kConverted)
            plan.notes +=
                fmt::format("{} is encoded as {}: {} does not take it as it is\n", describe(*stream),
                            conversion_of(stream->codecpar->codec_type, container), name_of(container));
        plan.others.push_back({.index = stream->index, .treatment = treatment});
    }
    return plan;
}

}  // namespace gsve::programme
