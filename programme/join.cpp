#include "programme/join.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <optional>
#include <span>
#include <utility>

#include <fmt/format.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "encoding/buffer_delays.h"
#include "encoding/error.h"
#include "encoding/start_codes.h"
#include "programme/buffer_checker.h"
#include "programme/companions.h"
#include "programme/packet_log.h"
#include "programme/programme_parts.h"
#include "programme/unit_file.h"

namespace gsve::programme {
namespace {

bool arrives_constantly(BufferModel model) {
    return model != BufferModel::kVbvFilledUp && model != BufferModel::kHrdVariableRate;
}

/// Bits in the decoder's buffer, picture by picture.
class BufferLevel {
public:
    BufferLevel(const BufferEnds& first, double period)
        : constant_(arrives_constantly(first.model)),
          size_(static_cast<double>(first.size)),
          refill_(static_cast<double>(first.bit_rate) * period),
          level_(static_cast<double>(first.before)) {}

    /// Before the next picture is removed.
    double level() const { return level_; }
    bool is_constant() const { return constant_; }
    double size() const { return size_; }

    /// A picture's bits leave, and others come until the next one is due.
    void remove(double bits) { level_ = after(bits); }
    double after(double bits) const {
        const double filled = level_ - bits + refill_;
        return constant_ ? filled : std::min(filled, size_);
    }

private:
    bool constant_;
    double size_, refill_, level_;
};

constexpr std::array<uint8_t, 5> kFillerData = {0, 0, 0, 1, 0x0C};

/// The smallest piece of stuffing.
size_t least_stuffing(int codec) { return codec == encoding::kMpeg2 ? 1 : kFillerData.size() + 1; }

/// Bytes to add to a picture so that the next one finds no more in the buffer than it holds, and at a join
/// no more than it was encoded for.
size_t stuffing_behind(const BufferLevel& buffer, int codec, double bits, std::optional<double> wanted) {
    if (!buffer.is_constant() || codec == encoding::kH265) return 0;
    const double least = 8 * static_cast<double>(least_stuffing(codec));
    const double overflow = buffer.after(bits) - buffer.size();
    double surplus = overflow > 0 ? std::max(overflow, least) : 0;
    if (const double of_join = buffer.after(bits) - wanted.value_or(buffer.size()); of_join >= least)
        surplus = std::max(surplus, of_join);
    // All of it has to be there when the picture is removed.
    const double room = buffer.level() - bits;
    if (surplus > room) return room < least ? 0 : static_cast<size_t>(room / 8);
    return static_cast<size_t>(std::ceil(surplus / 8));
}

/// Adds zero bytes (ISO/IEC 13818-2, 5.2.3), or filler data (ITU-T H.264, 7.3.2.7).
void stuff(std::vector<uint8_t>& unit, int codec, size_t bytes) {
    if (bytes == 0) return;
    if (codec == encoding::kMpeg2) {
        unit.resize(unit.size() + bytes);
        return;
    }
    unit.insert(unit.end(), kFillerData.begin(), kFillerData.end());
    unit.insert(unit.end(), bytes - least_stuffing(codec), 0xFF);
    unit.push_back(0x80);
}

/// For containers that keep the parameter sets in their own header.
std::vector<uint8_t> without_parameter_sets(int codec, std::span<const uint8_t> unit) {
    const auto is_set = [codec](uint8_t header) {
        constexpr int kH264Sequence = 7, kH264Picture = 8, kH265Video = 32, kH265Picture = 34;
        const int h264 = header & 0x1F, h265 = header >> 1 & 0x3F;
        return codec == encoding::kH264 ? h264 == kH264Sequence || h264 == kH264Picture
                                        : h265 >= kH265Video && h265 <= kH265Picture;
    };
    std::vector<uint8_t> kept;
    for (const encoding::Section& nal : encoding::nal_units(unit))
        if (!is_set(nal.bytes[0]))
            kept.insert(kept.end(), unit.begin() + static_cast<ptrdiff_t>(nal.begin),
                        unit.begin() + static_cast<ptrdiff_t>(nal.end));
    return kept;
}

EncodeJob job_of(const Plan& plan) {
    EncodeJob job = plan.job;
    // The captions are in the chunks.
    job.captions.files.clear();
    job.captions.field = 0;
    job.captions.rows.reset();
    job.captions.start.clear();
    job.captions.planned.emplace().present = !plan.chunks.empty() && plan.chunks.front().captions.planned &&
                                             plan.chunks.front().captions.planned->present;
    return job;
}

class Joining : ProgrammeParts {
public:
    Joining(const Plan& plan, Observer& observer) : ProgrammeParts(job_of(plan), observer), plan_(plan) {}
    JoinResult run(const std::vector<FinishedTask>& chunks, const FinishedTask* sound);

private:
    void write(const encoding::EncodedUnit& unit, std::optional<double> next_wanted);
    void pass_sound(int64_t up_to);

