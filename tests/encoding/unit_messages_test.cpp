// A/53 captions of film with all pairs of EIA-608, and where in a unit they go.

#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "encoding/codec_id.h"
#include "encoding/unit_messages.h"
#include "support/mpeg2_units.h"

namespace {

using namespace gsve::encoding;
using namespace gsve::test;
using gsve::captions::PictureWrites;

/// A picture that begins with field 2 and has a third pair; field 1 is idle.
PictureWrites three_pairs() {
    PictureWrites writes;
    writes.words[1] = 0x9420;
    writes.first_field = 1;
    writes.has_third = true;
    writes.third = 0xC1C2;
    writes.cea708 = {{0xFF, 0x03, 0x24}};
    return writes;
}

/// cc_data of 25 constructs, from the user identifier to the marker.
Bytes cc_data_of_three_pairs() {
    Bytes bytes = from_hex("47 41 39 34 03 D9 FF FD 94 20 FC 80 80 FD C1 C2 FF 03 24");
    for (int padding = 0; padding < 25 - 4; padding++) bytes = bytes + from_hex("FA 00 00");
    return bytes + from_hex("FF");
}

TEST(FilmUserData, IsCcDataBehindItsStartCode) {
    EXPECT_EQ(hex(mpeg2_user_data(caption_data(three_pairs(), gsve::captions::kRate24, 0))),
              hex(from_hex("00 00 01 B2") + cc_data_of_three_pairs()));
}

// payload_type 4, its size of 3 + 83, the United States, ATSC, cc_data, and the stop bit.
TEST(FilmCaptionSei, IsCcDataInARegisteredUserDataMessage) {
    EXPECT_EQ(hex(atsc_message(kH264, caption_data(three_pairs(), gsve::captions::kRate24, 0))),
              hex(from_hex("00 00 00 01 06 04 56 B5 00 31") + cc_data_of_three_pairs() + from_hex("80")));
}

ptrdiff_t place_of_user_data(const Bytes& unit) { return static_cast<ptrdiff_t>(user_data_position(unit)); }
ptrdiff_t place_of_sei(const Bytes& unit) { return static_cast<ptrdiff_t>(sei_position(kH264, unit)); }
ptrdiff_t length(const Bytes& bytes) { return static_cast<ptrdiff_t>(bytes.size()); }

TEST(UserDataPosition, IsInFrontOfThePicturesFirstSlice) {
    const Bytes header = picture_header(2);
    EXPECT_EQ(place_of_user_data(header + kFirstSlice), length(header));
    const Bytes group = kSequenceHeader + gop_header(kOpenGop) + header;
    EXPECT_EQ(place_of_user_data(group + kFirstSlice + kFirstSlice), length(group));
    // A slice of no picture, and the shortest one.
    EXPECT_EQ(place_of_user_data(kFirstSlice + header + kFirstSlice), length(kFirstSlice + header));
    EXPECT_EQ(place_of_user_data(header + from_hex("00 00 01 01")), length(header));
}

TEST(UserDataPosition, IsTheEndWhereThereIsNoSlice) {
    for (const Bytes& unit :
         {Bytes{}, from_hex("00 00 01"), kSequenceHeader, kFirstSlice, picture_header(2),
          picture_header(2) + from_hex("00 00 01"), picture_header(2) + from_hex("00 00 01 02 12 34")})
        EXPECT_EQ(place_of_user_data(unit), length(unit)) << hex(unit);
}

TEST(CaptionSeiPosition, IsBehindDelimiterParameterSetsAndSei) {
    const Bytes before = from_hex("00 00 01 09 10 00 00 01 67 42 00 00 01 68 CE 00 00 01 06 05 01 00 80");
    const Bytes slice = from_hex("00 00 01 65 88");
    EXPECT_EQ(place_of_sei(before + slice), length(before));
    EXPECT_EQ(place_of_sei(slice + before), 0);
    // In front of a start code of four bytes as of one of three.
    EXPECT_EQ(place_of_sei(before + from_hex("00") + slice), length(before));
}

// Of the types of NAL units, 0 is unspecified, 6 SEI, 7 and 8 parameter sets, 9 the delimiter.
TEST(CaptionSeiPosition, KnowsWhatStandsBeforeByItsType) {
    for (uint8_t type = 0; type < 32; type++)
        for (const uint8_t importance : {0x00, 0x60}) {
            const Bytes first = from_hex("00 00 01") + Bytes{static_cast<uint8_t>(importance | type), 0x11};
            const bool before = type == 0 || type == 6 || type == 7 || type == 8 || type == 9;
            EXPECT_EQ(place_of_sei(first + from_hex("00 00 01 65 88")), before ? length(first) : 0)
                << int{type};
        }
}

TEST(CaptionSeiPosition, IsTheEndWhereThereIsNoSlice) {
    for (const char* unit : {"", "00 00 01", "00 00 01 09 10", "00 00 01 67 42 00 00 01", "12 34"})
        EXPECT_EQ(place_of_sei(from_hex(unit)), length(from_hex(unit))) << unit;
}

TEST(SeiPosition, IsInFrontOfTheFirstSliceOfH265) {
    for (int type = 0; type < 64; type++) {
        const Bytes first = from_hex("00 00 01") + Bytes{static_cast<uint8_t>(type << 1), 0x01, 0x11};
        const Bytes unit = first + from_hex("00 00 01 26 01 88");
        EXPECT_EQ(sei_position(kH265, unit), type < 32 ? 0 : first.size()) << type;
    }
    EXPECT_EQ(sei_position(kH265, from_hex("00 00 01 40 01")), 5u) << "no slice";
}

TEST(TemporalId, IsThatOfTheNalUnit) {
    EXPECT_EQ(temporal_id_at(from_hex("00 00 01 02 01 88"), 0), 0);
    EXPECT_EQ(temporal_id_at(from_hex("FF 00 00 01 02 03 88"), 1), 2);
    EXPECT_EQ(temporal_id_at(from_hex("00 00 00 01 02 03 88"), 0), 2);
    EXPECT_EQ(temporal_id_at(from_hex("00 00 01 02"), 0), 0);
}

// NAL unit type 39 in a header of two bytes; the rest as in H.264.
TEST(AtscMessage, IsAPrefixSeiMessageInH265) {
    EXPECT_EQ(hex(atsc_message(kH265, from_hex("01 02"), 2)),
              hex(from_hex("00 00 00 01 4E 03 04 05 B5 00 31 01 02 80")));
}

// At 29.97 pictures/s, 01:02:03;04: num_clock_ts 01, clock_timestamp_flag 1, units_field_based_flag 0,
// counting_type 00100, full_timestamp_flag 1, discontinuity_flag 0, cnt_dropped_flag 1, n_frames 000000100,
// seconds 000011, minutes 000010, hours 00001, time_offset_length 00000, then 1 and zeros up to a byte.
TEST(TimecodeMessage, IsTheTimeCodeOfOnePicture) {
    EXPECT_EQ(hex(timecode_message({1, 1, 2, 3, 4}, gsve::captions::kRate29_97)),
              hex(from_hex("00 00 00 01 4E 01 88 06 62 50 20 61 04 10 80")));
    // Four numbers a minute are counted as dropped in another way, none in no way.
    EXPECT_EQ(timecode_message({1, 1, 2, 3, 4}, gsve::captions::kRate59_94)[8], 0x63);
    EXPECT_EQ(timecode_message({0, 1, 2, 3, 4}, gsve::captions::kRate25)[8], 0x60);
}

// Film's pairs come by the field; at 60 pictures/s a picture has those of one.
TEST(CaptionData, HasTheFieldOfThePictureAbove39PicturesASecond) {
    PictureWrites writes;
    writes.words[0] = 0x9420;
    const auto beginning = [&](uint64_t picture) {
        const Bytes data = caption_data(writes, gsve::captions::kRate59_94, picture);
        return hex(Bytes(data.begin(), data.begin() + 13));
    };
    EXPECT_EQ(beginning(4), hex(from_hex("47 41 39 34 03 CA FF FC 94 20 FA 00 00")));
    writes.words[0] = 0;
    EXPECT_EQ(beginning(5), hex(from_hex("47 41 39 34 03 CA FF FD 80 80 FA 00 00")));
}

}  // namespace
