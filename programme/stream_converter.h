#pragma once

// A stream that the output does not take as it is, or not as the user wants it, encoded anew.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "programme/av.h"
#include "programme/loudness.h"
#include "programme/sound_form.h"

namespace gsve::programme {

class StreamConverter {
public:
    virtual ~StreamConverter() = default;

    /// What the container has to know of the new stream.
    virtual const AVCodecParameters& form() const = 0;

    /// The unit of the new packets' times.
    virtual AVRational time_base() const = 0;

    /// Takes the next packet, with times on the input's time line in the source's unit; null: there is none
    /// any more. Gives the packets that are complete, with times on the same line. What cannot be decoded is
    /// left out, and counted.
    virtual std::vector<PacketPtr> convert(const AVPacket* packet) = 0;

    /// What is to be heard ends there, in kTimeUnit on the input's time line: silence fills what is missing.
    /// To be told before the last convert().
    virtual void end_at(int64_t) {}

    /// Packets that could not be decoded.
    virtual uint64_t refused() const = 0;

    /// Whether what is coded stays as it is, and only its wrapping changes.
    virtual bool keeps_coding() const { return false; }

    /// Of what it has made, at the end; nothing where that is not measured.
    virtual std::optional<Loudness> loudness() { return std::nullopt; }
};

/// Sound to sound, on a line without pauses. `first`: its first packet, whose AC-3 metadata are kept; null:
/// none is known. Throws UsageError for what the encoder does not take, and Failure.
std::unique_ptr<StreamConverter> convert_sound(const AVStream& source, const AVPacket* first,
                                               const SoundForm& form);

/// AAC with a header in front of each frame (ADTS) to AAC without. `first`: its first packet. Throws Failure
/// where that has none.
std::unique_ptr<StreamConverter> repack_aac(const AVStream& source, const AVPacket* first);

/// Text subtitles to the form of an encoder that FFmpeg calls `codec`. Throws Failure.
std::unique_ptr<StreamConverter> convert_text(const AVStream& source, const std::string& codec);

}  // namespace gsve::programme
