#include "programme/packet_source.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <iterator>
#include <string_view>
#include <utility>
#include <vector>

#include "encoding/frame_rate.h"
#include "programme/open_input.h"
#include "programme/picture_rate.h"

namespace gsve::programme {
namespace {

// What a container's duration and its pictures may differ by, in seconds, as long as nothing else is wrong.
constexpr double kEndTolerance = 0.5;

}  // namespace

PacketSource::PacketSource(const std::string& path, StopRequest stop, DecoderLog::Lines lines)
    : path_(path), stop_(std::move(stop)), log_(lines) {
    VideoInput video = open_video_input(path, {interrupted, this});
    format_ = std::move(video.format);
    stream_ = video.stream;
    codec_ = video.codec;
    joiner_ = UnitJoiner(*stream_->codecpar);
    log_.watch(*format_);
    if (joiner_.active() || !has_average_rate()) count_pictures_in_rate();
}

int PacketSource::interrupted(void* source) { return static_cast<const PacketSource*>(source)->stopped(); }

int PacketSource::next(AVPacket& packet) {
    av_packet_unref(&packet);
    if (!ahead_.empty()) {
        av_packet_move_ref(&packet, ahead_.front().get());
        ahead_.pop_front();
        return 0;
    }
    return read_whole(packet);
}

int PacketSource::read_whole(AVPacket& packet) {
    return joiner_.active() ? read_joined(packet) : read(packet);
}

int PacketSource::read(AVPacket& packet) {
    for (;;) {
        const uint64_t errors = log_.container_errors();
        const int result = av_read_frame(format_.get(), &packet);
        if (result < 0) {
            note_end(log_.container_errors() != errors);
            return result;
        }
        if (packet.stream_index == stream_->index) {
            note_extent(packet);
            return result;
        }
        av_packet_unref(&packet);
    }
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
        PacketPtr packet = new_packet();
        if (read_whole(*packet) < 0) break;
        if (packet->pts != AV_NOPTS_VALUE) times.push_back(packet->pts);
        ahead_.push_back(std::move(packet));
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
    std::deque<PacketPtr> read;
    while (pictures_left > 0 && !form) {
        PacketPtr packet = new_packet();
        if (next(*packet) < 0) break;  // the decoder will meet the same end
        form = caption_form(codec, bytes_of(*packet));
        pictures_left--;
        read.push_back(std::move(packet));
    }
    read.insert(read.end(), std::move_iterator(ahead_.begin()), std::move_iterator(ahead_.end()));
    ahead_ = std::move(read);
    std::error_code none;
    if (!form && pictures_left <= 0 && std::filesystem::is_regular_file(path_, none))
        form = captions_in_file();
    return form;
}

/// Reads the file up to its first captions.
std::optional<CaptionForm> PacketSource::captions_in_file() const {
    PacketSource again(path_, stop_);
    const PacketPtr packet = new_packet();
    std::optional<CaptionForm> form;
    while (!form && again.next(*packet) >= 0)
        form = caption_form(again.stream().codecpar->codec_id, bytes_of(*packet));
    return form;
}

}  // namespace gsve::programme
