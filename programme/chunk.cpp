#include "programme/chunk.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <map>
#include <span>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "encoding/buffer_delays.h"
#include "encoding/error.h"
#include "encoding/settings.h"
#include "encoding/start_codes.h"
#include "programme/buffer_checker.h"
#include "programme/content_hash.h"
#include "programme/output_file.h"
#include "programme/packet_log.h"
#include "programme/programme_parts.h"
#include "programme/unit_file.h"

namespace gsve::programme {
namespace {

/// Passes on what an observer hears, and writes down what joining has to know.
class Recorder final : public Observer {
public:
    Recorder(Observer& user, AVCodecID codec) : user_(user), checker_(codec) {}

    void note(std::string_view lines) override { user_.note(lines); }
    void warn(std::string_view line) override { user_.warn(line); }
    void begin(std::optional<uint64_t> pictures) override { user_.begin(pictures); }
    void progress(const Tally& tally) override { user_.progress(tally); }
    int stop_reason() override { return user_.stop_reason(); }
    void unit(const encoding::EncodedUnit& unit) override {
        result_.units.push_back({.bytes = unit.bytes.size(),
                                 .pts = unit.pts,
                                 .dts = unit.dts,
                                 .key = unit.key,
                                 .type = unit.type});
        result_.bytes += unit.bytes.size();
        hash_.add(unit.bytes);
        checker_.unit(unit.bytes);
    }

