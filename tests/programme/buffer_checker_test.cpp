// The decoder's buffer: by hand-worked figures, and as the encoders and a multiplexer of others account for
// it.

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "programme/buffer_account.h"
#include "programme/buffer_checker.h"
#include "programme/stream_inspection.h"
#include "support/clip.h"
#include "support/declared_buffers.h"
#include "support/media_files.h"
#include "support/scratch.h"
#include "support/third_party.h"

namespace gsve::programme {
namespace {

using namespace gsve::test;
using Kind = BufferFinding::Kind;
using State = BufferVerdict::State;
using Units = std::vector<Bytes>;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr unsigned kUnstated = 0xFFFF;

BufferVerdict check(const Units& units, AVCodecID codec = AV_CODEC_ID_MPEG2VIDEO) {
    BufferChecker checker(codec);
    for (const Bytes& unit : units) checker.unit(unit);
    return checker.finish();
}

std::vector<int64_t> before(const BufferAccount& account) {
    std::vector<int64_t> bits;
    for (const BufferFullness& now : account.course) bits.push_back(now.before);
    return bits;
}

std::vector<int> milliseconds(const BufferAccount& account) {
    std::vector<int> times;
    for (const BufferFullness& now : account.course)
        times.push_back(static_cast<int>(std::lround(now.seconds * 1000)));
    return times;
}

BufferFinding finding(Kind kind, int64_t unit, double seconds, int64_t bits) {
    return {.kind = kind, .unit = unit, .seconds = seconds, .bits = bits};
}

MATCHER_P(IsFinding, expected, "") {
    return arg.kind == expected.kind && arg.unit == expected.unit && arg.bits == expected.bits &&
           std::abs(arg.seconds - expected.seconds) < 1e-9;
}

TEST(ArrivalCurve, IsLinearBetweenItsPoints) {
    ArrivalCurve curve;
    curve.add(1, 100);
    curve.add(2, 300);
    curve.add(2.5, 300);
    curve.add(2.25, 400);  // back in time: at once
    curve.add(3.5, 500);
    const std::pair<double, double> expected[] = {{0, 100},   {1, 100}, {1.5, 200}, {2, 300}, {2.25, 300},
                                                  {2.5, 400}, {3, 450}, {3.5, 500}, {9, 500}};
    for (const auto& [time, position] : expected) EXPECT_DOUBLE_EQ(curve.arrived(time), position) << time;
}

TEST(WholeBits, AreLimited) {
    EXPECT_EQ(whole_bits(-0.6), -1);
    EXPECT_EQ(whole_bits(1e30), 9'000'000'000'000'000'000);
    EXPECT_EQ(whole_bits(-1e30), -9'000'000'000'000'000'000);
}

// ---- MPEG-2, by hand ------------------------------------------------------------------------------------
//
// 400 000 bits/s at 25 pictures/s are 16000 bits, 2000 bytes, a picture. The first unit has 22 bytes of
// sequence header and extension more; 26 bytes, 208 bits, have arrived with its picture start code. 7200
// ticks of vbv_delay are 32000 bits.

constexpr size_t kUnit = 2000;
constexpr int kPictures = 10;

Units mpeg2(const Mpeg2Sequence& sequence = {}, const Mpeg2Picture& picture = {}) {
    Units units(kPictures, mpeg2_picture(kUnit, picture));
    units[0] = mpeg2_sequence(sequence) + units[0];
    return units;
}

TEST(VbvByDelay, FollowsTheBufferToTheBit) {
    const BufferVerdict verdict = check(mpeg2());
    EXPECT_EQ(verdict.state, State::kChecked);
    EXPECT_TRUE(verdict.holds());
    EXPECT_EQ(verdict.units, 10);
    EXPECT_EQ(verdict.unreadable, 0);
    ASSERT_EQ(verdict.accounts.size(), 2u);
    EXPECT_EQ(verdict.accounts[0].model, BufferModel::kVbvDelay);
    EXPECT_EQ(verdict.accounts[1].model, BufferModel::kVbvConstantRate);
    for (const BufferAccount& account : verdict.accounts) {
        EXPECT_EQ(account.bit_rate, 400'000);
        EXPECT_EQ(account.size, 81'920);
        EXPECT_DOUBLE_EQ(account.initial_delay, 0.08);
        // 208 and 32000 bits; 176 of the headers leave with the first picture. Then the stream ends.
        EXPECT_THAT(before(account),
                    ElementsAre(32208, 32032, 32032, 32032, 32032, 32032, 32032, 32032, 32000, 16000));
        EXPECT_THAT(milliseconds(account), ElementsAre(0, 40, 80, 120, 160, 200, 240, 280, 320, 360));
        EXPECT_EQ(account.course[0].bits, 16'176);
        EXPECT_EQ(account.course[0].after(), 16'032);
        EXPECT_EQ(account.least, 16'032);
        EXPECT_EQ(account.greatest, 32'208);
        EXPECT_DOUBLE_EQ(account.course[4].stated_delay.value(), 0.08);
        EXPECT_TRUE(account.course[7].arriving);
        EXPECT_FALSE(account.course[8].arriving);
    }
}

TEST(VbvByDelay, FindsWhatWasInsertedBehindTheEncodersBack) {
    Units units = mpeg2();
    units[3] = units[3] + Bytes(3000);
    const BufferVerdict verdict = check(units);
    EXPECT_FALSE(verdict.holds());
    // 40000 bits come in 40 ms and a tick, which takes 16004.4; they are there in time.
    const BufferAccount& by_delay = verdict.accounts[0];
    EXPECT_THAT(by_delay.findings, ElementsAre(IsFinding(finding(Kind::kRate, 3, 0.12, 23'996))));
    EXPECT_EQ(by_delay.course[3].before, 56'032);
    // A channel of 400 000 bits/s brings 32032, and never makes up for it.
    const BufferAccount& constant = verdict.accounts[1];
    EXPECT_EQ(constant.count(Kind::kUnderflow), 7);
    EXPECT_THAT(constant.findings[0], IsFinding(finding(Kind::kUnderflow, 3, 0.12, 7'968)));
    EXPECT_THAT(constant.findings[6], IsFinding(finding(Kind::kUnderflow, 9, 0.36, 7'968)));
    EXPECT_EQ(constant.least, -7'968);
}

TEST(VbvByDelay, FindsPicturesThatComeTooLate) {
    Units units = mpeg2();
    for (size_t n = 5; n < units.size(); n++) units[n] = mpeg2_picture(kUnit, {.vbv_delay = 1800});
    const BufferAccount account = check(units).accounts[0];
    // Unit 4 comes from 80 ms before to 20 ms after its time, the others from 20 ms before to 20 ms after.
    EXPECT_EQ(account.count(Kind::kUnderflow), 6);
    EXPECT_THAT(account.findings[0], IsFinding(finding(Kind::kUnderflow, 4, 0.16, 3'168)));
    EXPECT_THAT(account.findings[1], IsFinding(finding(Kind::kUnderflow, 5, 0.2, 7'968)));
    EXPECT_EQ(account.most[0], 7'968);
    EXPECT_EQ(account.count(Kind::kRate), 0);
}

TEST(VbvByDelay, FindsADelayThatGoesBackInTime) {
    Units units = mpeg2();
    units[5] = mpeg2_picture(kUnit, {.vbv_delay = 7200 + 3600 + 90});
    // Unit 5 would begin a millisecond before unit 4 does: not a bit of that may come, but for a tick.
    const BufferAccount account = check(units).accounts[0];
    EXPECT_THAT(account.findings, ElementsAre(IsFinding(finding(Kind::kRate, 4, 0.16, 16'000))));
}

TEST(VbvByDelay, AllowsForTheRoundingOfTheClock) {
    Units units = mpeg2();
    units[5] = mpeg2_picture(kUnit, {.vbv_delay = 7201});
    EXPECT_TRUE(check(units).holds());
    units[5] = mpeg2_picture(kUnit, {.vbv_delay = 7202});
    EXPECT_THAT(check(units).accounts[0].findings, ElementsAre(IsFinding(finding(Kind::kRate, 4, 0.16, 5))));
}

TEST(VbvByDelay, FindsOverflow) {
    const BufferVerdict verdict = check(mpeg2({.size = 1}));
    EXPECT_FALSE(verdict.holds());
    const BufferAccount& account = verdict.accounts[0];
    EXPECT_EQ(account.count(Kind::kOverflow), 9);
    EXPECT_EQ(account.most[static_cast<size_t>(Kind::kOverflow)], 32'208 - 16'384);
    EXPECT_THAT(account.findings[8], IsFinding(finding(Kind::kOverflow, 8, 0.32, 32'000 - 16'384)));
    // A sender of a constant rate pauses.
    EXPECT_TRUE(verdict.accounts[1].holds());
    EXPECT_EQ(verdict.accounts[1].greatest, 32'208);
}

TEST(VbvByDelay, ListsTheFirstFindingsAndCountsAll) {
    Units units = mpeg2();
    for (int n = 0; n < 90; n++) units.push_back(units[1] + Bytes(100));
    const BufferAccount account = check(units).accounts[0];
    EXPECT_EQ(account.count(Kind::kRate), 89);  // the last one's end tells of no rate
    EXPECT_EQ(account.findings.size(), 10u);
}

TEST(VbvByDelay, TakesAPictureWithoutDelayBetweenOthers) {
    Units units = mpeg2();
    units[4] = mpeg2_picture(kUnit, {.vbv_delay = kUnstated});
    const BufferVerdict verdict = check(units);
    EXPECT_TRUE(verdict.holds());
    EXPECT_EQ(verdict.accounts[0].course[4].stated_delay, std::nullopt);
    EXPECT_EQ(verdict.accounts[0].course[4].before, 32'032);
}

TEST(VbvWithoutDelay, FillsUpAndFindsUnderflowOnly) {
    Units units = mpeg2({}, {.vbv_delay = kUnstated});
    BufferVerdict verdict = check(units);
    ASSERT_EQ(verdict.accounts.size(), 1u);
    EXPECT_EQ(verdict.accounts[0].model, BufferModel::kVbvFilledUp);
    EXPECT_TRUE(verdict.holds());
    EXPECT_DOUBLE_EQ(verdict.accounts[0].initial_delay, 0.2048);  // 81920 bits
    EXPECT_THAT(before(verdict.accounts[0]),
                ElementsAre(81920, 81744, 81744, 81744, 81744, 80000, 64000, 48000, 32000, 16000));
    units[3] = units[3] + Bytes(10'000);
    units.insert(units.end(), 10, mpeg2_picture(kUnit / 2, {.vbv_delay = kUnstated}));
    verdict = check(units);
    const BufferAccount& account = verdict.accounts[0];
    EXPECT_THAT(account.findings[0], IsFinding(finding(Kind::kUnderflow, 3, 0.12, 96'000 - 81'744)));
    EXPECT_EQ(account.count(Kind::kUnderflow), 8);  // until the second of the smaller pictures
    EXPECT_EQ(account.course[11].before, 16'000 - 14'256 + 8'000);
    EXPECT_EQ(account.count(Kind::kOverflow), 0);
}

TEST(VbvWithoutDelay, NeverHoldsMoreThanItCan) {
    Units units = mpeg2({}, {.vbv_delay = kUnstated});
    for (size_t n = 1; n < units.size(); n++) units[n] = mpeg2_picture(500, {.vbv_delay = kUnstated});
    units.insert(units.end(), 9, mpeg2_picture(kUnit, {.vbv_delay = kUnstated}));
    const BufferAccount account = check(units).accounts[0];
    EXPECT_EQ(account.course[1].before, 81'744);
    EXPECT_EQ(account.course[2].before, 81'920);
    EXPECT_EQ(account.greatest, 81'920);
}

TEST(VbvTimes, RemoveFieldsOneByOne) {
    Units units;
    for (int n = 0; n < 3; n++)
        units.push_back(mpeg2_picture(kUnit / 2, {.type = n ? 'P' : 'I', .structure = 1}) +
                        mpeg2_picture(kUnit / 2, {.type = 'P', .structure = 2}));
    units[0] = mpeg2_sequence({.progressive = false}) + units[0];
    const BufferAccount account = check(units).accounts[0];
    EXPECT_THAT(milliseconds(account), ElementsAre(0, 20, 40, 60, 80, 100));
    EXPECT_EQ(account.course[3].unit, 1);
    EXPECT_EQ(account.course[3].bits, 8'000);
    EXPECT_EQ(account.course[1].before, 32'032);
    EXPECT_TRUE(account.holds());
}

TEST(VbvTimes, KnowFieldsThatComeInUnitsOfTheirOwn) {
    Units units;
    for (int n = 0; n < 2; n++)
        for (const unsigned structure : {2u, 1u})
            units.push_back(mpeg2_picture(kUnit / 2, {.type = 'P', .structure = structure}));
    units.push_back(mpeg2_picture(kUnit / 2, {.type = 'B', .structure = 1}));
    units.push_back(mpeg2_picture(kUnit / 2, {.type = 'B', .structure = 2}));
    units.push_back(mpeg2_picture(kUnit, {.type = 'P', .repeat_first_field = true}));
    units.push_back(mpeg2_picture(kUnit / 2, {.type = 'P', .structure = 1}));
    units.push_back(mpeg2_picture(kUnit / 2, {.type = 'P', .structure = 2}));
    units.push_back(mpeg2_picture(kUnit, {.type = 'P'}));
    units[0] = mpeg2_sequence({.progressive = false}) + units[0];
    // The second field before the last waits for the frame of three fields to be shown: 2 for 3 of 20 ms.
    EXPECT_THAT(milliseconds(check(units).accounts[0]),
                ElementsAre(0, 20, 40, 60, 80, 100, 120, 160, 180, 220));
}

/// I0 P3 B1 B2 P6, of which I0 and B2 are shown for three fields.
Units with_repeated_fields(const Mpeg2Sequence& sequence, bool top_field_first = false) {
    Units units;
    for (const auto& [type, repeats] :
         {std::pair('I', true), {'P', false}, {'B', false}, {'B', true}, {'P', false}, {'P', false}})
        units.push_back(mpeg2_picture(
            kUnit, {.type = type, .top_field_first = top_field_first, .repeat_first_field = repeats}));
    units[0] = mpeg2_sequence(sequence) + units[0];
    return units;
}

TEST(VbvTimes, FollowRepeatedFieldsThroughTheReordering) {
    // I0 is shown from 40 ms on, for 60 ms; B1 then, for 40; B2 for 60; P3 for 40.
    EXPECT_THAT(milliseconds(check(with_repeated_fields({.progressive = false})).accounts[0]),
                ElementsAre(0, 40, 100, 140, 200, 240));
}

TEST(VbvTimes, ShowEachPictureAtOnceWithLowDelay) {
    EXPECT_THAT(
        milliseconds(check(with_repeated_fields({.progressive = false, .low_delay = true})).accounts[0]),
        ElementsAre(0, 60, 100, 140, 200, 240));
}

TEST(VbvTimes, RepeatWholeFramesOfAProgressiveSequence) {
    EXPECT_THAT(milliseconds(check(with_repeated_fields({}, false)).accounts[0]),
                ElementsAre(0, 40, 120, 160, 240, 280));
    EXPECT_THAT(milliseconds(check(with_repeated_fields({}, true)).accounts[0]),
                ElementsAre(0, 40, 160, 200, 320, 360));
}

TEST(VbvTimes, KnowEveryFrameRate) {
    const double expected[] = {1001. / 24000, 1. / 24, 1. / 25,       1001. / 30000,
                               1. / 30,       1. / 50, 1001. / 60000, 1. / 60};
    for (unsigned code = 1; code <= 8; code++)
        EXPECT_DOUBLE_EQ(check(mpeg2({.frame_rate_code = code})).accounts[0].course[1].seconds,
                         expected[code - 1]);
    for (const unsigned code : {0u, 9u})
        EXPECT_EQ(check(mpeg2({.frame_rate_code = code})).state, State::kUndeclared);
}

TEST(VbvDeclaration, ReadsTheExtensionsOfRateAndSize) {
    const BufferAccount account = check(mpeg2({.rate = 0x40001, .size = 0x401})).accounts[0];
    EXPECT_EQ(account.bit_rate, 400 * 0x40001LL);
    EXPECT_EQ(account.size, 16384 * 0x401LL);
}

TEST(VbvDeclaration, IsMissingWhereRateOrSizeIsNotStated) {
    for (const Mpeg2Sequence& sequence :
         {Mpeg2Sequence{.rate = 0x3FFFF}, {.rate = 0x3FFFFFFF}, {.rate = 0}, {.size = 0}}) {
        const BufferVerdict verdict = check(mpeg2(sequence));
        EXPECT_EQ(verdict.state, State::kUndeclared);
        EXPECT_EQ(verdict.units, 10);
        EXPECT_TRUE(verdict.holds());
    }
}

TEST(VbvDeclaration, IsThatOfMpeg1Too) {
    const BufferVerdict verdict =
        check(mpeg2({.extended = false}, {.extended = false}), AV_CODEC_ID_MPEG1VIDEO);
    // The first unit has 12 bytes of header.
    EXPECT_THAT(before(verdict.accounts.at(0)),
                ElementsAre(32128, 32032, 32032, 32032, 32032, 32032, 32032, 32032, 32000, 16000));
}

TEST(VbvLowDelay, LetsPicturesBeLate) {
    for (const unsigned delay : {7200u, kUnstated}) {
        Units units = mpeg2({.low_delay = true}, {.vbv_delay = delay});
        units[3] = units[3] + Bytes(10'000);
        const BufferVerdict verdict = check(units);
        EXPECT_EQ(verdict.accounts.back().delayed, 7);
        EXPECT_EQ(verdict.accounts.back().count(Kind::kUnderflow), 0);
    }
}

TEST(VbvUnits, CountWhatHoldsNoPictureForTheNextOne) {
    Units units = mpeg2();
    units.insert(units.begin() + 4, {from_hex("00 00 01 B2 47 41"), {}, from_hex("12 34")});
    const BufferVerdict verdict = check(units);
    EXPECT_EQ(verdict.units, 13);
    EXPECT_EQ(verdict.unreadable, 3);
    EXPECT_EQ(verdict.accounts[0].course[4].unit, 7);
    EXPECT_EQ(verdict.accounts[0].course[4].bits, 16'064);
}

TEST(VbvUnits, EndAPictureWithTheSequenceItEnds) {
    const Bytes end = from_hex("00 00 01 B7"), group = from_hex("00 00 01 B8 00 08 00 40");
    Units units = mpeg2();
    units[2] = units[2] + end + group + units[3];
    const BufferAccount account = check(units).accounts[0];
    EXPECT_EQ(account.course[2].bits, 16'032);
    EXPECT_EQ(account.course[3].bits, 16'064);
    EXPECT_EQ(account.course[3].unit, 2);
}

TEST(VbvUnits, TakeHeadersThatEndEarlyForNone) {
    Units units = mpeg2();
    units[3] =
        units[3] + from_hex("00 00 01 B3 16 01 20") + from_hex("00 00 01 B5 14") + from_hex("00 00 01 B5 8F");
    units[6] = from_hex("00 00 01 00 00 08 ") + Bytes(10);
    units[6].resize(6);
    EXPECT_EQ(check(units).accounts[0].course[6].stated_delay, std::nullopt);
    EXPECT_EQ(check(units).accounts[0].course[4].seconds, 0.16);
}

// ---- H.264, by hand -------------------------------------------------------------------------------------
//
// 6250 times 64 are the same 400 000 bits/s, 5120 times 16 the same 81920 bits, and 7200 ticks again 32000
// bits; all bytes of a unit count.

struct H264Stream {
    H264Hrd hrd;
    std::vector<size_t> sizes = std::vector<size_t>(kPictures, kUnit);
    std::vector<size_t> periods = {0};  ///< units that begin one
    std::vector<H264Delay> delays = {{}};
    H264Form form = {};
};

Units h264(const H264Stream& stream) {
    Units units;
    unsigned ticks = 0;
    for (size_t n = 0; n < stream.sizes.size(); n++, ticks += 2) {
        Bytes unit;
        if (n == 0) unit = h264_sequence(stream.hrd, stream.form);
        const bool begins =
            std::find(stream.periods.begin(), stream.periods.end(), n) != stream.periods.end();
        if (begins) unit = unit + h264_buffering_period(stream.delays);
        unit = unit + h264_picture_timing(ticks) + h264_slice();
        if (begins) ticks = 0;
        units.push_back(filled_to(stream.sizes[n], unit));
    }
    return units;
}

BufferVerdict check(const H264Stream& stream) { return check(h264(stream), AV_CODEC_ID_H264); }

TEST(HrdConstantRate, FollowsTheBufferToTheBit) {
    // Whatever stands in front of the HRD parameters, they are found.
    for (const H264Form& form : {H264Form{},
                                 {.profile = 100},
                                 {.profile = 244, .chroma_format = 3},
                                 {.order_type = 1},
                                 {.order_type = 2, .interlaced = true},
                                 {.display = false, .chroma_location = true}}) {
        const BufferVerdict verdict = check({.form = form});
        ASSERT_EQ(verdict.accounts.size(), 1u);
        const BufferAccount& account = verdict.accounts[0];
        EXPECT_EQ(account.model, BufferModel::kHrdConstantRate);
        EXPECT_EQ(account.bit_rate, 400'000);
        EXPECT_EQ(account.size, 81'920);
        EXPECT_DOUBLE_EQ(account.initial_delay, 0.08);
        EXPECT_THAT(before(account),
                    ElementsAre(32000, 32000, 32000, 32000, 32000, 32000, 32000, 32000, 32000, 16000));
        EXPECT_THAT(milliseconds(account), ElementsAre(0, 40, 80, 120, 160, 200, 240, 280, 320, 360));
        EXPECT_DOUBLE_EQ(account.course[0].stated_delay.value(), 0.08);
        EXPECT_EQ(account.course[1].stated_delay, std::nullopt);
        EXPECT_TRUE(verdict.holds());
        EXPECT_EQ(verdict.unreadable, 0);
    }
}

TEST(HrdConstantRate, FindsUnderflow) {
    H264Stream stream;
    stream.sizes[3] = 6000;
    const BufferAccount account = check(stream).accounts[0];
    EXPECT_EQ(account.count(Kind::kUnderflow), 7);
    EXPECT_THAT(account.findings[0], IsFinding(finding(Kind::kUnderflow, 3, 0.12, 16'000)));
    EXPECT_EQ(account.least, -16'000);
}

TEST(HrdConstantRate, FindsOverflow) {
    const BufferAccount account = check({.hrd = {.size = 1999}}).accounts[0];
    EXPECT_EQ(account.count(Kind::kOverflow), 9);
    EXPECT_THAT(account.findings[0], IsFinding(finding(Kind::kOverflow, 0, 0, 16)));
}

TEST(HrdConstantRate, TiesTheInitialDelayToWhatHasArrived) {
    // Unit 5 is due 7200 ticks after unit 4 has arrived: C-16.
    H264Stream stream{.periods = {0, 5}};
    EXPECT_TRUE(check(stream).holds());
    EXPECT_DOUBLE_EQ(check(stream).accounts[0].course[5].seconds, 0.2);
    EXPECT_DOUBLE_EQ(check(stream).accounts[0].course[6].seconds, 0.24);
    for (const unsigned wrong : {7300u, 7100u}) {
        Units units = h264(stream);
        units[5] =
            filled_to(kUnit, h264_buffering_period({{wrong, 0}}) + h264_picture_timing(10) + h264_slice());
        EXPECT_THAT(check(units, AV_CODEC_ID_H264).accounts[0].findings,
                    ElementsAre(IsFinding(finding(Kind::kInitialDelay, 5, 0.2, 445))));
    }
}

TEST(HrdVariableRate, LetsDataComeNoEarlierThanItMay) {
    // Pictures of 1000 bytes take 20 ms, and come 160 ms before they are due.
    H264Stream stream{.hrd = {.constant_rates = {false}}, .sizes = std::vector<size_t>(20, 1000)};
    const BufferAccount account = check(stream).accounts[0];
    EXPECT_EQ(account.model, BufferModel::kHrdVariableRate);
    EXPECT_EQ(account.course[0].before, 32'000);
    // Unit 5 begins at 40 ms, unit 6 at 80.
    EXPECT_EQ(account.course[1].before, 32'000);
    EXPECT_EQ(account.course[2].before, 32'000);
    EXPECT_EQ(account.greatest, 32'000);
    EXPECT_TRUE(account.holds());
}

TEST(HrdVariableRate, AllowsAnInitialDelayBelowTheBound) {
    H264Stream stream{.hrd = {.constant_rates = {false}}, .periods = {0, 5}};
    Units units = h264(stream);
    const auto with_delay = [&](unsigned delay) {
        units[5] =
            filled_to(kUnit, h264_buffering_period({{delay, 7200}}) + h264_picture_timing(10) + h264_slice());
        return check(units, AV_CODEC_ID_H264).accounts[0];
    };
    EXPECT_TRUE(with_delay(7100).holds());
    EXPECT_THAT(with_delay(7300).findings, ElementsAre(IsFinding(finding(Kind::kInitialDelay, 5, 0.2, 445))));
    // What comes 40 ms before its removal is only there in part: 6400 bits are still to come.
    const BufferAccount late = with_delay(2160);
    EXPECT_EQ(late.course[5].before, 9'600);
    EXPECT_THAT(late.findings[0], IsFinding(finding(Kind::kUnderflow, 5, 0.2, 6'400)));
}

TEST(HrdSchedules, AreCheckedEachByItself) {
    H264Stream stream{.hrd = {.constant_rates = {true, false}}, .delays = {{7200, 7200}, {3600, 10800}}};
    stream.sizes[3] = 4000;
    const BufferVerdict verdict = check(stream);
    ASSERT_EQ(verdict.accounts.size(), 2u);
    EXPECT_TRUE(verdict.accounts[0].holds());
    EXPECT_EQ(verdict.accounts[1].model, BufferModel::kHrdVariableRate);
    EXPECT_DOUBLE_EQ(verdict.accounts[1].initial_delay, 0.04);
    EXPECT_THAT(verdict.accounts[1].findings[0], IsFinding(finding(Kind::kUnderflow, 3, 0.12, 16'000)));
}

TEST(HrdLowDelay, LetsALatePictureWaitForTheNextTick) {
    H264Stream stream{.hrd = {.low_delay = true}};
    stream.sizes[9] = 4100;  // comes 42 ms later than 2000 bytes do, 2 ms late
    const BufferAccount account = check(stream).accounts[0];
    EXPECT_TRUE(account.holds());
    EXPECT_EQ(account.delayed, 1);
    EXPECT_EQ(milliseconds(account)[9], 380);
    EXPECT_EQ(account.course[9].before, 32'800);
}

TEST(HrdOfSlices, CountsSlicesAndFillerOnly) {
    H264Stream stream{.hrd = {.nal = false, .vcl = true}, .periods = {0, 5}};
    Units units = h264(stream);
    const Bytes filler_data = from_hex("00 00 00 01 0C FF FF 80");
    units[1] = units[1] + filler_data + Bytes(7);
    const BufferAccount account = check(units, AV_CODEC_ID_H264).accounts[0];
    // Without the SEI message of picture timing, 14 bytes with its emulation prevention, and the slice's
    // start code.
    EXPECT_EQ(account.course[2].bits, 16'000 - 8 * (14 + 4));
    EXPECT_EQ(account.course[1].bits, 16'000 - 8 * (14 + 4) + 8 * 4);
}

TEST(HrdOfBoth, PrefersThatOfTheNalUnits) {
    H264Stream stream{.hrd = {.vcl = true}, .delays = {{7200, 0}, {3600, 0}}};
    const BufferAccount account = check(stream).accounts.at(0);
    EXPECT_DOUBLE_EQ(account.initial_delay, 0.08);
    EXPECT_EQ(account.course[1].bits, 16'000);
}

TEST(HrdUnits, HoldFieldsAsPicturesOfTheirOwn) {
    const Units pictures = h264({});
    Units units;
    for (size_t n = 0; n < pictures.size(); n += 2) units.push_back(pictures[n] + pictures[n + 1]);
    const BufferVerdict verdict = check(units, AV_CODEC_ID_H264);
    EXPECT_EQ(before(verdict.accounts[0]), before(check(H264Stream{}).accounts[0]));
    EXPECT_EQ(verdict.accounts[0].course[3].unit, 1);
    EXPECT_EQ(verdict.unreadable, 0);
}

TEST(HrdUnits, BeginWithWhateverStandsBeforeAPicture) {
    // Delimiter, prefix NAL unit, picture parameter set and partition A begin one; partition B, an end of
    // sequence and auxiliary slices do not.
    const Bytes rest = h264_picture_timing(2) + h264_slice();
    for (const char* begin :
         {"00 00 00 01 09 F0", "00 00 00 01 0E 40", "00 00 00 01 68 CE", "00 00 00 01 42 9A"}) {
        Units units = h264({});
        const Bytes head = from_hex(begin);
        units[0] = units[0] + filled_to(kUnit, head);
        const bool slice = head[4] == 0x42;
        units[0] = units[0] + (slice ? Bytes{} : rest);
        const BufferVerdict verdict = check(units, AV_CODEC_ID_H264);
        EXPECT_EQ(verdict.accounts.at(0).course[0].bits, 16'000) << begin;
    }
    for (const char* more : {"00 00 00 01 43 9A", "00 00 00 01 0A", "00 00 00 01 53 9A", "00 00 00 01 41"}) {
        Units units = h264({});
        units[0] = units[0] + from_hex(more);
        const int64_t bits = 16'000 + 8 * static_cast<int64_t>(from_hex(more).size());
        EXPECT_EQ(check(units, AV_CODEC_ID_H264).accounts.at(0).course[0].bits, bits) << more;
    }
}

TEST(HrdUnits, HoldPicturesOfSeveralSlices) {
    Units units = h264({});
    const Bytes later_slice = from_hex("00 00 00 01 41 40");
    units[3] = filled_to(1500, h264_picture_timing(6) + h264_slice()) + filled_to(500, later_slice);
    EXPECT_EQ(before(check(units, AV_CODEC_ID_H264).accounts[0]), before(check(H264Stream{}).accounts[0]));
}

TEST(HrdUnits, CountFromTheFirstBufferingPeriod) {
    Units units = h264({});
    const Units late = h264({.sizes = {500, 500}, .periods = {}});
    units.insert(units.begin(), late.begin(), late.end());
    const BufferVerdict verdict = check(units, AV_CODEC_ID_H264);
    EXPECT_EQ(verdict.unreadable, 2);
    EXPECT_EQ(verdict.accounts[0].course[0].unit, 2);
    EXPECT_EQ(before(verdict.accounts[0]), before(check(H264Stream{}).accounts[0]));
}

TEST(HrdUnits, GoWithTheNextWhereTheyTellNoTime) {
    Units units = h264({});
    units[3] = filled_to(kUnit, h264_slice());
    const BufferVerdict verdict = check(units, AV_CODEC_ID_H264);
    EXPECT_EQ(verdict.unreadable, 1);
    EXPECT_EQ(verdict.accounts[0].course[3].unit, 4);
    EXPECT_EQ(verdict.accounts[0].course[3].bits, 32'000);
    EXPECT_TRUE(verdict.holds());
}

TEST(HrdDeclaration, TellsNoneFromOneWithoutTime) {
    EXPECT_EQ(check(H264Stream{.hrd = {.nal = false}}).state, State::kUndeclared);
    EXPECT_EQ(check(H264Stream{.hrd = {.timed = false}}).state, State::kUndeclared);
    EXPECT_EQ(check(H264Stream{.periods = {}}).state, State::kUntimed);
    EXPECT_EQ(check(H264Stream{}).state, State::kChecked);
    EXPECT_EQ(check({h264_slice(), {}}, AV_CODEC_ID_H264).units, 2);
}

TEST(HrdDeclaration, OutlivesASetThatTakesItBack) {
    Units units = h264({});
    units[4] = h264_sequence({.nal = false}) + units[4];
    EXPECT_EQ(check(units, AV_CODEC_ID_H264).unreadable, 6);
    units[0] = units[0] + units[4];
    units[0] = h264_sequence({}) + h264_buffering_period({{}}) + h264_sequence({.nal = false}) + h264_slice();
    EXPECT_EQ(check(units, AV_CODEC_ID_H264).state, State::kUntimed);
}

TEST(HrdDeclaration, RefusesWhatCannotBe) {
    const Bytes whole = h264_sequence({}), timed = h264_picture_timing(2) + h264_slice();
    // A set that ends anywhere is none.
    for (size_t size = 5; size + 3 < whole.size(); size++) {
        const Bytes cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
        EXPECT_EQ(check({cut, h264_buffering_period({{}}) + timed}, AV_CODEC_ID_H264).state,
                  State::kUndeclared)
            << size;
    }
    const Bytes many = h264_sequence({.constant_rates = std::vector<bool>(33, true)});
    EXPECT_EQ(check({many + h264_buffering_period({{}}) + timed}, AV_CODEC_ID_H264).state,
              State::kUndeclared);
}

TEST(HrdDeclaration, LeavesMessagesOutThatCannotBeRead) {
    const Bytes period = h264_buffering_period({{}}), slice = h264_slice();
    const Bytes unread[] = {
        h264_sei(0, from_hex("80 00 1C 20")),                         // ends within the delays
        h264_sei(0, from_hex("60 00 1C 20 00 1C 20 80")),             // of sequence parameter set 2
        from_hex("00 00 00 01 06 00 40 80 00 1C 20 00 1C 20 80"),     // longer than its NAL unit
        from_hex("00 00 00 01 06 FF 01 07 80 00 1C 20 00 1C 20 80"),  // type 256
    };
    for (const Bytes& message : unread)
        EXPECT_EQ(check({h264_sequence({}) + message + slice}, AV_CODEC_ID_H264).state, State::kUntimed);
    // Behind another message it is found.
    const Bytes other = from_hex("00 00 00 01 06 FF 01 02 AA BB");
    const Bytes both = other + Bytes(period.begin() + 5, period.end());
    EXPECT_EQ(check({h264_sequence({}) + both + slice}, AV_CODEC_ID_H264).state, State::kChecked);
    // Without a buffering period, picture timing says nothing; cut off, neither.
    EXPECT_EQ(check({h264_sequence({}) + h264_picture_timing(2) + slice}, AV_CODEC_ID_H264).state,
              State::kUntimed);
    Units units = h264({});
    units[3] = filled_to(kUnit, h264_sei(1, from_hex("00")) + slice);
    EXPECT_EQ(check(units, AV_CODEC_ID_H264).unreadable, 1);
}

// ---- Others ---------------------------------------------------------------------------------------------

TEST(BufferChecker, SaysThatH265IsNotChecked) {
    const Bytes picture = from_hex("00 00 00 01 26 01 AF"), timing = from_hex("00 00 00 01 4E 01 01 01 80"),
                period = from_hex("00 00 00 01 4E 01 00 01 80");
    EXPECT_EQ(check({timing + picture}, AV_CODEC_ID_HEVC).state, State::kUndeclared);
    EXPECT_EQ(check({period + picture, picture}, AV_CODEC_ID_HEVC).state, State::kUnsupported);
    EXPECT_EQ(check({Bytes(10)}, AV_CODEC_ID_MPEG4).state, State::kUndeclared);
    EXPECT_EQ(check(Units{}).state, State::kUndeclared);
}

class OthersAccounts : public testing::Test {
protected:
    /// Four seconds that are hard to code, as ffmpeg codes them with `options`.
    std::string encode(const std::string& name, const std::string& options) {
        std::string path = directory / name;
        output_of(
            "ffmpeg -nostdin -v error -f lavfi -i "
            "testsrc2=size=176x144:rate=25:duration=4,noise=alls=30:allf=t " +
            options + " -threads 1 " + path);
        return path;
    }

    static BufferVerdict verdict_on(const std::string& path) {
        return read_stream(path, true).buffer.value();
    }

    /// mplex multiplexes as MPEG-2's program stream, and says whether every picture arrives in time.
    std::string multiplex(const std::string& path) {
        return output_of("sh -c 'mplex -f 3 -o " + path + ".mpg " + path + "; true'");
    }

    ScratchDirectory directory;
};

constexpr const char* kMpeg2Constant =
    "-c:v mpeg2video -b:v 600k -minrate 600k -maxrate 600k -bufsize 262144 -g 12 -bf 2";

TEST_F(OthersAccounts, AgreeWithTheVbvDelayOfLibavcodec) {
    if (!have("ffmpeg -version", "ffmpeg")) return;
    for (const char* more : {"", " -flags +ilme+ildct -r 30000/1001"}) {
        SCOPED_TRACE(more);
        const BufferVerdict verdict = verdict_on(encode(
            "in" + std::to_string(std::string(more).size()) + ".m2v", kMpeg2Constant + std::string(more)));
        EXPECT_TRUE(verdict.holds());
        ASSERT_EQ(verdict.accounts.size(), 2u);
        ASSERT_GE(verdict.accounts[0].course.size(), 100u);
        // What the constant rate has brought since the first picture is what its encoder wrote of each later
        // one, but for the two roundings.
        const double tick = 600'000 / 90'000.0;
        for (size_t n = 0; n < verdict.accounts[0].course.size(); n++)
            EXPECT_NEAR(static_cast<double>(verdict.accounts[0].course[n].before),
                        static_cast<double>(verdict.accounts[1].course[n].before), 2 * tick);
    }
}

TEST_F(OthersAccounts, AgreeWithTheInitialDelaysOfX264) {
    if (!have("ffmpeg -version", "ffmpeg")) return;
    for (const std::string options :
         {"nal-hrd=cbr", "nal-hrd=vbr", "nal-hrd=cbr:open-gop=1:b-pyramid=normal:tff=1"}) {
        SCOPED_TRACE(options);
        const std::string path = encode(
            options.substr(8, 3) + std::to_string(options.size()) + ".h264",
            "-c:v libx264 -preset veryfast -b:v 600k -minrate 600k -maxrate 600k -bufsize 300k -g 12 -bf 2 "
            "-x264-params " +
                options);
        const BufferVerdict verdict = verdict_on(path);
        ASSERT_EQ(verdict.accounts.size(), 1u);
        const BufferAccount& account = verdict.accounts[0];
        EXPECT_EQ(account.model, options.find("cbr") != options.npos ? BufferModel::kHrdConstantRate
                                                                     : BufferModel::kHrdVariableRate);
        EXPECT_TRUE(account.holds());
        EXPECT_EQ(verdict.unreadable, 0);
        EXPECT_EQ(account.course.size(), 100u);
        const auto rate = static_cast<double>(account.bit_rate);
        int periods = 0;
        for (const BufferFullness& now : account.course) {
            if (!now.stated_delay || !now.arriving) continue;
            periods++;
            EXPECT_NEAR(static_cast<double>(now.before), *now.stated_delay * rate, rate / 90'000 + 1)
                << now.unit;
        }
        EXPECT_GE(periods, 5);
    }
}

/// Writes another bit_rate into every sequence header.
std::string with_bit_rate(std::string stream, unsigned units) {
    const std::string code("\0\0\1\xB3", 4);
    for (size_t at = 0; (at = stream.find(code, at)) != stream.npos; at += 8) {
        const auto byte = [&](size_t n) -> char& { return stream[at + 8 + n]; };
        byte(0) = static_cast<char>(units >> 10);
        byte(1) = static_cast<char>(units >> 2);
        byte(2) = static_cast<char>((units & 3) << 6 | (static_cast<uint8_t>(byte(2)) & 0x3F));
    }
    return stream;
}

/// Puts zero bytes, as stuffing, in front of picture `number`.
std::string with_stuffing(std::string stream, int number, size_t bytes) {
    const std::string code("\0\0\1\0", 4);
    size_t at = stream.find(code);
    for (int n = 0; n < number; n++) at = stream.find(code, at + 4);
    return stream.insert(at, bytes, '\0');
}

/// By how much the worst picture is in time, in bits, where the first one is removed `delay` seconds after
/// data began to arrive at the declared rate.
double margin_with(const BufferAccount& account, double delay) {
    return static_cast<double>(account.least) +
           (delay - account.initial_delay) * static_cast<double>(account.bit_rate);
}

TEST_F(OthersAccounts, AgreeWithMplexOnWhatArrivesInTime) {
    if (!have("ffmpeg -version", "ffmpeg") || !have("command -v mplex", "mjpegtools")) return;
    const std::string sound = read_file(encode("sound.m2v", kMpeg2Constant));
    struct Case {
        const char* name;
        std::string bytes;
        bool holds;        ///< from the delay on that the stream asks for
        bool multiplexes;  ///< from the delay on that mplex takes
    };
    const Case cases[] = {
        {"sound", sound, true, true},
        {"a little slow", with_bit_rate(sound, 550'000 / 400), false, true},
        {"too slow", with_bit_rate(sound, 300'000 / 400), false, false},
        {"large", with_stuffing(sound, 50, 40'000), false, true},
        {"too large", with_stuffing(sound, 50, 200'000), false, false},
    };
    for (const Case& stream : cases) {
        SCOPED_TRACE(stream.name);
        const std::string path = directory / "in.m2v";
        write_bytes(path, stream.bytes);
        const BufferVerdict verdict = verdict_on(path);
        EXPECT_EQ(verdict.holds(), stream.holds);
        EXPECT_EQ(verdict.accounts.at(1).holds(), stream.holds);

        const std::string account = multiplex(path);
        const std::string head = "Run-in delay = ";
        ASSERT_THAT(account, HasSubstr(head));
        const double delay = std::atoi(account.c_str() + account.find(head) + head.size()) / 90'000.0;
        const double margin = margin_with(verdict.accounts.at(1), delay);
        EXPECT_EQ(margin > 0, stream.multiplexes) << margin;
        EXPECT_GT(std::abs(margin), 8 * 2 * 2048) << "within the size of mplex's packs";
        EXPECT_EQ(account.find("data will arrive too late") == account.npos, stream.multiplexes) << account;
        EXPECT_EQ(account.find("no under-runs detected") != account.npos, stream.multiplexes) << account;
    }
}

/// Film with B-pictures, made to be shown at 29.97 frames/s: for two and three fields by turns, in the order
/// of display.
std::string with_repeated_fields(std::string stream) {
    struct Place {
        int gop, temporal_reference;
        size_t extension;  ///< of the picture coding extension's prefix
    };
    const auto byte = [&](size_t at) { return static_cast<uint8_t>(stream[at]); };
    const auto set = [&](size_t at, unsigned cleared, unsigned bits) {
        stream[at] = static_cast<char>((byte(at) & ~cleared) | bits);
    };
    constexpr uint8_t kPicture = 0, kSequence = 0xB3, kExtension = 0xB5, kGroup = 0xB8;
    std::vector<Place> pictures;
    int gop = 0;
    const std::string prefix("\0\0\1", 3);
    for (size_t at = stream.find(prefix); at != stream.npos; at = stream.find(prefix, at + 4)) {
        const int extension = byte(at + 3) == kExtension ? byte(at + 4) >> 4 : 0;
        if (byte(at + 3) == kGroup) gop++;
        if (byte(at + 3) == kPicture) pictures.push_back({gop, byte(at + 4) << 2 | byte(at + 5) >> 6, 0});
        if (byte(at + 3) == kSequence) set(at + 7, 0x0F, 4);  // frame_rate_code
        if (extension == 1) set(at + 5, 0x08, 0);             // progressive_sequence
        if (extension == 8) pictures.back().extension = at;
    }
    std::sort(pictures.begin(), pictures.end(), [](const Place& a, const Place& b) {
        return std::pair(a.gop, a.temporal_reference) < std::pair(b.gop, b.temporal_reference);
    });
    for (size_t n = 0; n < pictures.size(); n++) {
        const size_t begin = n * 5 / 2, end = (n + 1) * 5 / 2;  // fields
        const unsigned top_first = begin % 2 ? 0 : 0x80, repeats = end - begin == 3 ? 0x02 : 0;
        set(pictures[n].extension + 7, 0x82, top_first | repeats);
    }
    return stream;
}

TEST_F(OthersAccounts, AgreeWithMplexOnWhenRepeatedFieldsLetPicturesLeave) {
    if (!have("ffmpeg -version", "ffmpeg") || !have("command -v mplex", "mjpegtools")) return;
    const std::string path = directory / "film.m2v";
    write_bytes(
        path,
        with_repeated_fields(read_file(encode(
            "in.m2v", "-r 24000/1001 -c:v mpeg2video -b:v 600k -maxrate 900k -bufsize 400k -g 12 -bf 2"))));
    const BufferAccount account = verdict_on(path).accounts.at(0);
    multiplex(path);
    const std::vector<int64_t> decoding_times = decode_clip(path + ".mpg").packet_dts;
    ASSERT_GE(decoding_times.size(), 90u);
    ASSERT_LE(decoding_times.size(), account.course.size());
    std::set<long> steps;
    for (size_t n = 3; n < decoding_times.size(); n++) {  // the second picture has the first one's time there
        const double step = account.course[n].seconds - account.course[n - 1].seconds;
        EXPECT_NEAR(90'000 * (account.course[n].seconds - account.course[2].seconds),
                    static_cast<double>(decoding_times[n] - decoding_times[2]), 1)
            << n;
        steps.insert(std::lround(step * 2 * 30000 / 1001));
    }
    EXPECT_THAT(steps, ElementsAre(2, 3));  // fields
}

}  // namespace
}  // namespace gsve::programme
