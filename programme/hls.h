#pragma once

// HTTP Live Streaming (RFC 8216), for files: a master playlist, and beside it a folder with a playlist and
// the segments of each rendition.

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "encoding/picture_encoder.h"
#include "programme/output.h"

namespace gsve::programme {

/// Creates the folder for `path`, the master playlist. Throws Failure.
std::unique_ptr<Output> open_hls(const OutputFormat& format, const std::string& path,
                                 encoding::PictureEncoder& encoder, const Companions& companions);

/// The folder that goes with a master playlist: "film.segments" beside "film.m3u8".
std::string hls_folder(const std::string& path);

/// How a codec is called in playlists (RFC 6381): "avc1.64001F". `parameter_sets` has those of the stream,
/// with start codes; empty: nothing is known by this name.
std::string playlist_codec(AVCodecID codec, std::span<const uint8_t> parameter_sets);

/// What a media playlist says of its segments, with their sizes.
struct SegmentRates {
    double peak = 0;  ///< bits/s of the segment with the highest rate
    double mean = 0;
};

/// Reads a media playlist, and looks at the files that it names.
SegmentRates segment_rates(const std::string& playlist);

}  // namespace gsve::programme