    TaskResult finish() {
        result_.hash = hash_.finish();
        const BufferVerdict verdict = checker_.finish();
        if (!verdict.accounts.empty() && !verdict.accounts.front().course.empty()) {
            const BufferAccount& account = verdict.accounts.front();
            result_.buffer = BufferEnds{.model = account.model,
                                        .bit_rate = account.bit_rate,
                                        .size = account.size,
                                        .before = account.course.front().before,
                                        .after = account.course.back().after(),
                                        .holds = verdict.holds()};
        }
        return std::move(result_);
    }

private:
    Observer& user_;
    BufferChecker checker_;
    ContentHash hash_;
    TaskResult result_;
};

constexpr const char* kUsualRate = "6000000";  ///< where "bitrate" is not given

AVCodecID codec_of(const EncodeJob& job) {
    const std::string codec = setting_of(job, "encoder");
    return codec == "mpeg-2"  ? AV_CODEC_ID_MPEG2VIDEO
           : codec == "h.264" ? AV_CODEC_ID_H264
                              : AV_CODEC_ID_HEVC;
}

int library_codec_of(const EncodeJob& job) {
    const AVCodecID codec = codec_of(job);
    return codec == AV_CODEC_ID_MPEG2VIDEO ? encoding::kMpeg2
           : codec == AV_CODEC_ID_H264     ? encoding::kH264
                                           : encoding::kH265;
}

TaskResult encode_range(const EncodeJob& job, Observer& observer) {
    Recorder recorder(observer, codec_of(job));
    const EncodeResult result = encode_programme(job, recorder);
    if (!result.problem.empty()) throw Failure(result.problem);
    if (result.stopped_by != 0) throw Failure("stopped before the chunk was complete");
    check_complete(result.tally);
    const uint64_t planned = job.range->end - job.range->begin;
    if (result.tally.pictures != planned)
        throw Failure(fmt::format("the input gives {} pictures of the {} that were planned: plan again",
                                  result.tally.pictures, planned));
    TaskResult task = recorder.finish();
    task.pictures = result.tally.pictures;
    return task;
}

/// The sections that declare rate and buffer: MPEG-2's sequence header and its extension, H.264's sequence
/// parameter set.
bool declares_buffer(int codec, std::span<const uint8_t> section) {
    constexpr uint8_t kSequenceHeader = 0xB3, kExtension = 0xB5, kSequenceExtension = 1, kSequenceSet = 7;
    if (codec == encoding::kH264) return (section[0] & 0x1F) == kSequenceSet;
    return section[0] == kSequenceHeader ||
           (section[0] == kExtension && section.size() > 1 && section[1] >> 4 == kSequenceExtension);
}

std::vector<encoding::Section> sections_of(int codec, std::span<const uint8_t> unit) {
    return codec == encoding::kH264 ? encoding::nal_units(unit) : encoding::sections(unit);
}

/// A unit that declares what the stream's first one does.
std::vector<uint8_t> declared_as(int codec, std::span<const uint8_t> first, std::span<const uint8_t> unit) {
    std::map<int, std::vector<uint8_t>> known;  // by the section's first byte
    for (const encoding::Section& section : sections_of(codec, first))
        if (declares_buffer(codec, section.bytes))
            known[section.bytes[0]].assign(first.begin() + static_cast<ptrdiff_t>(section.begin),
                                           first.begin() + static_cast<ptrdiff_t>(section.end));
    std::vector<uint8_t> bytes;
    size_t copied = 0;
    for (const encoding::Section& section : sections_of(codec, unit)) {
        const auto same = known.find(section.bytes[0]);
        if (!declares_buffer(codec, section.bytes) || same == known.end()) continue;
        bytes.insert(bytes.end(), unit.begin() + static_cast<ptrdiff_t>(copied),
                     unit.begin() + static_cast<ptrdiff_t>(section.begin));
        bytes.insert(bytes.end(), same->second.begin(), same->second.end());
        copied = section.end;
    }
    bytes.insert(bytes.end(), unit.begin() + static_cast<ptrdiff_t>(copied), unit.end());
    return bytes;
}

constexpr double kLeastShare = 0.5;  ///< of the rate, with which pictures are still worth to be seen

/// Where the last GOPs of a chunk are to save bits: from which picture on, and at which share of the rate.
struct Saving {
    uint64_t begin = 0;
    double share = 1;
};

Saving plan_saving(const Plan& plan, const PictureRange& range, uint64_t saved, double bits_per_picture) {
    constexpr double kMost = 0.2, kMargin = 1.05;
    const double wanted = kMargin * static_cast<double>(saved);
    const double of_gop = bits_per_picture * static_cast<double>(plan.gop);
    const auto gops = static_cast<uint64_t>(std::ceil(wanted / (kMost * of_gop)));
    if (gops * plan.gop >= range.end - range.begin)
        throw UsageError(fmt::format(
            "{} bits are more than the chunk's last GOPs can save: plan longer chunks, or give a larger "
            "\"buffer size\"",
            saved));
    return {.begin = range.end - gops * plan.gop, .share = 1 - wanted / (of_gop * static_cast<double>(gops))};
}

/// Bits in the decoder's buffer before what follows the part is removed.
double level_behind(const TaskResult& part, double period) {
    double bits = 0;
    for (const TaskUnit& unit : part.units) bits += 8 * static_cast<double>(unit.bytes);
    return static_cast<double>(part.buffer->before) - bits +
           static_cast<double>(part.buffer->bit_rate) * period * static_cast<double>(part.units.size());
}

/// Bits of a picture behind the part that have not arrived when it is due, at most.
double lack_behind(const TaskResult& part, const TaskResult& behind, double period) {
    double level = level_behind(part, period), lack = 0;
    for (const TaskUnit& unit : behind.units) {
        const double bits = 8 * static_cast<double>(unit.bytes);
        lack = std::max(lack, bits - level);
        const double filled = level - bits + static_cast<double>(part.buffer->bit_rate) * period;
        level = std::min(filled, static_cast<double>(part.buffer->size));
    }
    return lack;
}

/// Its rates, at a share; the buffer stays.
void lower_rates(EncodeJob& job, double share, int64_t buffer) {
    for (const char* key : {"bitrate", "min bitrate", "max bitrate"}) {
        const std::string given = setting_of(job, key);
        const std::string usual = std::string_view(key) == "bitrate" ? kUsualRate : "-1";
        const double rate = std::stod(given.empty() ? usual : given);
        if (rate > 0) job.settings.emplace_back(key, fmt::format("{:.0f}", rate * share));
    }
    job.settings.emplace_back("buffer size", std::to_string(buffer));
}

/// The chunk with its last GOPs encoded anew, with fewer bits: two pieces that declare the same, the delays
/// of the second one stated as they follow from the first.
TaskResult encode_saving(const Plan& plan, const EncodeJob& whole, uint64_t saved, Observer& observer) {
    const int codec = library_codec_of(whole);
    if (codec == encoding::kH265) throw UsageError("H.265 declares no buffer for which bits could be saved");
    const std::string path = whole.output;
    const std::string first_path = path + ".first" + path.substr(path.rfind('.'));
    const std::string last_path = path + ".last" + path.substr(path.rfind('.'));

    const std::string target = setting_of(whole, "bitrate");
    const double rate = std::stod(target.empty() ? kUsualRate : target);
    EncodeJob first = whole;
    first.output = first_path;
    Saving saving = plan_saving(plan, *whole.range, saved, rate / plan.frame_rate.per_second());
    first.range->end = saving.begin;
    TaskResult one = encode_range(first, observer);
    if (!one.buffer) throw UsageError("the stream declares no buffer for which bits could be saved");
    TaskResult two;
    // What the last GOPs take to be in the buffer, and is not, they have to save as well; how much that is
    // shows once they are encoded.
    constexpr int kTries = 6;
    double wanted = static_cast<double>(saved);
    for (int n = 0; n < kTries; n++) {
        if (first.range->end != saving.begin) {
            first.range->end = saving.begin;
            one = encode_range(first, observer);
        }
        EncodeJob last = whole;
        last.output = last_path;
        last.range->begin = saving.begin;
        last.range->warm_up = std::min(saving.begin, std::max<uint64_t>(whole.range->warm_up, plan.gop));
        lower_rates(last, saving.share, one.buffer->size);
        two = encode_range(last, observer);
        const double missing = static_cast<double>(two.buffer->before) - level_behind(one, plan.period());
        const bool in_time = lack_behind(one, two, plan.period()) <= 0;
        if (in_time && static_cast<double>(saved) + missing <= wanted) break;
        // Elsewhere, the first picture may be a smaller one.
        if (!in_time && saving.begin > whole.range->begin + plan.gop) saving.begin -= plan.gop;
        wanted = static_cast<double>(saved) + missing;
        const auto pictures = static_cast<double>(whole.range->end - saving.begin);
        const double bits = rate / plan.frame_rate.per_second() * pictures;
        saving.share = std::max(1 - wanted / bits, kLeastShare);
    }

    Recorder recorder(observer, codec_of(whole));
    encoding::BufferDelays delays(codec, static_cast<double>(one.buffer->bit_rate), plan.period());
    UnitFileReader heads(first_path, one.units), tails(last_path, two.units);
    OutputFile output(path);
    FilePtr file(std::fopen(output.written_path().c_str(), "wb"));
    if (!file) fail_to_write(path, AVERROR(errno));
    std::vector<uint8_t> declaration;
    const auto append = [&](UnitFileReader& reader, bool declares) {
        for (std::optional<encoding::EncodedUnit> unit = reader.next(); unit; unit = reader.next()) {
            std::vector<uint8_t> bytes(unit->bytes.begin(), unit->bytes.end());
            if (declaration.empty()) declaration = bytes;
            if (!declares && unit->key) bytes = declared_as(codec, declaration, bytes);
            delays.restate(bytes);
            delays.left(bytes.size());
            unit->bytes = bytes;
            recorder.unit(*unit);
            if (std::fwrite(bytes.data(), 1, bytes.size(), file.get()) != bytes.size())
                fail_to_write(path, AVERROR(errno));
        }
    };
    append(heads, true);
    append(tails, false);
    if (std::fclose(file.release()) != 0) fail_to_write(path, AVERROR(errno));
    output.commit();
    std::remove(first_path.c_str());
    std::remove(last_path.c_str());
    TaskResult task = recorder.finish();
    task.pictures = one.pictures + two.pictures;
    task.saved = saved;
    return task;
}

class SoundTask : ProgrammeParts {
public:
    SoundTask(const EncodeJob& job, Observer& observer) : ProgrammeParts(job, observer) {}

