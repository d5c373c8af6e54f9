// Time codes on their way into an encoder: counted on, followed, and carried to other rates.

#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "encoding/timecode_track.h"

namespace {

using namespace gsve::captions;
using gsve::encoding::PictureTimecode;
using gsve::encoding::TimecodeRates;
using gsve::encoding::TimecodeTrack;

Timecode code(const std::string& text, FrameRate rate) { return parse_timecode(text, rate); }

std::string at(const TimecodeTrack& track, int64_t encoded) { return format_timecode(track.at(encoded)); }

TimecodeRates same(FrameRate rate) { return {.counting = rate, .source = rate, .encoded = rate}; }

PictureTimecode own(const Timecode& timecode) { return {.timecode = timecode}; }
PictureTimecode of_gop(const Timecode& timecode, bool on_i_picture) {
    return {.timecode = timecode, .of_gop = true, .on_i_picture = on_i_picture};
}

TEST(TimecodeTrack, CountsOnFromTheFirst) {
    const struct {
        FrameRate rate;
        const char* first;
        int64_t picture;
        const char* expected;
    } rows[] = {
        {kRate25, "10:00:00:00", 0, "10:00:00:00"},    {kRate25, "10:00:00:00", 24, "10:00:00:24"},
        {kRate25, "10:00:00:00", 25, "10:00:01:00"},   {kRate25, "23:59:59:24", 1, "00:00:00:00"},
        {kRate29_97, "00:00:59;28", 2, "00:01:00;02"}, {kRate29_97, "00:00:59:28", 2, "00:01:00:00"},
        {kRate59_94, "00:00:59;59", 1, "00:01:00;04"}, {kRate50, "01:02:03:49", 1, "01:02:04:00"},
        {kRate24, "00:00:00:23", 1, "00:00:01:00"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(at(TimecodeTrack(code(row.first, row.rate), same(row.rate)), row.picture), row.expected);
}

TEST(TimecodeTrack, CarriesCodesToTheEncodedRate) {
    const struct {
        TimecodeRates rates;
        const char* first;
        int64_t picture;
        const char* expected;
    } rows[] = {
        // One of two is taken.
        {{kRate59_94, kRate59_94, kRate29_97, 2}, "01:00:00;00", 1, "01:00:00;01"},
        {{kRate59_94, kRate59_94, kRate29_97, 2}, "00:00:59;58", 1, "00:01:00;02"},
        {{kRate59_94, kRate59_94, kRate29_97, 2}, "01:00:00:00", 30, "01:00:01:00"},
        {{kRate50, kRate50, kRate25, 2}, "00:00:00:00", 24, "00:00:00:24"},
        // Half a frame is nearest to both; the earlier is taken.
        {{kRate50, kRate50, kRate25, 2}, "00:00:00:01", 0, "00:00:00:00"},
        {{kRate50, kRate50, kRate25, 2}, "00:00:00:49", 0, "00:00:00:24"},
        // More pictures than are counted: the half frames between have codes of their own.
        {{kRate25, kRate50, kRate50, 1}, "00:00:00:00", 1, "00:00:00:01"},
        {{kRate25, kRate50, kRate50, 1}, "00:00:00:24", 1, "00:00:00:49"},
        {{kRate25, kRate50, kRate50, 1}, "00:00:00:24", 2, "00:00:01:00"},
        {{kRate29_97, kRate59_94, kRate59_94, 1}, "00:00:59;29", 2, "00:01:00;04"},
        {{kRate29_97, kRate59_94, kRate59_94, 1}, "00:00:59;29", 1, "00:00:59;59"},
        // Film, counted as it was before it became video.
        {{kRate23_976, kRate29_97, kRate29_97, 1}, "00:00:00:00", 5, "00:00:00:05"},
        {{kRate23_976, kRate29_97, kRate29_97, 1}, "00:00:00:20", 5, "00:00:01:00"},
        // Drop-frame counting ends where the rate has none, and a code past the last of its second is that
        // last one.
        {{kRate29_97, kRate25, kRate25, 1}, "01:00:00;00", 25, "01:00:00:24"},
        {{kRate30, kRate30, kRate25, 1}, "00:00:00:29", 0, "00:00:00:24"},
    };
    int number = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE("row " + std::to_string(number++));
        EXPECT_EQ(at(TimecodeTrack(code(row.first, row.rates.counting), row.rates), row.picture),
                  row.expected);
    }
}

TEST(TimecodeTrack, FollowsASplice) {
    TimecodeTrack track(code("01:00:00:00", kRate25), same(kRate25));
    track.follow(10, own(code("05:00:00:00", kRate25)));
    EXPECT_EQ(at(track, 9), "01:00:00:09");
    EXPECT_EQ(at(track, 10), "05:00:00:00");
    EXPECT_EQ(at(track, 11), "05:00:00:01");
    track.follow(20, own(code("02:00:00:00", kRate25)));
    EXPECT_EQ(at(track, 19), "05:00:00:09");
    EXPECT_EQ(at(track, 20), "02:00:00:00");
}

TEST(TimecodeTrack, TakesOneFrameOffForRounding) {
    for (const int off : {-2, -1, 0, 1, 2}) {
        TimecodeTrack track(code("01:00:00:00", kRate25), same(kRate25));
        track.follow(10, own(frame_to_timecode(90010 + off, kRate25, false)));
        const bool followed = off < -1 || off > 1;
        EXPECT_EQ(track.at(11), frame_to_timecode(90011 + (followed ? off : 0), kRate25, false)) << off;
    }
}

TEST(TimecodeTrack, FollowsAChangeOfCountingAlone) {
    TimecodeTrack track(code("00:00:10;00", kRate29_97), same(kRate29_97));
    track.follow(5, own(code("00:00:10:05", kRate29_97)));
    EXPECT_EQ(at(track, 4), "00:00:10;04");
    EXPECT_EQ(at(track, 5), "00:00:10:05");
}

TEST(TimecodeTrack, CountsOnOverPicturesWithoutCodes) {
    TimecodeTrack track(code("01:00:00:00", kRate25), same(kRate25));
    for (int64_t number = 0; number < 30; number++) track.follow(number, std::nullopt);
    EXPECT_EQ(at(track, 30), "01:00:01:05");
}

TEST(TimecodeTrack, TakesAGroupsCodeForTheNextPictureWhereTheDecoderReorders) {
    // The decoder met the group when it gave out picture 9, a P-picture.
    TimecodeTrack track(code("01:00:00:00", kRate25), same(kRate25));
    track.follow(9, of_gop(code("05:00:00:00", kRate25), false));
    EXPECT_EQ(at(track, 9), "01:00:00:09");
    EXPECT_EQ(at(track, 10), "05:00:00:00");
    // From then on it is known to, I-picture or not.
    track.follow(19, std::nullopt);
    track.follow(20, of_gop(code("07:00:00:00", kRate25), true));
    EXPECT_EQ(at(track, 20), "05:00:00:10");
    EXPECT_EQ(at(track, 21), "07:00:00:00");
}

TEST(TimecodeTrack, TakesAGroupsCodeForItsIPictureWhereTheDecoderDoesNotReorder) {
    TimecodeTrack track(code("01:00:00:00", kRate25), same(kRate25));
    track.follow(9, std::nullopt);
    track.follow(10, of_gop(code("05:00:00:00", kRate25), true));
    EXPECT_EQ(at(track, 9), "01:00:00:09");
    EXPECT_EQ(at(track, 10), "05:00:00:00");
}

TEST(TimecodeTrack, KnowsReorderingFromCodesOfGroupsOnPicturesThatFollowEachOther) {
    TimecodeTrack track(code("01:00:00:00", kRate25), same(kRate25));
    track.follow(0, of_gop(code("01:00:00:00", kRate25), true));
    track.follow(1, of_gop(code("05:00:00:00", kRate25), true));
    EXPECT_EQ(at(track, 1), "01:00:00:01");
    EXPECT_EQ(at(track, 2), "05:00:00:00");
}

TEST(TimecodeTrack, TakesTheFirstGroupsCodeForTheFirstPicture) {
    for (const bool on_i_picture : {false, true}) {
        TimecodeTrack track(code("01:00:00:00", kRate25), same(kRate25));
        track.follow(0, of_gop(code("05:00:00:00", kRate25), on_i_picture));
        EXPECT_EQ(at(track, 0), "05:00:00:00");
    }
}

TEST(TimecodeTrack, TakesACodeOfThePictureItselfForItWhereTheDecoderReorders) {
    TimecodeTrack track(code("01:00:00:00", kRate25), same(kRate25));
    track.follow(3, of_gop(code("02:00:00:00", kRate25), false));
    track.follow(10, own(code("05:00:00:00", kRate25)));
    EXPECT_EQ(at(track, 9), "02:00:00:05");
    EXPECT_EQ(at(track, 10), "05:00:00:00");
}

TEST(TimecodeTrack, FollowsFromTheFirstPictureThatIsEncoded) {
    // One of three is taken: pictures 0, 3, 6, ...
    const TimecodeRates rates{kRate60, kRate60, {20, 1}, 3};
    for (const int64_t splice : {3, 4, 5, 6}) {
        TimecodeTrack track(code("01:00:00:00", kRate60), rates);
        track.follow(splice, own(code("05:00:00:00", kRate60)));
        EXPECT_EQ(track.at(1).hours, splice <= 3 ? 5 : 1) << splice;
        EXPECT_EQ(track.at(2).hours, 5) << splice;
    }
    TimecodeTrack track(code("01:00:00:00", kRate60), rates);
    track.follow(4, own(code("05:00:00:00", kRate60)));
    EXPECT_EQ(at(track, 3), "05:00:00:02");  // picture 9 is five after the splice: 5 / 3, nearest
}

TEST(TimecodeTrack, ReplacesACodeForTheSamePicture) {
    TimecodeTrack track(code("01:00:00:00", kRate50), {kRate50, kRate50, kRate25, 2});
    track.follow(9, own(code("05:00:00:00", kRate50)));
    track.follow(10, own(code("07:00:00:00", kRate50)));
    EXPECT_EQ(at(track, 5), "07:00:00:00");
}

}  // namespace
