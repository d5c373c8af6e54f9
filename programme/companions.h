#pragma once

// The streams beside the picture on their way from an input to an output: sound, subtitles, data.

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "programme/av.h"
#include "programme/input.h"
#include "programme/output.h"
#include "programme/stream_account.h"
#include "programme/stream_converter.h"

namespace gsve::programme {

/// Outputs that end with their last picture, whatever is still to be heard.
bool ends_with_picture(Container container);

class CompanionStreams {
public:
    /// Looks at what the input has read so far: the earliest sound is where the output begins, so that what
    /// is heard before the first picture is not lost. Throws UsageError and Failure for sound that cannot
    /// become what is asked for.
    /// `loudness`: by the stream's index, of those that are to be brought to another.
    CompanionStreams(Input& input, const SoundChoice& sound, const OutputFormat& format,
                     std::map<int, Loudness> loudness);

    /// For the output to open with.
    Companions companions() const;

    /// Takes a packet of a stream, for the output.
    using Sink = std::function<void(size_t stream, PacketPtr packet)>;

    /// Hands over what the input has read since. May be called from a thread of its own.
    void pass(std::vector<PacketPtr> packets, const Sink& sink);

    /// Hands over the rest, once the input is at its end. `end`: of the last picture, in kTimeUnit on the
    /// input's time line.
    void finish(Output& output, int64_t end);

    /// What the output does otherwise than the input, or has no room for, a line each.
    std::string opening_notes() const;

    /// What was lost of the streams so far, a line each.
    std::string notes(const Output& output) const;

    /// What became of each, once they are finished.
    std::vector<StreamAccount> accounts() const;

private:
    struct Stream {
        int index = 0;  ///< in the input
        const AVStream* source = nullptr;
        ParametersPtr opened;  ///< as the source was described at first: reading may change its description
        std::unique_ptr<StreamConverter> converter;  ///< null: it is carried
        bool counts_samples = false;                 ///< the container has no times for each of its packets
        int64_t next = AV_NOPTS_VALUE;               ///< time after the latest packet, in the source's unit
        PacketPtr start_up;                          ///< the latest that an edit list leaves out
        uint64_t damaged = 0;                        ///< packets, as the container says
        uint64_t written = 0;                        ///< packets
        uint64_t pauses = 0;                         ///< of sound, where none came
        std::optional<int64_t> heard_to = {};        ///< end of the latest packet of sound, in kTimeUnit
        int64_t paused = 0;                          ///< how long they were in all, in kTimeUnit
        std::optional<uint32_t> coded_form = {};     ///< of the first packet
        std::optional<double> form_changes = {};     ///< after so many seconds
        Treatment treatment = Treatment::kCarried;   ///< what the container makes of it
        int64_t end = 0;  ///< of the latest of them, in kTimeUnit on the input's time line

        uint64_t lost() const { return std::max(damaged, converter ? converter->refused() : 0); }
        const AVCodecParameters& form() const { return converter ? converter->form() : *opened; }
        bool is_sound() const { return opened->codec_type == AVMEDIA_TYPE_AUDIO; }
    };

    Stream* find(int index);
    std::unique_ptr<StreamConverter> converter_of(const PlannedStream& planned, const AVStream& source,
                                                  const SoundChoice& sound, const OutputFormat& format) const;
    const AVPacket* first_of(int index) const;
    void carry(const Sink& sink, Stream& stream, PacketPtr packet);
    void watch_form(Stream& stream, const AVPacket& packet) const;
    void watch_pauses(Stream& stream, const AVPacket& packet) const;
    std::string loudness_note(const Stream& stream) const;
    void describe_change(std::string& notes, const Stream& stream) const;
    void fill_pause(const Sink& sink, Stream& stream, const AVPacket& packet);
    void pass(const Sink& sink, Stream& stream, PacketPtr packet);
    void place(AVPacket& packet, const Stream& stream) const;

    Input& input_;
    SoundChoice sound_;
    OutputFormat format_;
    std::map<int, Loudness> loudness_;
    std::vector<PacketPtr> first_;  ///< read before the output was open
    std::vector<Stream> streams_;
    // By how much sound is longer than the pictures of an output that has no room for it, in kTimeUnit.
    int64_t heard_before_ = 0;
    int64_t heard_after_ = 0;
    int64_t zero_;  ///< on the input's time line, where the output's begins
};

}  // namespace gsve::programme
