#pragma once

// A media file as the packets of its video stream.

#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "programme/av.h"
#include "programme/caption_packets.h"

namespace gsve::programme {

/// Asked now and then; true ends reading, also where it waits for data.
using StopRequest = std::function<bool()>;

class PacketSource {
public:
    /// Opens `path`. Throws Failure where there is no such file, or no video in it.
    PacketSource(const std::string& path, StopRequest stop);
    PacketSource(const PacketSource&) = delete;
    PacketSource& operator=(const PacketSource&) = delete;

    AVFormatContext& format() const { return *format_; }
    AVStream& stream() const { return *stream_; }
    const AVCodec& codec() const { return *codec_; }  ///< decodes the stream

    /// Whether the container has times.
    bool timed() const { return !(format_->iformat->flags & AVFMT_NOTIMESTAMPS); }

    /// Whether reading is to end.
    bool stopped() const { return stop_ && stop_(); }

    /// Makes `packet` the stream's next one. Returns 0, or FFmpeg's error, AVERROR_EOF at the end.
    int next(AVPacket& packet);

    /// The form of the first captions: anywhere in a file, which can be read twice, or in the next `seconds`
    /// of what can be read only once, which are kept for next().
    std::optional<CaptionForm> find_captions(double seconds);

private:
    static int interrupted(void* source);
    std::optional<CaptionForm> captions_in_file() const;

    std::string path_;
    StopRequest stop_;
    InputPtr format_;
    AVStream* stream_ = nullptr;
    const AVCodec* codec_ = nullptr;
    std::deque<PacketPtr> ahead_;  ///< read while looking for captions
};

}  // namespace gsve::programme
