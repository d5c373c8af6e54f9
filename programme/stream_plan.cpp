#include "programme/stream_plan.h"

#include <algorithm>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "encoding/error.h"
#include "programme/transport_tables.h"

namespace gsve::programme {
namespace {

std::span<AVStream* const> streams_of(const AVFormatContext& input) {
    return {input.streams, input.nb_streams};
}
std::span<AVProgram* const> programs_of(const AVFormatContext& input) {
    return {input.programs, input.nb_programs};
}

bool is_cover(const AVStream& stream) { return stream.disposition & AV_DISPOSITION_ATTACHED_PIC; }

/// QuickTime's tracks of time codes and chapters, which are read from there and carried otherwise.
bool is_read_already(const AVFormatContext& input, const AVStream& stream) {
    const bool is_text = stream.codecpar->codec_type == AVMEDIA_TYPE_DATA &&
                         stream.codecpar->codec_tag == MKTAG('t', 'e', 'x', 't');
    return stream.codecpar->codec_tag == MKTAG('t', 'm', 'c', 'd') || (is_text && input.nb_chapters > 0);
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

/// Radio.
bool has_sound_alone(const AVFormatContext& input, const AVProgram& program) {
    bool sound = false;
    for (const AVStream* stream : streams_of(input)) {
        if (!has(program, stream->index)) continue;
        if (stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) return false;
        sound |= stream->codecpar->codec_type == AVMEDIA_TYPE_AUDIO;
    }
    return sound;
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

/// Whether enough is known of a stream to describe it to a container. Of one that has not begun, it is not.
bool has_form(const AVCodecParameters& stream) {
    return stream.codec_type != AVMEDIA_TYPE_AUDIO ||
           (stream.sample_rate > 0 && stream.ch_layout.nb_channels > 0);
}

Treatment treatment_of(const AVStream& stream, Container container) {
    const AVCodecParameters& parameters = *stream.codecpar;
    if (parameters.codec_type == AVMEDIA_TYPE_VIDEO) {
        return is_cover(stream) && container == Container::kMp4 ? Treatment::kCarried : Treatment::kNamed;
    }
    return has_form(parameters) ? programme::treatment_of(parameters, container) : Treatment::kNamed;
}

/// The containers that take a stream, as it is or converted, as their extensions.
std::string containers_for(const AVStream& stream) {
    constexpr std::array<std::string_view, kContainers.size()> kExtensions = {".ts",  ".mp4", ".mov",
                                                                              ".mkv", ".mxf", ".m3u8"};
    std::vector<std::string_view> taking;
    for (const Container container : kContainers)
        if (treatment_of(stream, container) != Treatment::kNamed)
            taking.push_back(kExtensions[static_cast<size_t>(container)]);
    return fmt::format("{}", fmt::join(taking, " or "));
}

std::string why_left_out(const AVStream& stream, Container container) {
    const AVCodecParameters& parameters = *stream.codecpar;
    if (parameters.codec_type == AVMEDIA_TYPE_VIDEO && !is_cover(stream))
        return fmt::format("one picture is encoded; --streams {} chooses this one", stream.index);
    if (parameters.codec_id == AV_CODEC_ID_NONE) return "its codec is unknown";
    if (!has_form(parameters)) return "none of it comes in the time that is searched for its form";
    const std::string taking = containers_for(stream);
    if (taking.empty()) return "no container that is written here takes it";
    if (container == Container::kElementary)
        return fmt::format("an elementary stream has room for the picture alone; a name in {} takes it",
                           taking);
    return fmt::format("{} does not take it; a name in {} does", name_of(container), taking);
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
    if (plan.program)
        for (const int number : choice.streams)
            if (!has(*plan.program, number))
                throw UsageError(fmt::format("--streams: stream {} is not of program {}; leave --program out",
                                             number, plan.program->id));
    plan.video = choose_video(input, path, Chosen(choice, plan.program), plan.codec);
    const auto programs = television(input);
    if (!plan.program)
        for (const AVProgram* program : programs)
            if (has(*program, plan.video) && !plan.program) plan.program = program;
    if (programs.size() > 1 && !choice.program && choice.streams.empty() && plan.program)
        plan.notes += fmt::format("the input has programs {}: {} is encoded; --program chooses another\n",
                                  numbers_of(programs), plan.program->id);

    if (!choice.program && choice.streams.empty())
        for (const AVProgram* program : programs_of(input))
            if (program->nb_stream_indexes > 0 && has_sound_alone(input, *program))
                plan.notes += fmt::format(
                    "program {} has no picture and is left out; --streams takes its streams\n", program->id);
    if (std::string_view(input.iformat->name) == "mpegts")
        for (const int pid : shared_pids(path))
            plan.notes += fmt::format(
                "the input announces several streams on PID {}: one of them is read, and the others are left "
                "out; give each a PID of its own\n",
                pid);
    const Chosen chosen(choice, plan.program);
    for (const AVStream* stream : streams_of(input)) {
        const bool unwanted = stream->codecpar->codec_type == AVMEDIA_TYPE_AUDIO && !choice.sound;
        if (stream->index == plan.video || !chosen(*stream) || unwanted || is_read_already(input, *stream))
            continue;
        const Treatment treatment = treatment_of(*stream, container);
        if (treatment == Treatment::kNamed) {
            plan.left_out.push_back({.index = stream->index, .why = why_left_out(*stream, container)});
            plan.notes += fmt::format("{} is left out: {}\n", describe(*stream), plan.left_out.back().why);
            continue;
        }
        plan.others.push_back({.index = stream->index, .treatment = treatment});
    }
    return plan;
}

}  // namespace gsve::programme
