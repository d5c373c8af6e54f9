#include "encoding/stream_headers.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>

extern "C" {
#include <libavcodec/bsf.h>
#include <libavutil/opt.h>
}

#include "captions/bits.h"
#include "encoding/av.h"
#include "encoding/codec_id.h"
#include "encoding/hrd_syntax.h"
#include "encoding/start_codes.h"

namespace gsve::encoding {
namespace {

using captions::get_bits, captions::put_bits;
using Bytes = std::vector<uint8_t>;
using BitstreamFilter = std::unique_ptr<AVBSFContext, FreeByAddress<av_bsf_free>>;

// Start codes of ISO/IEC 13818-2, table 6-1, and NAL unit types of table 7-1 of ITU-T H.264 and H.265.
enum StartCode : uint8_t { kUserData = 0xB2, kSequenceHeader = 0xB3, kExtension = 0xB5 };
enum NalType { kH264Sps = 7, kH264Pps = 8, kH264SpsExtension = 13, kH265Vps = 32, kH265Pps = 34 };

constexpr double kMpeg2RateUnit = 400, kMpeg2BufferUnit = 16384;  ///< bits/s and bits, 6.3.3
constexpr double kUnfilled =
    8 * 6;  ///< bits: less than a NAL unit of filler data waits until there is room for one
constexpr double kHrdRateUnit = 64, kHrdSizeUnit = 16;  ///< the finest, E.2.2 of ITU-T H.264

bool is_header(int codec_id, uint8_t code) {
    if (codec_id == kMpeg2) return code == kSequenceHeader || code == kExtension || code == kUserData;
    if (codec_id == kH264) {
        const int type = code & 0x1F;
        return type == kH264Sps || type == kH264Pps || type == kH264SpsExtension;
    }
    const int type = code >> 1 & 0x3F;
    return type >= kH265Vps && type <= kH265Pps;
}

bool begins_headers(int codec_id, uint8_t code) {
    return codec_id == kMpeg2 ? code == kSequenceHeader : is_header(codec_id, code);
}

struct Range {
    size_t begin = 0, end = 0;
};

/// The headers of a unit, which stand in one place; empty where it has none.
Range headers_in(int codec_id, std::span<const uint8_t> unit) {
    Range range;
    for (const Section& section : codec_id == kMpeg2 ? sections(unit) : nal_units(unit)) {
        const uint8_t code = section.bytes[0];
        if (range.end == 0 && !begins_headers(codec_id, code)) continue;
        if (range.end != 0 && !is_header(codec_id, code)) break;
        if (range.end == 0) range.begin = section.begin;
        range.end = section.end;
    }
    return range;
}

uint64_t rounded_up(double value, double unit) {
    return static_cast<uint64_t>(std::ceil(value / unit - 1e-9));
}

// The fields of the sequence header and of the sequence extension, and where they begin behind the prefix.
constexpr int kRateBits = 18, kBufferBits = 10, kRateExtensionBits = 12, kBufferExtensionBits = 8;
constexpr size_t kRateAt = 8 + 12 + 12 + 4 + 4, kBufferAt = kRateAt + kRateBits + 1;
constexpr size_t kRateExtensionAt = 8 + 4 + 8 + 1 + 2 + 2 + 2;
constexpr size_t kBufferExtensionAt = kRateExtensionAt + kRateExtensionBits + 1;
constexpr unsigned kSequenceExtension = 1, kVariableRate = 0x3FFFF;

/// The decoder buffer of the level, in units of the header (ISO/IEC 13818-2, table 8-13); at a level that is
/// not known, any.
unsigned largest_buffer(unsigned profile_and_level) {
    switch (profile_and_level & 0x0F) {
        case 10: return 29;  // low
        case 8: return 112;  // main
        case 6: return 448;  // high 1440
        case 4: return 597;  // high
        default: return 0x3FFFF;
    }
}

struct FilterOption {
    const char* name;
    int64_t value;
};

/// What libavcodec's filter is told; nothing where there is nothing to tell.
std::vector<FilterOption> filter_options(int codec_id, const Colour& colour) {
    std::vector<FilterOption> options;
    if (colour.is_described()) {
        options.push_back({"colour_primaries", colour.primaries});
        options.push_back({"transfer_characteristics", colour.transfer});
        options.push_back({"matrix_coefficients", colour.matrix});
    }
    if (codec_id == kMpeg2) return options;
    if (colour.range != AVCOL_RANGE_UNSPECIFIED)
        options.push_back({"video_full_range_flag", colour.range == AVCOL_RANGE_JPEG});
    if (colour.chroma_location != AVCHROMA_LOC_UNSPECIFIED)
        options.push_back({"chroma_sample_loc_type", colour.chroma_location - AVCHROMA_LOC_LEFT});
    return options;
}

/// Headers through libavcodec's filter of metadata; nothing where it does not take them.
std::optional<Bytes> with_colour(int codec_id, const Bytes& headers,
                                 const std::vector<FilterOption>& options) {
    const char* name = codec_id == kMpeg2  ? "mpeg2_metadata"
                       : codec_id == kH264 ? "h264_metadata"
                                           : "hevc_metadata";
    const AVBitStreamFilter* known = av_bsf_get_by_name(name);
    AVBSFContext* context = nullptr;
    if (!known) return std::nullopt;
    check_memory(av_bsf_alloc(known, &context) >= 0);
    const BitstreamFilter filter(context);
    context->par_in->codec_type = AVMEDIA_TYPE_VIDEO;
    context->par_in->codec_id = codec_id == kMpeg2  ? AV_CODEC_ID_MPEG2VIDEO
                                : codec_id == kH264 ? AV_CODEC_ID_H264
                                                    : AV_CODEC_ID_HEVC;
    for (const FilterOption& option : options)
        if (av_opt_set_int(context->priv_data, option.name, option.value, 0) < 0) return std::nullopt;
    const PacketPtr packet = new_packet();
    check_memory(av_new_packet(packet.get(), static_cast<int>(headers.size())) >= 0);
    std::copy(headers.begin(), headers.end(), packet->data);
    if (av_bsf_init(context) < 0 || av_bsf_send_packet(context, packet.get()) < 0 ||
        av_bsf_receive_packet(context, packet.get()) < 0)
        return std::nullopt;
    const std::span<const uint8_t> bytes = bytes_of(*packet);
    return Bytes(bytes.begin(), bytes.end());
}

}  // namespace

Bytes StreamHeaders::rewritten(std::span<const uint8_t> unit) {
    const Range range = headers_in(codec_id_, unit);
    if (range.begin == range.end) return {};
    const auto at = [&](size_t place) { return unit.begin() + static_cast<ptrdiff_t>(place); };
    if (!std::equal(at(range.begin), at(range.end), latest_.begin(), latest_.end())) {
        latest_.assign(at(range.begin), at(range.end));
        latest_rewritten_ = rewrite_headers(latest_);
    }
    Bytes bytes(unit.begin(), at(range.begin));
    bytes.reserve(unit.size() + latest_rewritten_.size());
    bytes.insert(bytes.end(), latest_rewritten_.begin(), latest_rewritten_.end());
    bytes.insert(bytes.end(), at(range.end), unit.end());
    return bytes;
}

Bytes StreamHeaders::rewrite_headers(std::span<const uint8_t> headers) {
    const Bytes as_it_came(headers.begin(), headers.end());
    const Bytes rated = facts_.inserted_rate > 0 ? with_rate(as_it_came) : as_it_came;
    const std::vector<FilterOption> options = filter_options(codec_id_, facts_.colour);
    if (options.empty()) return rated;
    const std::optional<Bytes> coloured = with_colour(codec_id_, rated, options);
    unreadable_ += !coloured;
    return coloured.value_or(rated);
}

Bytes StreamHeaders::with_rate(Bytes headers) {
    if (codec_id_ == kMpeg2) return with_mpeg2_rate(std::move(headers));
    if (codec_id_ == kH264) return with_h264_rate(headers);
    return headers;
}

Bytes StreamHeaders::with_mpeg2_rate(Bytes headers) {
    std::span<uint8_t> header, extension;
    for (const Section& section : sections(headers)) {
        const std::span<uint8_t> bytes = std::span(headers).subspan(
            static_cast<size_t>(section.bytes.data() - headers.data()), section.bytes.size());
        if (bytes[0] == kSequenceHeader) header = bytes;
        if (bytes[0] == kExtension && bytes.size() > 1 && bytes[1] >> 4 == kSequenceExtension)
            extension = bytes;
    }
    constexpr size_t kHeaderSize = 9, kExtensionSize = 7;
    if (header.size() < kHeaderSize || extension.size() < kExtensionSize) {
        unreadable_++;
        return headers;
    }
    const unsigned low_rate = get_bits(header, kRateAt, kRateBits);
    const unsigned low_buffer = get_bits(header, kBufferAt, kBufferBits);
    if (low_rate == kVariableRate) return headers;
    const uint64_t buffer = low_buffer | get_bits(extension, kBufferExtensionAt, kBufferExtensionBits)
                                             << kBufferBits;

    const auto codec_rate = static_cast<double>(facts_.codec_rate);
    const uint64_t rate = rounded_up(codec_rate + facts_.inserted_rate, kMpeg2RateUnit);
    const uint64_t most = largest_buffer(get_bits(extension, 8 + 4, 8));
    const uint64_t wanted =
        rounded_up(static_cast<double>(buffer) * (1 + facts_.inserted_rate / codec_rate), 1);
    const uint64_t raised = std::max(buffer, std::min(wanted, most));
    declared_rate_ = static_cast<double>(rate) * kMpeg2RateUnit;
    raised_by_ = declared_rate_ - codec_rate;
    put_bits(header, kRateAt, kRateBits, static_cast<unsigned>(rate & kVariableRate));
    put_bits(extension, kRateExtensionAt, kRateExtensionBits, static_cast<unsigned>(rate >> kRateBits));
    put_bits(header, kBufferAt, kBufferBits, static_cast<unsigned>(raised & 0x3FF));
    put_bits(extension, kBufferExtensionAt, kBufferExtensionBits,
             static_cast<unsigned>(raised >> kBufferBits));
    return headers;
}

Bytes StreamHeaders::with_h264_rate(const Bytes& headers) {
    Bytes bytes;
    for (const Section& section : nal_units(headers)) {
        const auto as_it_came = [&] {
            bytes.insert(bytes.end(), headers.begin() + static_cast<ptrdiff_t>(section.begin),
                         headers.begin() + static_cast<ptrdiff_t>(section.end));
        };
        if ((section.bytes[0] & 0x1F) != kH264Sps) {
            as_it_came();
            continue;
        }
        const Bytes rbsp = rbsp_of(section.bytes, 1);
        const std::optional<HrdSequence> sequence = read_hrd_sequence(rbsp);
        unreadable_ += !sequence;
        if (!sequence || !sequence->nal) {
            as_it_came();
            continue;
        }
        std::vector<HrdSchedule> schedules = sequence->nal->schedules;
        for (HrdSchedule& schedule : schedules) {
            const auto rate = static_cast<double>(schedule.bit_rate),
                       size = static_cast<double>(schedule.size);
            schedule.bit_rate =
                static_cast<int64_t>(rounded_up(rate + facts_.inserted_rate, kHrdRateUnit) * 64);
            const double raised = static_cast<double>(schedule.bit_rate);
            schedule.size =
                static_cast<int64_t>(rounded_up(size * raised / rate + kUnfilled, kHrdSizeUnit) * 16);
            declared_rate_ = raised;
            raised_by_ = raised - rate;
        }
        const Bytes nal = make_nal(section.bytes.first(1), with_nal_schedules(rbsp, *sequence, schedules));
        bytes.insert(bytes.end(), nal.begin(), nal.end());
    }
    return bytes;
}

}  // namespace gsve::encoding
