#include "programme/unit_joiner.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace gsve::programme {
namespace {

using Bytes = std::span<const uint8_t>;

// NAL unit types of ITU-T H.264, table 7-1, and of H.265, table 7-1.
int h264_type(Bytes nal) { return nal[0] & 0x1F; }
int h265_type(Bytes nal) { return nal[0] >> 1 & 0x3F; }

/// The first NAL unit, and what comes behind it; empty where the length is impossible.
Bytes take_nal(Bytes& data, size_t length_size) {
    if (data.size() < length_size) return data = {};
    size_t length = 0;
    for (size_t n = 0; n < length_size; n++) length = length << 8 | data[n];
    if (length > data.size() - length_size) return data = {};
    const Bytes nal = data.subspan(length_size, length);
    data = data.subspan(length_size + length);
    return nal;
}

}  // namespace

UnitJoiner::UnitJoiner(const AVCodecParameters& stream) : codec_(stream.codec_id) {
    // ISO/IEC 14496-15, 5.3.3.1.2 and 8.3.3.1.2: configurationVersion 1 begins the record;
    // lengthSizeMinusOne.
    const size_t at = codec_ == AV_CODEC_ID_H264 ? 4 : codec_ == AV_CODEC_ID_HEVC ? 21 : 0;
    if (at == 0 || stream.extradata_size <= static_cast<int>(at) || stream.extradata[0] != 1) return;
    length_size_ = (stream.extradata[at] & 3u) + 1;
}

bool UnitJoiner::is_slice(Bytes nal) const {
    if (nal.empty()) return false;
    return codec_ == AV_CODEC_ID_H264 ? h264_type(nal) >= 1 && h264_type(nal) <= 5 : h265_type(nal) < 32;
}

/// Whether there are NAL units in front of a picture's first slice, whole ones and nothing else.
bool UnitJoiner::awaits_slice(Bytes unit) const {
    while (!unit.empty()) {
        const Bytes nal = take_nal(unit, length_size_);
        if (nal.empty() || is_slice(nal)) return false;
    }
    return true;
}

/// Whether a NAL unit belongs to the picture whose slice came before it: H.264, 7.4.1.2.3, and H.265,
/// 7.4.2.4.4.
bool UnitJoiner::follows_slice(Bytes nal) const {
    if (codec_ == AV_CODEC_ID_H264) {
        constexpr int kPartitionB = 3, kPartitionC = 4, kEndOfSequence = 10, kFirstReserved = 14,
                      kLastReserved = 18;
        const int type = h264_type(nal);
        if (type == kPartitionB || type == kPartitionC) return true;
        if (!is_slice(nal))
            return type >= kEndOfSequence && !(type >= kFirstReserved && type <= kLastReserved);
        return nal.size() > 1 && !(nal[1] & 0x80);  // first_mb_in_slice, ue(v): a leading one is 0
    }
    constexpr int kSuffixes[] = {36, 37, 38, 40, 45, 46, 47};  // ends, filler, suffix SEI, reserved
    const int type = h265_type(nal);
    if (is_slice(nal)) return nal.size() > 2 && !(nal[2] & 0x80);  // first_slice_segment_in_pic_flag
    return type >= 56 || std::find(std::begin(kSuffixes), std::end(kSuffixes), type) != std::end(kSuffixes);
}

bool UnitJoiner::continues(Bytes unit, Bytes next) const {
    const Bytes nal = take_nal(next, length_size_);
    if (nal.empty()) return false;
    return awaits_slice(unit) || follows_slice(nal);
}

/// Whether a NAL unit tells that the picture is one to begin with. (libavformat looks for that in each sample
/// alone: a recovery point has its SEI message, and no slice of it.)
bool UnitJoiner::begins_decoding(Bytes nal) const {
    constexpr int kH264Idr = 5, kH264Sei = 6, kRecoveryPoint = 6, kFirstIrap = 16, kLastIrap = 23;
    if (nal.size() < 2) return false;
    if (codec_ == AV_CODEC_ID_HEVC) return h265_type(nal) >= kFirstIrap && h265_type(nal) <= kLastIrap;
    return h264_type(nal) == kH264Idr || (h264_type(nal) == kH264Sei && nal[1] == kRecoveryPoint);
}

void UnitJoiner::append(AVPacket& unit, const AVPacket& next) const {
    const int size = unit.size;
    check_memory(av_grow_packet(&unit, next.size) >= 0);
    std::memcpy(unit.data + size, next.data, static_cast<size_t>(next.size));
    // The end of an edit list may fall within the picture, whose time is its first part's.
    const int shown_after_all = ~(unit.flags & next.flags) & AV_PKT_FLAG_DISCARD;
    unit.flags = (unit.flags | next.flags) & ~shown_after_all;
    for (Bytes rest = bytes_of(unit); !rest.empty();)
        if (begins_decoding(take_nal(rest, length_size_))) unit.flags |= AV_PKT_FLAG_KEY;
    unit.duration += next.duration;
    if (unit.pts == AV_NOPTS_VALUE) unit.pts = next.pts;
    if (unit.dts == AV_NOPTS_VALUE) unit.dts = next.dts;
}

}  // namespace gsve::programme
