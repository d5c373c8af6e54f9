#pragma once

// A media file as the packets of its picture, and those that go with them into the output.

#include <array>
#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "programme/ahead.h"
#include "programme/av.h"
#include "programme/caption_packets.h"
#include "programme/decoder_log.h"
#include "programme/key_index.h"
#include "programme/open_input.h"
#include "programme/stream_plan.h"
#include "programme/timeline.h"
#include "programme/unit_joiner.h"

namespace gsve::programme {

/// Asked now and then; true ends reading, also where it waits for data.
using StopRequest = std::function<bool()>;

/// What is to be read.
struct Reading {
    StreamChoice choice;
    Container container = Container::kElementary;  ///< for which one: as it is, for the picture alone
    DecoderLog::Lines lines = DecoderLog::Lines::kPrinted;
};

class PacketSource {
public:
    /// Opens `path`. Throws Failure where there is no such file, or no picture in it, and UsageError where
    /// the choice does not fit it.
    PacketSource(const std::string& path, StopRequest stop, const Reading& reading = {});
    PacketSource(const PacketSource&) = delete;
    PacketSource& operator=(const PacketSource&) = delete;

    AVFormatContext& format() const { return *format_; }
    AVStream& stream() const { return *stream_; }
    const AVCodec& codec() const { return *plan_.codec; }  ///< decodes the stream
    const StreamPlan& plan() const { return plan_; }

    /// Whether the container has times.
    bool timed() const { return !(format_->iformat->flags & AVFMT_NOTIMESTAMPS); }

    /// Whether reading is to end.
    bool stopped() const { return stop_ && stop_(); }

    /// For who decodes the packets, too.
    DecoderLog& log() { return log_; }

    /// Makes `packet` the stream's next one, which holds the whole of a picture or field. Returns 0, or
    /// FFmpeg's error, AVERROR_EOF at the end; in a thread, AVERROR(EAGAIN) where so much of the others was
    /// read meanwhile that it is to be taken first.
    int next(AVPacket& packet);

    /// The packets of other streams that were read since the last call, in their order.
    std::vector<PacketPtr> take_others() { return std::exchange(others_, {}); }

    /// The samples' aspect ratio as the container has it for the packet that next() gave last.
    AVRational sample_aspect() const { return sample_aspect_; }

    /// Goes on with a key picture. False where the container does not lead there; nothing can be read then.
    bool go_to(const KeyPicture& key);

    /// From now on, reads in a thread of its own, some packets ahead of next(). What is told of the whole
    /// file may be asked for once next() has come to the end, or after stop_reading().
    void read_in_thread();
    void stop_reading();

    /// Nobody wants what is still to be read: a read that waits comes back. May be called from any thread.
    void give_up() { given_up_ = true; }

    /// Streams that began when the output's header was written, and are left out.
    const std::vector<int>& late_streams() const { return late_streams_; }

    /// Where the input's clock was set anew, so far.
    const std::vector<ClockJump>& clock_jumps() const { return timeline_.jumps(); }

    /// The form of the first captions: anywhere in a file, which can be read twice, or in the next `seconds`
    /// of what can be read only once, which are kept for next().
    std::optional<CaptionForm> find_captions(double seconds);

    /// Once next() has come to the end: by how much the container promises more, in seconds; 0: it does not.
    double missing_at_end() const;

    /// Once next() has come to the end: the data end within a packet.
    bool ends_within_packet() const { return cut_; }

private:
    /// What one reading gave.
    struct Read {
        PacketPtr packet;
        int result = 0;
        std::vector<PacketPtr> others;
        AVRational sample_aspect = {};
    };

    Read read_next();
    const AVPacket* look_ahead(size_t packets);
    int read_whole(AVPacket& packet);
    int read(AVPacket& packet);
    int read_any();
    std::vector<TimedStream> timed_streams() const;
    int read_joined(AVPacket& packet);
    bool has_average_rate() const;
    void count_pictures_in_rate();
    void note_extent(const AVPacket& packet);
    void note_end(bool reader_complains);
    double promised_after_end(bool confirmed) const;
    static int interrupted(void* source);
    std::optional<CaptionForm> captions_in_file() const;

    std::string path_;
    std::atomic<bool> given_up_ = false;
    StopRequest stop_;
    Reading reading_;
    DecoderLog log_;
    OpenInput format_;
    StreamPlan plan_;
    AVStream* stream_;
    Timeline timeline_;
    unsigned planned_;  ///< streams when the file was opened
    std::vector<int> late_streams_;
    int read_end_ = 0;                    ///< what reading the file ended with
    std::vector<PacketPtr> others_read_;  ///< since the latest packet of the stream
    bool may_pause_ = false;              ///< reading ends after so many of them
    UnitJoiner joiner_;
    PacketPtr held_ = new_packet();  ///< read to see that it does not continue the one before
    int end_ = 0;                    ///< what reading ended with
    int joined_ = 0;                 ///< packets that continued another
    std::deque<Read> ahead_;         ///< read while looking for captions, or for the rate

    // Of the packets that have been read, in the stream's unit.
    int64_t first_time_ = AV_NOPTS_VALUE;
    int64_t end_time_ = AV_NOPTS_VALUE;
    std::array<int64_t, 3> positions_ = {-1, -1, -1};  ///< of the latest in the file, the last one first
    bool last_is_short_ = false;                       ///< as the container says
    bool reader_complained_ = false;                   ///< at the end
    bool cut_ = false;

    // Of who calls next().
    int end_met_ = 0;  ///< what it gave at the end
    std::vector<PacketPtr> others_;
    AVRational sample_aspect_;
    std::unique_ptr<Ahead<Read>> reader_;
};

}  // namespace gsve::programme
