#pragma once

// Where the encoded stream goes: a file with the bare elementary stream, or a container with all that goes
// with it.

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "encoding/picture_encoder.h"
#include "programme/av.h"
#include "programme/stream_choice.h"
#include "programme/stream_table.h"

namespace gsve::programme {

/// A kind of output file.
struct OutputFormat {
    std::string_view extension;
    std::string_view codec;  ///< the elementary stream's, as the setting "encoder" names it; empty: any
    std::string_view muxer;  ///< libavformat's name of the container; empty: elementary stream
    Container container = Container::kElementary;
    bool fragments = false;  ///< HLS: segments of fragmented MP4, not of a transport stream
    double segment_seconds = kSegmentSeconds;

    /// Whether it has a place for the time code of the first picture.
    bool has_timecode() const;

    /// Whether the container wants the parameter sets once, in its own header.
    bool wants_global_header() const;
};

/// The kind that `format` names as a file's extension, or, where it is empty, the file's name. Throws
/// UsageError when there is none.
OutputFormat output_format(const std::string& path, const std::string& format = {});

/// Throws UsageError or Failure where `path` can be no output of `input`.
void check_output(const std::string& path, const std::string& format, const std::string& input);

/// What the output has beside the picture.
struct Companions {
    /// A stream as it is described to the container: its form, and what the input says of it.
    struct Stream {
        const AVCodecParameters* form = nullptr;
        const AVStream* source = nullptr;
    };

    const AVFormatContext* input = nullptr;  ///< its metadata and chapters are taken; null: there are none
    const AVProgram* program = nullptr;      ///< the input's; null: it has none
    const AVStream* picture = nullptr;       ///< the input's
    std::vector<Stream> streams;
    TransportChoice transport;
    std::string timecode;  ///< of the first picture; empty: none
    int64_t start = 0;     ///< of the picture, in kTimeUnit
    int64_t zero = 0;      ///< on the input's time line, where the output's begins
    /// When a picture is shown after the first one, by its number, in kTimeUnit; null: at the frame rate.
    std::function<int64_t(int64_t)> time_of;
};

class Output {
public:
    virtual ~Output() = default;
    virtual void write(const encoding::EncodedUnit& unit) = 0;

    /// Takes a packet of companion `stream`, with times in kTimeUnit on the output's own time line, ahead of
    /// the units of the same time. In each stream, times rise; what comes too early is left out, and counted.
    virtual void pass(size_t stream, PacketPtr packet) = 0;

    /// Leaves out what has been passed from the end of the last picture on.
    virtual void end_with_picture() {}

    /// The caption services in the pictures, as playlists name them: "CC1", "SERVICE1".
    virtual void declare_captions(const std::vector<std::string>&) {}

    /// Packets that were left out since they overlapped those before them.
    virtual uint64_t overlapping() const { return 0; }

    /// Completes the file, which then appears under its name. Without it, there is none: a file that was
    /// there before is as it was.
    virtual void finish() = 0;
};

/// Creates `path` for the stream of an opened encoder. Throws Failure, as do the output's operations.
std::unique_ptr<Output> open_output(const OutputFormat& format, const std::string& path,
                                    encoding::PictureEncoder& encoder, const Companions& companions = {});

}  // namespace gsve::programme
