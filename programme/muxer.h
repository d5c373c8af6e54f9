#pragma once

// Packets into a container, through libavformat.

#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "encoding/picture_encoder.h"
#include "programme/av.h"
#include "programme/output.h"

namespace gsve::programme {

/// Whether an entry of metadata names the file that was read, or how it was written.
bool is_of_the_file(std::string_view key);

/// Where a container goes.
struct MuxerTarget {
    std::string url;                                                ///< as libavformat takes it
    std::string path;                                               ///< as the user gave it, for messages
    std::vector<std::pair<std::string, std::string>> options = {};  ///< the multiplexer's own
};

/// What goes with the pictures waits until a unit of its time comes: the multiplexers want their packets in
/// the order of time, and hold back none.
class Muxer {
public:
    /// Opens the target and writes the header. Throws Failure, as do all operations.
    Muxer(const OutputFormat& format, const MuxerTarget& target, encoding::PictureEncoder& encoder,
          const Companions& companions);

    // As Output has them.
    void write(const encoding::EncodedUnit& unit);
    void pass(size_t stream, PacketPtr packet);
    void end_with_picture();
    uint64_t overlapping() const { return overlapping_; }

    /// Writes what waits and the trailer, and closes the target.
    void finish();

private:
    /// The latest packet of a stream.
    struct Written {
        int64_t time = std::numeric_limits<int64_t>::min();  ///< in kTimeUnit
        int64_t dts = std::numeric_limits<int64_t>::min();   ///< in the stream's unit
    };

    void add_picture(encoding::PictureEncoder& encoder, const AVStream* source, bool is_hls);
    void add(const Companions::Stream& companion);
    void describe(const Companions& companions);
    void describe(const TransportChoice& transport);
    void add_chapter(const AVChapter& source, int64_t zero);
    void write_header(Container container, const MuxerTarget& target, const TransportChoice& transport);
    int64_t time_of(int64_t number) const;
    void write_waiting(int64_t up_to);
    void write(AVPacket& packet, int index);
    bool follows(const AVPacket& packet, Written& written);
    void make_rise(AVPacket& packet, Written& written) const;
    void check(int result) const;
    static int close_segment(AVFormatContext* output, AVIOContext* file);

    std::string path_;
    bool edit_units_;  ///< the multiplexer cuts sound into what goes with each picture
    int64_t picture_duration_;
    AVRational source_time_base_;
    int64_t start_;
    std::function<int64_t(int64_t)> time_of_;
    PacketPtr packet_ = new_packet();
    OutputPtr output_;
    std::multimap<int64_t, PacketPtr> waiting_;  ///< by the time of decoding
    std::vector<Written> written_;               ///< by stream
    int64_t latest_ = 0;
    int64_t picture_end_ = 0;
    uint64_t overlapping_ = 0;
    int segment_error_ = 0;  ///< of a file that the multiplexer opened and closed itself
};

}  // namespace gsve::programme