    TaskResult run(const std::string& path, uint64_t pictures) {
        companions_.emplace(*input_, job_.sound, format_, measured_loudness());
        note(companions_->opening_notes());
        PacketLog log(path);
        const CompanionStreams::Sink sink = [&](size_t stream, PacketPtr packet) {
            log.pass(stream, std::move(packet));
        };
        while (input_->pass_over()) companions_->pass(input_->take_packets(), sink);
        if (observer_.stop_reason() != 0) throw Failure("stopped before the sound was complete");
        companions_->finish(log, input_->origin() + input_->time_of(static_cast<int64_t>(pictures)));
        log.finish();
        note(companions_->notes(log));
        TaskResult result;
        result.task = kSoundTask;
        result.bytes = log.bytes();
        result.hash = log.hash();
        return result;
    }

    const std::string& notes() const { return notes_; }
};

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

}  // namespace

TaskResult encode_chunk(const Plan& plan, size_t number, const std::string& path, uint64_t saved,
                        Observer& observer) {
    EncodeJob job = plan.chunks.at(number);
    check_harmless(job);
    if (setting_of(job, "encoder") != setting_of(plan.job, "encoder"))
        throw UsageError(fmt::format("chunk {} is for another codec than the plan", number));
    job.input = plan.job.input;
    job.output = path;
    TaskResult result = saved > 0 ? encode_saving(plan, job, saved, observer) : encode_range(job, observer);
    result.task = std::to_string(number);
    result.software = plan.software;
    return result;
}

TaskResult encode_sound(const Plan& plan, const std::string& path, Observer& observer) {
    EncodeJob job = plan.job;
    job.captions = {};
    job.captions.carry_over = false;
    SoundTask task(job, observer);
    TaskResult result = task.run(path, plan.pictures);
    result.software = plan.software;
    result.notes = lines_of(task.notes());
    return result;
}

}  // namespace gsve::programme
