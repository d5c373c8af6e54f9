#pragma once

// Everything that one encoding is told: a value that a command, a farm's chunk and a test describe alike.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "captions/repacer.h"
#include "captions/timecode.h"
#include "programme/key_index.h"
#include "programme/stream_choice.h"

namespace gsve::programme {

/// The captions of a part of a programme, as they were planned over the whole of it.
struct PlannedCaptions {
    struct Picture {
        uint64_t number = 0;
        captions::PictureWrites writes;

        friend bool operator==(const Picture&, const Picture&) = default;
    };
    bool present = false;           ///< the whole has captions
    std::vector<Picture> pictures;  ///< with captions, in their order

    friend bool operator==(const PlannedCaptions&, const PlannedCaptions&) = default;
};

/// Which captions go out, and how.
struct CaptionChoice {
    bool carry_over = true;          ///< take the input's captions when there are no files
    std::vector<std::string> files;  ///< the first for one field, the second for the other
    int field = 0;                   ///< of the first file, 1 or 2; 0: not given
    std::optional<int> rows;         ///< SRT, WebVTT: the most rows of a caption
    std::string start;               ///< the file's time, or time code, for the first picture; empty: zero
    bool scte20 = false;             ///< send the byte pairs as SCTE 20 user data, too
    std::optional<PlannedCaptions> planned;  ///< in place of the input's and of files

    friend bool operator==(const CaptionChoice&, const CaptionChoice&) = default;
};

/// What EncodeJob::timecode takes to mean the input's own time code.
inline constexpr const char* kSourceTimecode = "source";

/// A setting's key and value, as GeneralStreamingVideoEncoder::on_set() takes them.
using JobSetting = std::pair<std::string, std::string>;

/// A part of a programme, which is encoded as it would be in the whole, but for its first picture, which
/// needs none before it. Pictures are numbered from 0 at the job's frame rate.
struct PictureRange {
    uint64_t begin = 0;
    uint64_t end = 0;      ///< the picture after the last one
    uint64_t warm_up = 0;  ///< so many before the first are encoded and thrown away, for the rate control
    std::optional<KeyPicture>
        key;  ///< of the input, with which decoding may begin; nothing: with the first one

    friend bool operator==(const PictureRange&, const PictureRange&) = default;
};

struct EncodeJob {
    std::string input;
    std::string output;                ///< a file's name; "-": standard output
    std::string format;                ///< of the output, as a file's extension, "ts"; empty: by its name
    std::vector<JobSetting> settings;  ///< in order; a key's last value holds
    std::vector<std::string> decided;  ///< the keys among them that the user gave: no other value is better
    std::string frame_rate;            ///< "25" or "30000/1001"; empty: the source's
    CaptionChoice captions;
    StreamChoice choice;
    SoundChoice sound;
    TransportChoice transport;
    HlsChoice hls;
    double longest_repeat =
        kLongestRepeat;        ///< seconds for which a file's pause is filled with its last picture
    bool keep_colour = false;  ///< leave sample values as they are where the size calls for another matrix
    std::string timecode;      ///< of the first picture, at the encoded rate; kSourceTimecode; empty: none
    bool adapt = false;        ///< let the processor's load coarsen MPEG-2 pictures
    std::optional<PictureRange> range;  ///< nothing: the whole programme
    bool quality = false;               ///< measure each picture's PSNR and SSIM, which changes no byte
    int threads = 0;          ///< of the codec; 0: as it chooses on this machine, which the result then tells
    int decoder_threads = 0;  ///< of the input's; 0: as fits its codec, which the result then tells

    friend bool operator==(const EncodeJob&, const EncodeJob&) = default;
};

/// The last value of a setting; empty where it is not given.
std::string setting_of(const EncodeJob& job, const std::string& key);

/// Throws UsageError for a job that contradicts itself, or its output's format.
void check(const EncodeJob& job);

/// The rate that `frame_rate` names; nothing where it is empty. Throws UsageError where it names none.
std::optional<captions::FrameRate> job_frame_rate(const EncodeJob& job);

}  // namespace gsve::programme
