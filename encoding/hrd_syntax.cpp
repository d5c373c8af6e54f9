#include "encoding/hrd_syntax.h"

#include <algorithm>

#include "captions/bits.h"

namespace gsve::encoding {
namespace {

using captions::BitReader;
using Bytes = std::span<const uint8_t>;

/// Those for which 7.3.2.1.1 has chroma_format_idc.
bool has_chroma_format(unsigned profile) {
    constexpr unsigned kProfiles[] = {44, 83, 86, 100, 110, 118, 122, 128, 134, 135, 138, 139, 244};
    return std::find(std::begin(kProfiles), std::end(kProfiles), profile) != std::end(kProfiles);
}

/// 7.3.2.1.1.1.
void skip_scaling_list(BitReader& reader, int size) {
    int last = 8, next = 8;
    for (int n = 0; n < size && !reader.overrun(); n++) {
        if (next != 0) next = static_cast<int>((last + int64_t{reader.signed_golomb()} + 256) & 0xFF);
        last = next == 0 ? last : next;
    }
}

void skip_chroma_format(BitReader& reader) {
    constexpr unsigned kChroma444 = 3;
    const unsigned format = reader.unsigned_golomb();
    if (format == kChroma444) reader.flag();  // separate_colour_plane_flag
    reader.unsigned_golomb();                 // bit_depth_luma_minus8
    reader.unsigned_golomb();                 // bit_depth_chroma_minus8
    reader.flag();                            // qpprime_y_zero_transform_bypass_flag
    if (!reader.flag()) return;               // seq_scaling_matrix_present_flag
    for (int n = 0; n < (format == kChroma444 ? 12 : 8); n++)
        if (reader.flag()) skip_scaling_list(reader, n < 6 ? 16 : 64);
}

void skip_picture_order(BitReader& reader) {
    const unsigned type = reader.unsigned_golomb();
    if (type == 0) reader.unsigned_golomb();  // log2_max_pic_order_cnt_lsb_minus4
    if (type != 1) return;
    reader.flag();           // delta_pic_order_always_zero_flag
    reader.signed_golomb();  // offset_for_non_ref_pic
    reader.signed_golomb();  // offset_for_top_to_bottom_field
    for (unsigned n = reader.unsigned_golomb(); n > 0 && !reader.overrun(); n--) reader.signed_golomb();
}

void skip_picture_size(BitReader& reader) {
    reader.unsigned_golomb();           // pic_width_in_mbs_minus1
    reader.unsigned_golomb();           // pic_height_in_map_units_minus1
    if (!reader.flag()) reader.flag();  // frame_mbs_only_flag, mb_adaptive_frame_field_flag
    reader.flag();                      // direct_8x8_inference_flag
    if (reader.flag())                  // frame_cropping_flag
        for (int n = 0; n < 4; n++) reader.unsigned_golomb();
}

/// E.1.1, up to the timing.
void skip_display(BitReader& reader) {
    constexpr unsigned kExtendedSar = 255;
    if (reader.flag() && reader.get(8) == kExtendedSar) reader.get(32);  // aspect_ratio_info_present_flag
    if (reader.flag()) reader.flag();                                    // overscan_info_present_flag
    if (reader.flag()) {                                                 // video_signal_type_present_flag
        reader.get(3 + 1);                  // video_format, video_full_range_flag
        if (reader.flag()) reader.get(24);  // colour_description_present_flag
    }
    if (reader.flag()) {  // chroma_loc_info_present_flag
        reader.unsigned_golomb();
        reader.unsigned_golomb();
    }
}

std::optional<HrdParameters> read_parameters(BitReader& reader) {
    constexpr unsigned kMostSchedules = 32;
    HrdParameters parameters;
    parameters.begin = reader.position();
    const unsigned count = reader.unsigned_golomb() + 1;
    if (count > kMostSchedules) return std::nullopt;
    const unsigned rate_scale = reader.get(4), size_scale = reader.get(4);
    for (unsigned n = 0; n < count; n++) {
        HrdSchedule& schedule = parameters.schedules.emplace_back();
        schedule.bit_rate = (int64_t{reader.unsigned_golomb()} + 1) << (6 + rate_scale);
        schedule.size = (int64_t{reader.unsigned_golomb()} + 1) << (4 + size_scale);
        schedule.constant_rate = reader.flag();
    }
    parameters.end = reader.position();
    parameters.initial_delay_length = static_cast<int>(reader.get(5)) + 1;
    parameters.removal_delay_length = static_cast<int>(reader.get(5)) + 1;
    reader.get(5 + 5);  // dpb_output_delay_length_minus1, time_offset_length
    if (reader.overrun()) return std::nullopt;
    return parameters;
}

std::vector<InitialDelay> read_initial_delays(BitReader& reader, const HrdParameters& parameters) {
    std::vector<InitialDelay> delays(parameters.schedules.size());
    for (InitialDelay& delay : delays) {
        delay.delay = reader.get(parameters.initial_delay_length);
        delay.offset = reader.get(parameters.initial_delay_length);
    }
    return delays;
}

const HrdSequence* find(const HrdSequences& sequences, std::optional<unsigned> id) {
    const bool known = id && *id < sequences.size() && sequences[*id] && sequences[*id]->declared();
    return known ? &*sequences[*id] : nullptr;
}

}  // namespace

std::optional<HrdSequence> read_hrd_sequence(Bytes rbsp) {
    BitReader reader(rbsp);
    HrdSequence sequence;
    const unsigned profile = reader.get(8);
    reader.get(8 + 8);  // constraint_set flags, level_idc
    sequence.id = reader.unsigned_golomb();
    if (has_chroma_format(profile)) skip_chroma_format(reader);
    reader.unsigned_golomb();  // log2_max_frame_num_minus4
    skip_picture_order(reader);
    reader.unsigned_golomb();  // max_num_ref_frames
    reader.flag();             // gaps_in_frame_num_value_allowed_flag
    skip_picture_size(reader);
    if (reader.flag()) {  // vui_parameters_present_flag
        skip_display(reader);
        if (reader.flag()) {  // timing_info_present_flag
            const double units = reader.get(32), scale = reader.get(32);
            reader.flag();  // fixed_frame_rate_flag
            if (scale > 0) sequence.tick = units / scale;
        }
        if (reader.flag()) sequence.nal = read_parameters(reader);
        if (reader.flag()) sequence.vcl = read_parameters(reader);
        if (sequence.nal || sequence.vcl) sequence.low_delay = reader.flag();
    }
    if (reader.overrun() || sequence.id >= std::tuple_size_v<HrdSequences>) return std::nullopt;
    return sequence;
}

std::vector<uint8_t> with_nal_schedules(Bytes rbsp, const HrdSequence& sequence,
                                        const std::vector<HrdSchedule>& schedules) {
    BitReader reader(rbsp);
    captions::BitWriter writer;
    writer.copy(reader, sequence.nal->begin);
    writer.put_unsigned_golomb(static_cast<unsigned>(schedules.size()) - 1);
    writer.put(0, 4 + 4);  // bit_rate_scale, cpb_size_scale
    for (const HrdSchedule& schedule : schedules) {
        writer.put_unsigned_golomb(static_cast<unsigned>((schedule.bit_rate >> 6) - 1));
        writer.put_unsigned_golomb(static_cast<unsigned>((schedule.size >> 4) - 1));
        writer.put(schedule.constant_rate, 1);
    }
    while (reader.position() < sequence.nal->end) reader.get(1);
    writer.copy(reader, rbsp.size() * 8);
    std::vector<uint8_t> bytes = writer.take();
    while (!bytes.empty() && bytes.back() == 0)
        bytes.pop_back();  // behind the trailing bits, which may have moved
    return bytes;
}

void read_hrd_messages(Bytes rbsp, const HrdSequences& sequences, std::optional<unsigned>& active,
                       HrdMessages& messages) {
    enum PayloadType { kBufferingPeriod = 0, kPictureTiming = 1 };
    size_t at = 0;
    // payloadType and payloadSize: bytes of FF, and a last one.
    const auto number = [&] {
        size_t value = 0;
        for (; at < rbsp.size() && rbsp[at] == 0xFF; at++) value += 0xFF;
        return at < rbsp.size() ? value + rbsp[at++] : value;
    };
    while (at + 2 < rbsp.size()) {
        const size_t type = number(), size = number();
        if (size > rbsp.size() - at) return;
        BitReader reader(rbsp.subspan(at, size));
        at += size;
        if (type == kBufferingPeriod) {
            const unsigned id = reader.unsigned_golomb();
            const HrdSequence* sequence = find(sequences, id);
            if (!sequence) continue;
            const size_t begin = 8 * (at - size) + reader.position();
            const std::vector<InitialDelay> delays = read_initial_delays(reader, sequence->parameters());
            if (reader.overrun()) continue;
            active = messages.sequence = id;
            messages.initial = delays;
            messages.initial_at = begin;
        } else if (type == kPictureTiming) {
            const HrdSequence* sequence = find(sequences, active);
            if (!sequence) continue;
            const double delay = reader.get(sequence->parameters().removal_delay_length);
            if (!reader.overrun()) messages.removal_delay = delay;
        }
    }
}

}  // namespace gsve::encoding
