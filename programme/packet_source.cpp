#include "programme/packet_source.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <iterator>
#include <limits>
#include <string_view>
#include <utility>
#include <vector>

#include "encoding/frame_rate.h"
#include "programme/picture_rate.h"

namespace gsve::programme {
namespace {

// What a container's duration and its pictures may differ by, in seconds, as long as nothing else is wrong.
constexpr double kEndTolerance = 0.5;

// Of the other streams, between two pictures: some seconds of sound. Where the pictures end long before, the
// rest of it would fill the memory.
constexpr size_t kMostOthers = 256;

}  // namespace

PacketSource::PacketSource(const std::string& path, StopRequest stop, const Reading& reading)
    : path_(path),
      stop_(std::move(stop)),
      reading_(reading),
      log_(reading.lines),
      format_(open_input(path, {interrupted, this})),
      plan_(plan_streams(*format_, path, reading.choice, reading.container)),
      stream_(format_->streams[plan_.video]),
      timeline_(timed_streams(), format_->iformat->flags & AVFMT_TS_DISCONT),
      planned_(format_->nb_streams),
      joiner_(*stream_->codecpar),
      sample_aspect_(stream_->sample_aspect_ratio) {
    for (unsigned index = 0; index < format_->nb_streams; index++)
        format_->streams[index]->discard = AVDISCARD_ALL;
    stream_->discard = AVDISCARD_DEFAULT;
    for (const PlannedStream& other : plan_.others)
        format_->streams[other.index]->discard = AVDISCARD_DEFAULT;
    log_.watch(*format_);
    if (joiner_.active() || !has_average_rate()) count_pictures_in_rate();
}

std::vector<TimedStream> PacketSource::timed_streams() const {
    std::vector<TimedStream> streams;
    for (unsigned index = 0; index < format_->nb_streams; index++) {
        const AVStream& stream = *format_->streams[index];
        const bool leads = &stream == stream_;
        streams.push_back({.time_base = stream.time_base,
                           .wrap_bits = stream.pts_wrap_bits,
                           .continuous = leads || stream.codecpar->codec_type == AVMEDIA_TYPE_AUDIO,
                           .leads = leads});
    }
    return streams;
}

int PacketSource::interrupted(void* source) {
    const auto* self = static_cast<const PacketSource*>(source);
    return self->given_up_ || self->stopped();
}

void PacketSource::stop_reading() {
    give_up();
    reader_.reset();
}

int PacketSource::next(AVPacket& packet) {
    av_packet_unref(&packet);
    if (end_met_ < 0) return end_met_;
    std::optional<Read> read;
    if (!ahead_.empty()) {
        read = std::move(ahead_.front());
        ahead_.pop_front();
    } else {
        read = reader_ ? reader_->next() : read_next();
    }
    if (!read) return AVERROR_EOF;
    if (read->result != AVERROR(EAGAIN)) end_met_ = std::min(read->result, 0);
    std::move(read->others.begin(), read->others.end(), std::back_inserter(others_));
    sample_aspect_ = read->sample_aspect;
    if (read->result >= 0) av_packet_move_ref(&packet, read->packet.get());
    return read->result;
}

bool PacketSource::go_to(const KeyPicture& key) {
    // Containers are searched by the one time or the other; a little too early is no harm.
    const int64_t time = std::min(key.dts, key.pts);
    if (avformat_seek_file(format_.get(), stream_->index, std::numeric_limits<int64_t>::min(), time, time,
                           0) < 0)
        return false;
    timeline_ = Timeline(timed_streams(), format_->iformat->flags & AVFMT_TS_DISCONT);
    ahead_.clear();
    others_.clear();
    others_read_.clear();
    av_packet_unref(held_.get());
    end_ = read_end_ = end_met_ = 0;
    while (const AVPacket* packet = look_ahead(0)) {
        const bool is_key = packet->flags & AV_PKT_FLAG_KEY;
        if (is_key && packet->pts == key.pts) return true;
        if (is_key && packet->pts != AV_NOPTS_VALUE && packet->pts > key.pts) return false;
        ahead_.clear();
    }
    return false;
}

void PacketSource::read_in_thread() {
    constexpr size_t kPackets = 8;
    if (end_met_ < 0) return;
    may_pause_ = !joiner_.active();
    reader_ = std::make_unique<Ahead<Read>>(kPackets, [this, ended = false]() mutable {
        if (ended) return std::optional<Read>();
        std::optional<Read> read;
        if (given_up_ || stopped())
            read = {.packet = nullptr, .result = AVERROR_EXIT, .others = {}, .sample_aspect = {}};
        else
            read = read_next();
        ended = read->result < 0 && read->result != AVERROR(EAGAIN);
        return read;
    });
}

PacketSource::Read PacketSource::read_next() {
    Read read = {.packet = new_packet(), .result = 0, .others = {}, .sample_aspect = {}};
    read.result = read_whole(*read.packet);
    read.others = std::exchange(others_read_, {});
    read.sample_aspect = stream_->sample_aspect_ratio;
    return read;
}

/// The packet that next() will give after so many others; null where the stream ends before.
const AVPacket* PacketSource::look_ahead(size_t packets) {
    while (ahead_.size() <= packets) {
        Read read = read_next();
        std::move(read.others.begin(), read.others.end(), std::back_inserter(others_));
        read.others.clear();
        if (read.result < 0) return nullptr;  // next() will meet the same end
        ahead_.push_back(std::move(read));
    }
    return ahead_[packets].packet.get();
}

int PacketSource::read_whole(AVPacket& packet) {
    return joiner_.active() ? read_joined(packet) : read(packet);
}

/// Makes `packet` the stream's next one, and keeps what was read of the others on the way.
int PacketSource::read(AVPacket& packet) {
    for (;;) {
        while (PacketPtr next = timeline_.take()) {
            if (next->stream_index != stream_->index) {
                others_read_.push_back(std::move(next));
                continue;
            }
            av_packet_move_ref(&packet, next.get());
            return 0;
        }
        if (read_end_ < 0) return read_end_;
        if (may_pause_ && others_read_.size() >= kMostOthers) return AVERROR(EAGAIN);
        if (read_any() < 0) timeline_.finish();
    }
}

/// Puts the file's next packet of a stream that is wanted on the time line.
int PacketSource::read_any() {
    PacketPtr packet = new_packet();
    const uint64_t errors = log_.container_errors();
    read_end_ = std::min(av_read_frame(format_.get(), packet.get()), 0);
    if (read_end_ < 0) {
        note_end(log_.container_errors() != errors);
        return read_end_;
    }
    const auto index = static_cast<unsigned>(packet->stream_index);
    // A stream that appears only now has no place in the output any more.
    if (index >= planned_ && reading_.container != Container::kElementary &&
        std::find(late_streams_.begin(), late_streams_.end(), packet->stream_index) == late_streams_.end())
        late_streams_.push_back(packet->stream_index);
    if (index >= planned_ || format_->streams[index]->discard == AVDISCARD_ALL) return 0;
    if (format_->streams[index] == stream_) note_extent(*packet);
    timeline_.put(std::move(packet));
    return 0;
}

int PacketSource::read_joined(AVPacket& packet) {
    if (held_->size == 0 && end_ == 0) end_ = std::min(read(*held_), 0);
    if (held_->size == 0 && end_ < 0) return end_;
    av_packet_move_ref(&packet, held_.get());
    while (end_ == 0) {
        end_ = std::min(read(*held_), 0);
        if (end_ < 0 || !joiner_.continues(bytes_of(packet), bytes_of(*held_))) break;
        joiner_.append(packet, *held_);
        joined_++;
        av_packet_unref(held_.get());
    }
    return 0;
}

bool PacketSource::has_average_rate() const { return !timed() || is_rate(stream_->avg_frame_rate); }

/// Where samples are not whole pictures, libavformat has taken their rate for that of the pictures; where it
/// has no average, for uneven times in some containers, it has taken the ticks' rate.
void PacketSource::count_pictures_in_rate() {
    constexpr size_t kFew = 2, kMany = 60;
    const bool has_average = has_average_rate();
    std::vector<int64_t> times;
    while (ahead_.size() < (joined_ > 0 || !has_average ? kMany : kFew)) {
        const AVPacket* packet = look_ahead(ahead_.size());
        if (!packet) break;
        if (packet->pts != AV_NOPTS_VALUE) times.push_back(packet->pts);
    }
    if ((joined_ == 0 && has_average) || times.size() < 2) return;
    const auto [first, last] = std::minmax_element(times.begin(), times.end());
    const double seconds = static_cast<double>(*last - *first) * av_q2d(stream_->time_base);
    const double rate = static_cast<double>(times.size() - 1) / seconds;
    constexpr double kSame = 0.1;
    if (seconds <= 0 || std::abs(av_q2d(picture_rate(format_.get(), stream_)) / rate - 1) < kSame) return;
    stream_->avg_frame_rate = encoding::broadcast_rate(av_d2q(rate, 1001));
    if (joined_ > 0) stream_->r_frame_rate = stream_->avg_frame_rate;
}

void PacketSource::note_extent(const AVPacket& packet) {
    const int64_t time = packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
    last_is_short_ = packet.flags & AV_PKT_FLAG_CORRUPT;
    if (time != AV_NOPTS_VALUE && !last_is_short_) {
        const int64_t end = time + std::max<int64_t>(packet.duration, 0);
        first_time_ = first_time_ == AV_NOPTS_VALUE ? time : std::min(first_time_, time);
        end_time_ = end_time_ == AV_NOPTS_VALUE ? end : std::max(end_time_, end);
    }
    if (packet.pos >= 0 && packet.pos != positions_[0])
        positions_ = {packet.pos, positions_[0], positions_[1]};
}

void PacketSource::note_end(bool reader_complains) {
    reader_complained_ |= reader_complains;
    // Transport packets are of one size. With a time code in front of each, or a check sum behind, it is
    // another.
    constexpr std::array<int64_t, 3> kTransportPacketSizes = {188, 192, 204};
    const int64_t size = format_->pb ? avio_size(format_->pb) : -1;
    if (std::string_view(format_->iformat->name) != "mpegts" || size < 0 || positions_[2] < 0) return;
    for (const int64_t packet : kTransportPacketSizes)
        if ((positions_[0] - positions_[1]) % packet == 0 && (positions_[1] - positions_[2]) % packet == 0) {
            cut_ = (size - positions_[0]) % packet != 0;
            return;
        }
}

double PacketSource::missing_at_end() const {
    const bool confirmed = reader_complained_ || last_is_short_;
    const double tolerance = confirmed ? 0.5 / av_q2d(picture_rate(format_.get(), stream_)) : kEndTolerance;
    const double missing = promised_after_end(confirmed);
    return missing > tolerance ? missing : 0;
}

/// A file's duration may be that of its sound.
double PacketSource::promised_after_end(bool confirmed) const {
    if (format_->duration_estimation_method != AVFMT_DURATION_FROM_STREAM || end_time_ == AV_NOPTS_VALUE)
        return 0;
    const double tick = av_q2d(stream_->time_base);
    if (stream_->duration > 0)
        return static_cast<double>(stream_->duration - (end_time_ - first_time_)) * tick;
    if (format_->duration <= 0 || !(confirmed || format_->nb_streams == 1)) return 0;
    // Multiplexers count a file's duration from 0, too, whatever its first time is.
    return static_cast<double>(format_->duration) / AV_TIME_BASE - static_cast<double>(end_time_) * tick;
}

std::optional<CaptionForm> PacketSource::find_captions(double seconds) {
    const AVCodecID codec = stream_->codecpar->codec_id;
    if (!may_have_captions(codec)) return std::nullopt;
    double pictures_left = seconds * av_q2d(picture_rate(format_.get(), stream_));
    std::optional<CaptionForm> form;
    for (size_t n = 0; pictures_left > 0 && !form; n++, pictures_left--) {
        const AVPacket* packet = look_ahead(n);
        if (!packet) break;
        form = caption_form(codec, bytes_of(*packet));
    }
    std::error_code none;
    if (!form && pictures_left <= 0 && std::filesystem::is_regular_file(path_, none))
        form = captions_in_file();
    return form;
}

/// Reads the file up to its first captions.
std::optional<CaptionForm> PacketSource::captions_in_file() const {
    PacketSource again(
        path_, stop_,
        {.choice = reading_.choice, .container = Container::kElementary, .lines = reading_.lines});
    const PacketPtr packet = new_packet();
    std::optional<CaptionForm> form;
    while (!form && again.next(*packet) >= 0)
        form = caption_form(again.stream().codecpar->codec_id, bytes_of(*packet));
    return form;
}

}  // namespace gsve::programme