    const Plan& plan_;
    std::optional<encoding::BufferDelays> delays_;
    std::optional<BufferLevel> level_;
    std::optional<BufferChecker> checker_;
    std::optional<PacketLogReader> sound_;
    int64_t sound_time_ = 0;  ///< of the latest packet, in kTimeUnit
    JoinResult result_;
};

JoinResult Joining::run(const std::vector<FinishedTask>& chunks, const FinishedTask* sound) {
    open_encoder();
    open_captions();
    open_timecodes();
    open_companions({});
    open_output();
    checker_.emplace(encoder_.mpeg_context->codec_id);
    if (encoder_.global_header) checker_->headers(encoder_.parameter_sets());
    if (const std::optional<BufferEnds>& buffer = chunks.front().result.buffer) {
        level_.emplace(*buffer, plan_.period());
        delays_.emplace(encoder_.codec_id, static_cast<double>(buffer->bit_rate), plan_.period());
    }
    if (sound) sound_.emplace(sound->data);
    observer_.begin(plan_.pictures);
    Tally tally(plan_.frame_rate);
    for (size_t n = 0; n < chunks.size(); n++) {
        UnitFileReader units(chunks[n].data, chunks[n].result.units);
        std::optional<encoding::EncodedUnit> unit = units.next();
        const bool has_next = n + 1 < chunks.size() && chunks[n + 1].result.buffer;
        while (unit) {
            // The reader's bytes are valid until the next unit.
            const size_t left = chunks[n].result.units.size() - units.read();
            std::optional<double> wanted;
            if (left == 0 && has_next) wanted = static_cast<double>(chunks[n + 1].result.buffer->before);
            write(*unit, wanted);
            tally.pictures = static_cast<uint64_t>(std::max<int64_t>(unit->pts, 0)) + 1;
            observer_.progress(tally);
            if (observer_.stop_reason() != 0) throw Failure("stopped before the programme was complete");
            unit = units.next();
        }
        result_.pictures += chunks[n].result.pictures;
    }
    pass_sound(std::numeric_limits<int64_t>::max());
    if (ends_with_picture(format_.container)) output_->end_with_picture();
    output_->declare_captions(plan_.caption_services);
    result_.buffer = checker_->finish();
    const bool held = std::all_of(chunks.begin(), chunks.end(), [](const FinishedTask& chunk) {
        // One that was to save bits is made of two pieces, which the joining brings into order.
        return !chunk.result.buffer || chunk.result.buffer->holds || chunk.result.saved > 0;
    });
    if (held && !result_.buffer.holds())
        throw Failure(
            "the joined stream does not keep to the decoder's buffer that it declares, though each chunk "
            "does: "
            "give a larger \"buffer size\", or plan longer chunks");
    output_->finish();
    result_.timecode = first_timecode_;
    result_.notes = notes_;
    return result_;
}

void Joining::write(const encoding::EncodedUnit& unit, std::optional<double> next_wanted) {
    // Packets of one time may lie apart by as much as a file's streams do.
    constexpr int64_t kAhead = 10 * int64_t{kTimeUnit.den};
    pass_sound(input_->time_of(unit.pts) + kAhead);
    std::vector<uint8_t> bytes(unit.bytes.begin(), unit.bytes.end());
    if (delays_) delays_->restate(bytes);
    if (encoder_.global_header && encoder_.codec_id != encoding::kMpeg2)
        bytes = without_parameter_sets(encoder_.codec_id, bytes);
    if (level_) {
        const double bits = 8 * static_cast<double>(bytes.size());
        const size_t stuffing = stuffing_behind(*level_, encoder_.codec_id, bits, next_wanted);
        stuff(bytes, encoder_.codec_id, stuffing);
        result_.stuffed += stuffing;
        level_->remove(8 * static_cast<double>(bytes.size()));
    }
    if (delays_) delays_->left(bytes.size());
    checker_->unit(bytes);
    encoding::EncodedUnit written = unit;
    written.bytes = bytes;
    output_->write(written);
    result_.units++;
    result_.bytes += bytes.size();
}

/// On the output's own time line.
void Joining::pass_sound(int64_t up_to) {
    while (sound_ && sound_time_ <= up_to) {
        PacketPtr packet = sound_->next();
        if (!packet) {
            sound_.reset();
            return;
        }
        const int64_t time = packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts;
        if (time != AV_NOPTS_VALUE) sound_time_ = std::max(sound_time_, time);
        const auto stream = static_cast<size_t>(packet->stream_index);
        if (stream >= companions_->companions().streams.size())
            throw Failure("the sound has a stream that the input has not: make it again");
        output_->pass(stream, std::move(packet));
    }
}

}  // namespace

std::optional<BufferDeficit> find_deficit(const Plan& plan, const std::vector<FinishedTask>& chunks) {
    if (chunks.empty() || !chunks.front().result.buffer) return std::nullopt;
    BufferLevel level(*chunks.front().result.buffer, plan.period());
    const int codec = setting_of(plan.job, "encoder") == "mpeg-2" ? encoding::kMpeg2 : encoding::kH264;
    const double tolerance = static_cast<double>(chunks.front().result.buffer->bit_rate) / 90'000 + 8;
    for (size_t n = 0; n < chunks.size(); n++) {
        double lack = 0;
        const std::vector<TaskUnit>& units = chunks[n].result.units;
        for (size_t at = 0; at < units.size(); at++) {
            double bits = 8 * static_cast<double>(units[at].bytes);
            std::optional<double> wanted;
            const bool is_last = at + 1 == units.size();
            if (is_last && n + 1 < chunks.size() && chunks[n + 1].result.buffer)
                wanted = static_cast<double>(chunks[n + 1].result.buffer->before);
            lack = std::max(lack, bits - level.level());
            bits += 8 * static_cast<double>(stuffing_behind(level, codec, bits, wanted));
            level.remove(bits);
        }
        const bool alone =
            chunks[n].result.buffer && !chunks[n].result.buffer->holds && chunks[n].result.saved == 0;
        if (n > 0 && lack > tolerance && !alone)
            return BufferDeficit{.chunk = n - 1, .bits = static_cast<uint64_t>(std::ceil(lack))};
    }
    return std::nullopt;
}

JoinResult join(const Plan& plan, const std::vector<FinishedTask>& chunks, const FinishedTask* sound,
                Observer& observer) {
    return Joining(plan, observer).run(chunks, sound);
}

}  // namespace gsve::programme
