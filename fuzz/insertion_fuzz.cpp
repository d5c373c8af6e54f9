// Insertion into units of any bytes: what goes in, where it goes, and that nothing else changes. The unit
// lies in a window without a byte to spare at either end, with head room of any size.

#include <algorithm>
#include <cstring>
#include <span>
#include <string>

extern "C" {
#include <libavcodec/packet.h>
}

#include <gsve.h>
#include <orb_utils_v4/io.h>

#include "input.h"

namespace {

using gsve::fuzz::Bytes;
using gsve::fuzz::Input;

constexpr uint8_t kHeadRoomByte = 0xEE;

class UnitInWindow : public GeneralStreamingVideoEncoder {
public:
    UnitInWindow(size_t head_room, const Bytes& unit, int64_t dts) {
        output_window = sliding_window_v4_create_buffer(head_room + unit.size());
        GSVE_FUZZ_REQUIRE(output_window);
        std::memset(output_window->base, kHeadRoomByte, head_room);
        output_window->data = output_window->base + head_room;
        if (!unit.empty()) std::memcpy(output_window->data, unit.data(), unit.size());
        output_window->end = output_window->data + unit.size();
        mpeg_packet = av_packet_alloc();
        GSVE_FUZZ_REQUIRE(mpeg_packet);
        mpeg_packet->dts = dts;
    }

