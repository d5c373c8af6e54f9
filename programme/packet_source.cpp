#include "programme/packet_source.h"

#include <filesystem>
#include <new>
#include <utility>

#include "programme/open_input.h"
#include "programme/picture_rate.h"

namespace gsve::programme {

PacketSource::PacketSource(const std::string& path, StopRequest stop) : path_(path), stop_(std::move(stop)) {
    VideoInput video = open_video_input(path, {interrupted, this});
    format_ = std::move(video.format);
    stream_ = video.stream;
    codec_ = video.codec;
}

int PacketSource::interrupted(void* source) { return static_cast<const PacketSource*>(source)->stopped(); }

int PacketSource::next(AVPacket& packet) {
    av_packet_unref(&packet);
    if (!ahead_.empty()) {
        av_packet_move_ref(&packet, ahead_.front().get());
        ahead_.pop_front();
        return 0;
    }
    for (;;) {
        const int result = av_read_frame(format_.get(), &packet);
        if (result < 0 || packet.stream_index == stream_->index) return result;
        av_packet_unref(&packet);
    }
}

std::optional<CaptionForm> PacketSource::find_captions(double seconds) {
    const AVCodecID codec = stream_->codecpar->codec_id;
    if (!may_have_captions(codec)) return std::nullopt;
    double pictures_left = seconds * av_q2d(picture_rate(format_.get(), stream_));
    std::optional<CaptionForm> form;
    std::deque<PacketPtr> read;
    while (pictures_left > 0 && !form) {
        PacketPtr packet(av_packet_alloc());
        if (!packet) throw std::bad_alloc();
        if (next(*packet) < 0) break;  // the decoder will meet the same end
        form = caption_form(codec, bytes_of(*packet));
        pictures_left--;
        read.push_back(std::move(packet));
    }
    ahead_ = std::move(read);
    std::error_code none;
    if (!form && pictures_left <= 0 && std::filesystem::is_regular_file(path_, none))
        form = captions_in_file();
    return form;
}

/// Reads the file up to its first captions.
std::optional<CaptionForm> PacketSource::captions_in_file() const {
    PacketSource again(path_, stop_);
    const PacketPtr packet(av_packet_alloc());
    if (!packet) throw std::bad_alloc();
    std::optional<CaptionForm> form;
    while (!form && again.next(*packet) >= 0)
        form = caption_form(again.stream().codecpar->codec_id, bytes_of(*packet));
    return form;
}

}  // namespace gsve::programme
