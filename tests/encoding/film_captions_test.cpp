// A/53 captions of film with all pairs of EIA-608, and where in a unit they go.

#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "encoding/film_captions.h"
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
    EXPECT_EQ(hex(film_user_data(three_pairs())), hex(from_hex("00 00 01 B2") + cc_data_of_three_pairs()));
}

// payload_type 4, its size of 3 + 83, the United States, ATSC, cc_data, and the stop bit.
TEST(FilmCaptionSei, IsCcDataInARegisteredUserDataMessage) {
    EXPECT_EQ(hex(film_caption_sei(three_pairs())),
              hex(from_hex("00 00 00 01 06 04 56 B5 00 31") + cc_data_of_three_pairs() + from_hex("80")));
}

ptrdiff_t place_of_user_data(Bytes unit) { return user_data_position(unit) - std::span(unit).begin(); }
ptrdiff_t place_of_sei(Bytes unit) { return caption_sei_position(unit) - std::span(unit).begin(); }
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
    // Of a start code of four bytes, the first belongs to what stands before.
    EXPECT_EQ(place_of_sei(before + from_hex("00") + slice), length(before) + 1);
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

}  // namespace