    Bytes unit() const { return {output_window->data, output_window->end}; }
    size_t head_room() const { return static_cast<size_t>(output_window->data - output_window->base); }
    double rate() const { return static_cast<double>(frame_rate_num) / frame_rate_den / frame_rate_divider; }
    int whole_rate() const {
        return frame_rate_num / (frame_rate_den * static_cast<int>(frame_rate_divider));
    }
};

// ---- Where insertion goes, searched byte by byte --------------------------------------------------------

constexpr size_t kNowhere = SIZE_MAX;

bool prefix_at(const Bytes& unit, size_t i) { return unit[i] == 0 && unit[i + 1] == 0 && unit[i + 2] == 1; }

size_t find_start_code(const Bytes& unit, size_t from, size_t end, uint8_t code) {
    for (size_t i = from; i + 4 <= end; i++) {
        if (prefix_at(unit, i) && unit[i + 3] == code) return i;
    }
    return kNowhere;
}

/// The first slice behind the first picture header.
size_t slice_position(const Bytes& unit) {
    const size_t picture = find_start_code(unit, 0, unit.size(), 0x00);
    return picture == kNowhere ? kNowhere : find_start_code(unit, picture, unit.size(), 0x01);
}

/// The first NAL unit that is neither a delimiter, a parameter set, an SEI nor of type 0.
size_t sei_position(const Bytes& unit) {
    for (size_t i = 0; i + 4 < unit.size(); i++) {
        if (!prefix_at(unit, i)) continue;
        const int type = unit[i + 3] & 31;
        if (type != 0 && (type < 6 || type > 9)) return i;
        i += 2;
    }
    return kNowhere;
}

// ---- What goes in ---------------------------------------------------------------------------------------

unsigned cc_count(double rate) {
    return rate >= 59.0 ? 10 : rate >= 49.0 ? 12 : rate >= 29.0 ? 20 : rate >= 24.9 ? 24 : 25;
}

bool odd_parity(uint8_t byte) { return __builtin_popcount(byte) % 2 == 1; }

/// cc_data from its flags byte to the last marker byte.
bool is_cc_data(const uint8_t* p, unsigned count, bool both_fields) {
    if (p[0] != (0x40 | count) || p[1] != 0x00 || p[2 + 3 * count] != 0xFF) return false;
    const unsigned fields = both_fields ? 2 : 1;
    for (unsigned i = 0; i < count; i++) {
        const uint8_t* const construct = p + 2 + 3 * i;
        const bool eia608 = construct[0] == 0xFC || construct[0] == 0xFD;
        const bool padding = construct[0] == 0xFA && construct[1] == 0 && construct[2] == 0;
        if (i < fields) {
            if (!eia608 || !odd_parity(construct[1]) || !odd_parity(construct[2])) return false;
        } else if (!padding && construct[0] < 0xFE && !(i == 1 && eia608)) {
            return false;  // an anomalous picture at a field rate carries its second field after all
        }
    }
    return true;
}

void check_ga94(const UnitInWindow& encoder, const Bytes& in) {
    const unsigned count = cc_count(encoder.rate());
    GSVE_FUZZ_REQUIRE(in.size() == 12 + 3 * count);
    GSVE_FUZZ_REQUIRE(std::memcmp(in.data(), "\x00\x00\x01\xB2GA94\x03", 9) == 0);
    GSVE_FUZZ_REQUIRE(is_cc_data(in.data() + 9, count, encoder.whole_rate() <= 40));
}

void check_cc(const Bytes& in, uint64_t pictures) {
    GSVE_FUZZ_REQUIRE(in.size() == 9 + 6 * pictures);
    GSVE_FUZZ_REQUIRE(std::memcmp(in.data(), "\x00\x00\x01\xB2\x43\x43\x01\xF8", 8) == 0);
    GSVE_FUZZ_REQUIRE(in[8] == (0x80 | pictures * 2));
    for (size_t i = 9; i < in.size(); i += 3) {
        GSVE_FUZZ_REQUIRE(in[i] == ((i - 9) % 2 == 0 ? 0xFF : 0xFE));
        GSVE_FUZZ_REQUIRE(odd_parity(in[i + 1]) && odd_parity(in[i + 2]));
    }
}

void check_scte20(const GeneralStreamingVideoEncoderAuxData& record, const Bytes& in) {
    GSVE_FUZZ_REQUIRE(in.size() == 5 + record.scte20_data_length);
    GSVE_FUZZ_REQUIRE(std::memcmp(in.data(), "\x00\x00\x01\xB2\x03", 5) == 0);
    GSVE_FUZZ_REQUIRE(std::memcmp(in.data() + 5, record.scte20_data, record.scte20_data_length) == 0);
}

void check_sei(const UnitInWindow& encoder, const Bytes& in) {
    Bytes rbsp;
    for (size_t i = 5; i < in.size(); i++) {
        const bool behind_zeros = i >= 7 && in[i - 1] == 0 && in[i - 2] == 0;
        GSVE_FUZZ_REQUIRE(!behind_zeros || in[i] >= 3);
        if (!behind_zeros || in[i] != 3) rbsp.push_back(in[i]);
    }
    const unsigned count = cc_count(encoder.rate());
    GSVE_FUZZ_REQUIRE(std::memcmp(in.data(), "\x00\x00\x00\x01\x06", 5) == 0);
    GSVE_FUZZ_REQUIRE(rbsp.size() == 14 + 3 * count && rbsp[0] == 4 && rbsp[1] == 11 + 3 * count);
    GSVE_FUZZ_REQUIRE(std::memcmp(rbsp.data() + 2, "\xB5\x00\x31GA94\x03", 8) == 0 && rbsp.back() == 0x80);
    GSVE_FUZZ_REQUIRE(is_cc_data(rbsp.data() + 10, count, encoder.whole_rate() <= 40));
}

// ---- One operation --------------------------------------------------------------------------------------

/// Runs `operation` and returns what it inserted at `position`, which is all that it may have changed;
/// nothing where it may and did leave the unit alone.
template <typename Operation>
Bytes inserted_by(UnitInWindow& encoder, size_t position, Operation operation) {
    const Bytes before = encoder.unit();
    const size_t head_room = encoder.head_room();
    const uint8_t* const end = encoder.output_window->end;
    operation();
    GSVE_FUZZ_REQUIRE(sliding_window_v4_is_sane(encoder.output_window) && encoder.output_window->end == end);
    const Bytes after = encoder.unit();
    GSVE_FUZZ_REQUIRE(after.size() >= before.size());
    const size_t size = after.size() - before.size();
    GSVE_FUZZ_REQUIRE(encoder.head_room() == head_room - size);
    for (size_t i = 0; i < encoder.head_room(); i++)
        GSVE_FUZZ_REQUIRE(encoder.output_window->base[i] == kHeadRoomByte);

    const size_t at = size == 0 ? before.size() : position;
    GSVE_FUZZ_REQUIRE(at <= before.size());
    const std::span<const uint8_t> was(before), is(after);
    GSVE_FUZZ_REQUIRE(std::ranges::equal(was.first(at), is.first(at)));
    GSVE_FUZZ_REQUIRE(std::ranges::equal(was.subspan(at), is.subspan(at + size)));
    const std::span<const uint8_t> in = is.subspan(at, size);
    return {in.begin(), in.end()};
}

/// Requires that nothing came of an insertion for lack of a place or of head room only.
void check_left_out(size_t position, size_t needed, size_t head_room) {
    GSVE_FUZZ_REQUIRE(position == kNowhere || head_room < needed);
}

void insert_captions(UnitInWindow& encoder, uint64_t pts, bool h264) {
    const size_t position = h264 ? sei_position(encoder.unit()) : slice_position(encoder.unit());
    const size_t head_room = encoder.head_room();
    const Bytes in = inserted_by(encoder, position, [&] {
        if (h264)
            encoder.h264_insert_cea708_cc(pts);
        else
            encoder.mpeg_insert_cea708_cc(pts);
    });
    // Escapes make an SEI longer by at most half.
    const size_t needed =
        h264 ? 5 + (14 + 3 * cc_count(encoder.rate())) * 3 / 2 + 1 : 12 + 3 * cc_count(encoder.rate());
    if (in.empty()) return check_left_out(position, needed, head_room);
    GSVE_FUZZ_REQUIRE(position != kNowhere);
    if (h264)
        check_sei(encoder, in);
    else
        check_ga94(encoder, in);
}

void insert_cc(UnitInWindow& encoder) {
    const size_t position = slice_position(encoder.unit());
    const size_t head_room = encoder.head_room();
    const auto dts = static_cast<uint64_t>(encoder.mpeg_packet->dts);
    uint64_t next = encoder.eia608_next_pts;
    if (!encoder.aux_data_map.empty()) {
        const uint64_t first = encoder.aux_data_map.begin()->first;
        if (next + 2 < first) next = first - 2;
    }
    const bool due = encoder.whole_rate() <= 33 && next < dts;
    if (due && dts - next > 63) return;  // one too many for the count byte: fatal, and said to be
    const Bytes in = inserted_by(encoder, position, [&] { encoder.mpeg_insert_eia608_cc(); });
    if (in.empty()) {
        if (due) check_left_out(position, 9 + 6 * (dts - next), head_room);
        return;
    }
    GSVE_FUZZ_REQUIRE(due && position != kNowhere);
    check_cc(in, dts - next);
    GSVE_FUZZ_REQUIRE(encoder.eia608_next_pts == dts);
}

void insert_scte20(UnitInWindow& encoder, uint64_t pts) {
    const size_t position = slice_position(encoder.unit());
    const size_t head_room = encoder.head_room();
    const auto record = encoder.aux_data_map.find(pts);
    const bool due = record != encoder.aux_data_map.end() && record->second.scte20_data_length > 0;
    const Bytes in = inserted_by(encoder, position, [&] { encoder.mpeg_insert_scte20(pts); });
    if (in.empty()) {
        if (due) check_left_out(position, 5 + record->second.scte20_data_length, head_room);
        return;
    }
    GSVE_FUZZ_REQUIRE(due && position != kNowhere);
    check_scte20(record->second, in);
}

void insert_timecode(UnitInWindow& encoder, Input& input) {
    mpeg2_gop_timecode_t tc;
    tc.valid = input.u8() % 4;
    tc.drop_frame_flag = input.u8() % 3;
    tc.hours = input.u8() % 24;
    tc.minutes = input.u8() % 60;
    tc.seconds = input.u8() % 60;
    tc.pictures = input.u8() % 60;

    Bytes expected = encoder.unit();
    const size_t limit = std::min<size_t>(expected.size(), 1024);
    const size_t gop = find_start_code(expected, 0, limit, 0xB8);
    if (tc.valid && gop != kNowhere && gop + 8 <= limit) {
        uint8_t* const word = expected.data() + gop + 4;
        word[0] = static_cast<uint8_t>((tc.drop_frame_flag ? 0x80 : 0) | tc.hours << 2 | tc.minutes >> 4);
        word[1] = static_cast<uint8_t>(tc.minutes << 4 | 0x08 | tc.seconds >> 3);
        word[2] = static_cast<uint8_t>(tc.seconds << 5 | tc.pictures >> 1);
        word[3] = static_cast<uint8_t>(tc.pictures << 7 | (word[3] & 0x7F));
    }
    const size_t head_room = encoder.head_room();
    encoder.mpeg_insert_gop_timecode(tc);
    GSVE_FUZZ_REQUIRE(encoder.unit() == expected && encoder.head_room() == head_room);
}

void open_gap(UnitInWindow& encoder, Input& input) {
    const size_t before = encoder.unit().size(), head_room = encoder.head_room();
    const size_t at = input.u16() % (before + 8);
    const size_t size = input.flag() ? input.u16() : SIZE_MAX - input.u8();
    uint8_t* const position = encoder.output_window->data + at;
    uint8_t* gap = position;
    bool opened = false;
    const Bytes in = inserted_by(encoder, at, [&] {
        opened = encoder.mpeg_insert_output(gap, size);
        if (opened) std::memset(gap, 0x77, size);
    });
    GSVE_FUZZ_REQUIRE(opened == (at < before && size <= head_room));
    GSVE_FUZZ_REQUIRE(gap == (opened ? position - size : position));
    GSVE_FUZZ_REQUIRE(in.size() == (opened ? size : 0));
}

GeneralStreamingVideoEncoderAuxData take_record(Input& input) {
    GeneralStreamingVideoEncoderAuxData record;
    record.eia608_word_field1 = input.u16();
    record.eia608_word_field2 = input.u16();
    record.cea708_count = input.u8() % 40;  // more than there is room for
    for (zeph_cea708_word& word : record.cea708_words) {
        if (input.empty()) break;
        word.header = input.u8();
        word.value = input.u16();
    }
    const Bytes body = input.bytes(input.u16() % 1025);
    if (!body.empty()) std::memcpy(record.scte20_data, body.data(), body.size());
    record.scte20_data_length = body.size();
    return record;
}

struct Rate {
    int num, den;
};
constexpr Rate kRates[] = {{24000, 1001}, {24, 1}, {25, 1},       {30000, 1001}, {33, 1}, {34, 1},
                           {40, 1},       {41, 1}, {60000, 1001}, {50, 1},       {60, 1}, {249, 10}};

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const Bytes operations = input.bytes(input.u8() % 12);
    const size_t head_room = input.flag() ? 8192 : input.u16() % 1200;
    const Rate rate = input.one_of(kRates);
    const uint32_t divider = 1 + input.u8() % 3;
    const uint64_t dts = input.u8(), next = input.u8();

    std::map<uint64_t, GeneralStreamingVideoEncoderAuxData> records;
    for (unsigned count = input.u8() % 4; count > 0; count--) records[input.u8()] = take_record(input);
    const Bytes arguments = input.bytes(input.u8() % 64);
    Input argument(arguments.data(), arguments.size());

    UnitInWindow encoder(head_room, input.rest(), static_cast<int64_t>(dts));
    encoder.frame_rate_num = rate.num;
    encoder.frame_rate_den = rate.den;
    encoder.frame_rate_divider = divider;
    encoder.eia608_next_pts = next;
    encoder.aux_data_map = std::move(records);
    for (const uint8_t operation : operations) {
        const uint64_t pts =
            encoder.aux_data_map.empty() || operation & 0x80 ? dts : encoder.aux_data_map.begin()->first;
        switch (operation % 6) {
            case 0: insert_cc(encoder); break;
            case 1: insert_scte20(encoder, pts); break;
            case 2: insert_captions(encoder, pts, false); break;
            case 3: insert_timecode(encoder, argument); break;
            case 4: insert_captions(encoder, pts, true); break;
            default: open_gap(encoder, argument); break;
        }
    }
    return 0;
}
