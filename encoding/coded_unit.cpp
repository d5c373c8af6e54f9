#include "encoding/coded_unit.h"

#include <string.h>

#include <algorithm>
#include <array>

#include "encoding/start_codes.h"

namespace gsve::encoding {
namespace {

using Bytes = std::span<const uint8_t>;

// Start codes of ISO/IEC 13818-2, table 6-1.
enum StartCode : uint8_t { kUserData = 0xB2, kGroup = 0xB8 };

bool starts_with(Bytes bytes, std::initializer_list<uint8_t> head) {
    return bytes.size() >= head.size() && std::equal(head.begin(), head.end(), bytes.begin());
}

//   drop_frame_flag 1, hours 5, minutes 6, marker 1, seconds 6, pictures 6, closed_gop 1, broken_link 1
std::optional<GopStart> read_group_header(Bytes payload) {
    if (payload.size() < 4) return std::nullopt;
    const unsigned word = static_cast<unsigned>(payload[0]) << 24 | static_cast<unsigned>(payload[1]) << 16 |
                          static_cast<unsigned>(payload[2]) << 8 | payload[3];
    const auto bits = [word](int lowest, int count) {
        return static_cast<int>(word >> lowest & ((1u << count) - 1));
    };
    return GopStart{.closed = bits(6, 1) == 1,
                    .broken_link = bits(5, 1) == 1,
                    .timecode = captions::Timecode{.hours = bits(26, 5),
                                                   .minutes = bits(20, 6),
                                                   .seconds = bits(13, 6),
                                                   .frames = bits(7, 6),
                                                   .drop_frame = bits(31, 1) == 1}};
}

// ATSC A/53 Part 4, 6.2.3, after "GA94" and user_data_type_code 3: process_cc_data_flag and cc_count,
// em_data, then the triples.
void read_ga94(Bytes body, UnitCaptions& captions) {
    constexpr uint8_t kProcessCcDataFlag = 0x40, kCcCount = 0x1F;
    if (body.size() < 2) {
        captions.damaged++;
        return;
    }
    if (!(body[0] & kProcessCcDataFlag)) return;
    const size_t wanted = 3u * (body[0] & kCcCount);
    const size_t whole = std::min(wanted, (body.size() - 2) / 3 * 3);
    captions.damaged += whole != wanted;
    if (!captions.cc_data) captions.cc_data.emplace();
    captions.cc_data->insert(captions.cc_data->end(), body.begin() + 2,
                             body.begin() + 2 + static_cast<ptrdiff_t>(whole));
}

// After 43 43 01 F8: the number of constructs in bits 1 to 6, then constructs of three bytes, FF for field 1
// and FE for field 2, a pair of them for each picture.
void read_cc(Bytes body, UnitCaptions& captions) {
    constexpr uint8_t kField1 = 0xFF, kField2 = 0xFE;
    if (body.empty()) {
        captions.damaged++;
        return;
    }
    if (!captions.cc) captions.cc.emplace();
    const size_t pictures = (body[0] & 0x7Eu) / 2;
    for (size_t at = 1; at < 1 + 6 * pictures; at += 6) {
        if (body.size() < at + 6 || (body[at] & 0xFE) != 0xFE ||
            (body[at] ^ body[at + 3]) != (kField1 ^ kField2)) {
            captions.damaged++;
            return;
        }
        const captions::Word first = captions::make_word(body[at + 1], body[at + 2]);
        const captions::Word second = captions::make_word(body[at + 4], body[at + 5]);
        captions.cc->push_back(body[at] == kField1 ? std::pair(first, second) : std::pair(second, first));
    }
}

void read_scte20(Bytes body, UnitCaptions& captions) {
    const auto constructs = captions::parse_scte20(body);
    if (!constructs) {
        captions.damaged++;
        return;
    }
    if (!captions.scte20) captions.scte20.emplace();
    captions.scte20->insert(captions.scte20->end(), constructs->begin(), constructs->end());
}

void read_user_data(Bytes payload, UnitCaptions& captions) {
    if (starts_with(payload, {'G', 'A', '9', '4', 3})) return read_ga94(payload.subspan(5), captions);
    if (starts_with(payload, {'C', 'C', 0x01, 0xF8})) return read_cc(payload.subspan(4), captions);
    if (starts_with(payload, {captions::kScte20UserDataTypeCode})) read_scte20(payload.subspan(1), captions);
}

UnitContents read_mpeg_video(Bytes unit) {
    UnitContents contents;
    for (const Section& section : sections(unit)) {
        const Bytes payload = section.bytes.subspan(1);
        switch (section.bytes[0]) {
            case kGroup: contents.gop = read_group_header(payload); break;
            case kUserData: read_user_data(payload, contents.captions); break;
            default: break;
        }
    }
    return contents;
}

/// Whether one of the NAL units is of a picture after which nothing that is decoded refers to earlier ones.
bool closes_gop(AVCodecID codec, Bytes unit) {
    constexpr int kH264Idr = 5, kH265BrokenWithDecodableLeading = 17, kH265Idr = 20;  // and what lies between
    const std::vector<Section> nals = sections(unit);
    return std::any_of(nals.begin(), nals.end(), [codec](const Section& nal) {
        const int h265_type = nal.bytes[0] >> 1 & 0x3F;
        return codec == AV_CODEC_ID_H264
                   ? (nal.bytes[0] & 0x1F) == kH264Idr
                   : h265_type >= kH265BrokenWithDecodableLeading && h265_type <= kH265Idr;
    });
}

}  // namespace

std::vector<uint8_t> nal_cc_data(std::span<const uint8_t> unit) {
    constexpr std::array<uint8_t, 8> kMessage = {0xB5, 0x00, 0x31, 'G', 'A', '9', '4', 3};
    constexpr size_t kLongest = 2 + 3 * 31;  // flags, em_data, and as many triples as cc_count can tell
    UnitCaptions captions;
    for (Bytes rest = unit; !rest.empty();) {
        const void* found = memmem(rest.data(), rest.size(), kMessage.data(), kMessage.size());
        if (!found) break;
        rest = rest.subspan(static_cast<size_t>(static_cast<const uint8_t*>(found) - rest.data()) +
                            kMessage.size());
        // Emulation prevention adds at most one byte to two.
        const std::vector<uint8_t> body = rbsp_of(rest.first(std::min(rest.size(), kLongest * 3 / 2)), 0);
        read_ga94(body, captions);
    }
    return captions.cc_data.value_or(std::vector<uint8_t>());
}

bool is_mpeg_video(AVCodecID codec) {
    return codec == AV_CODEC_ID_MPEG2VIDEO || codec == AV_CODEC_ID_MPEG1VIDEO;
}

UnitContents read_unit(AVCodecID codec, std::span<const uint8_t> unit, bool key) {
    if (is_mpeg_video(codec)) return read_mpeg_video(unit);
    const bool has_nal_units = codec == AV_CODEC_ID_H264 || codec == AV_CODEC_ID_HEVC;
    UnitContents contents;
    if (has_nal_units && closes_gop(codec, unit))
        contents.gop = GopStart{.closed = true, .broken_link = false, .timecode = {}};
    else if (key)
        contents.gop = GopStart{.closed = !has_nal_units, .broken_link = false, .timecode = {}};
    return contents;
}

}  // namespace gsve::encoding
