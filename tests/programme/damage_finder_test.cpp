// What each witness says, and the damage that it makes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "programme/damage_finder.h"
#include "programme/damage_witnesses.h"

namespace gsve::programme {
namespace {

using Kind = DamagedRange::Kind;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr double kFrame = 0.04;

/// 25 pictures a second that are shown in the order of their units, a key picture every ten.
class Stream {
public:
    explicit Stream(int64_t units = 100) : units_(units) {}

    std::function<void(int64_t)> during = [](int64_t) {};  ///< after the unit was sent, before it is shown
    std::function<bool(int64_t)> flagged = [](int64_t) { return false; };
    std::function<bool(int64_t)> key = [](int64_t unit) { return unit % 10 == 0; };
    std::function<bool(int64_t)> comes_out = [](int64_t) { return true; };
    int64_t missing_before = -1;  ///< this one is late by two pictures

    Damage run() {
        double time = 0;
        for (int64_t n = 0; n < units_; n++) {
            EXPECT_EQ(finder.sent({.key = key(n), .flagged = flagged(n)}), n);
            during(n);
            if (!comes_out(n)) continue;
            const int64_t missing = n == missing_before ? 2 : 0;
            time += static_cast<double>(missing) * kFrame;
            finder.shown(n, {.begin = time, .missing = missing, .damaged = false});
            time += kFrame;
        }
        return finder.finish();
    }

    DamageFinder finder{kFrame};

private:
    int64_t units_;
};

MATCHER_P4(RangeOf, kind, begin, end, pictures, "") {
    return arg.kind == kind && std::abs(arg.begin - begin) < 1e-9 && std::abs(arg.end - end) < 1e-9 &&
           arg.pictures == static_cast<uint64_t>(pictures);
}

TEST(DamageFinder, FindsNothingInAWholeStream) {
    for (const int64_t units : {0, 1, 100, 1000}) EXPECT_EQ(Stream(units).run(), Damage());
}

TEST(DamageFinder, PlacesComplaintsAtTheirPictures) {
    Stream stream;
    stream.during = [&](int64_t n) {
        if (n == 20 || n == 21 || n == 50) stream.finder.complained(n, DamageFinder::kOfData);
    };
    EXPECT_THAT(stream.run().ranges,
                ElementsAre(RangeOf(Kind::kDamaged, 0.8, 0.88, 2), RangeOf(Kind::kDamaged, 2.0, 2.04, 1)));
}

TEST(DamageFinder, NamesTheDamagedUnits) {
    Stream stream(600);
    std::vector<int64_t> heard;
    stream.finder.on_damaged([&](int64_t unit) { heard.push_back(unit); });
    stream.during = [&](int64_t n) {
        if (n % 250 == 3) stream.finder.complained(n, DamageFinder::kOfData);
    };
    EXPECT_EQ(stream.run().damaged(), 3u);
    EXPECT_THAT(heard, ElementsAre(3, 253, 503));
}

TEST(DamageFinder, IgnoresMissingReferencesFromTheFirstToTheSecondKeyPicture) {
    for (const auto& [unit, found] : {std::pair(2, 0u), {9, 0u}, {10, 1u}, {57, 1u}}) {
        Stream stream;
        stream.during = [&stream, unit = unit](int64_t n) {
            if (n == unit) stream.finder.complained(n, DamageFinder::kOfReferences);
        };
        EXPECT_EQ(stream.run().damaged(), found) << unit;
    }
}

TEST(DamageFinder, CountsMissingReferencesOfWhatIsShownBeforeTheFirstKeyPicture) {
    for (const bool shown : {false, true}) {
        Stream stream;
        stream.key = [](int64_t n) { return n >= 5 && n % 10 == 5; };
        stream.comes_out = [shown](int64_t n) { return n >= 5 || shown; };
        stream.during = [&](int64_t n) {
            if (n == 2) stream.finder.complained(n, DamageFinder::kOfReferences);
        };
        EXPECT_EQ(stream.run().damaged(), shown ? 1u : 0u);
    }
}

TEST(DamageFinder, CountsRefusedUnitsOnceTheStreamHasBegun) {
    Stream stream;
    // Begins with units that no decoder could use, before its first key picture.
    stream.key = [](int64_t n) { return n >= 5 && n % 10 == 5; };
    stream.comes_out = [](int64_t n) { return n >= 5 && n != 30; };
    stream.during = [&](int64_t n) {
        if (!stream.comes_out(n)) stream.finder.refused(n);
    };
    EXPECT_THAT(stream.run().ranges, ElementsAre(RangeOf(Kind::kUndecodable, 1.0, 1.04, 1)));
}

TEST(DamageFinder, CountsAFirstKeyPictureThatIsRefused) {
    Stream stream;
    stream.comes_out = [](int64_t n) { return n > 0; };
    stream.during = [&](int64_t n) {
        if (n == 0) stream.finder.refused(n);
    };
    EXPECT_EQ(stream.run().undecodable(), 1u);
}

TEST(DamageFinder, TakesTheUnitThatWasComplainedOfForTheRefusedOne) {
    Stream stream;
    stream.comes_out = [](int64_t n) { return n != 40; };
    stream.during = [&](int64_t n) {
        if (n == 41) stream.finder.complained(40, DamageFinder::kOfData);
        if (n == 44) stream.finder.refused();
    };
    EXPECT_THAT(stream.run().ranges, ElementsAre(RangeOf(Kind::kUndecodable, 1.6, 1.64, 1)));
}

TEST(DamageFinder, ChargesASecondFieldToItsPicture) {
    Stream stream;
    stream.comes_out = [](int64_t n) { return n != 41; };
    stream.during = [&](int64_t n) {
        if (n == 41) stream.finder.complained(41, DamageFinder::kOfData);
    };
    EXPECT_THAT(stream.run().ranges, ElementsAre(RangeOf(Kind::kDamaged, 1.6, 1.64, 1)));
}

TEST(DamageFinder, ChargesAPictureOnceForBothFields) {
    // The first field by each witness, the second by what the decoder said.
    for (const int witness : {0, 1, 2}) {
        DamageFinder finder(kFrame);
        for (int64_t n = 0; n < 4; n++) {
            finder.sent({.key = n == 0, .flagged = false});
            if (n == 1 && witness == 1) finder.refused(n);
            if ((n == 1 && witness == 2) || n == 2) finder.complained(n, DamageFinder::kOfData);
            const double begin = static_cast<double>(n) * kFrame;
            if (n != 2) finder.shown(n, {.begin = begin, .missing = 0, .damaged = n == 1 && witness == 0});
        }
        EXPECT_THAT(finder.finish().ranges, ElementsAre(RangeOf(Kind::kDamaged, kFrame, 2 * kFrame, 1)))
            << witness;
    }
}

TEST(DamageFinder, TakesUnitsForOrdinaryOnesUnlessToldOtherwise) {
    EXPECT_FALSE(DamageFinder::Sent().key);
    EXPECT_FALSE(DamageFinder::Sent().flagged);
}

TEST(DamageFinder, ChargesNoPictureBeforeTheFirst) {
    Stream stream;
    stream.comes_out = [](int64_t n) { return n != 0; };
    stream.during = [&](int64_t n) {
        if (n == 0) stream.finder.complained(0, DamageFinder::kOfData);
    };
    EXPECT_EQ(stream.run(), Damage());
}

TEST(DamageFinder, CallsAGapLossOnlyWithAWitness) {
    Stream quiet;
    quiet.missing_before = 40;
    EXPECT_EQ(quiet.run(), Damage());
    for (const int64_t flagged : {36, 37, 43, 44}) {
        Stream stream;
        stream.missing_before = 40;
        stream.flagged = [flagged](int64_t n) { return n == flagged; };
        const bool near = flagged == 37 || flagged == 43;  // of the units 39 and 40, three away at most
        EXPECT_EQ(stream.run().missing(), flagged == 36 || near ? 2u : 0u) << flagged;
    }
}

TEST(DamageFinder, TakesTheUnitAfterAFlaggedOneForIncomplete) {
    Stream stream;
    stream.flagged = [](int64_t n) { return n == 41; };
    EXPECT_THAT(stream.run().ranges, ElementsAre(RangeOf(Kind::kDamaged, 1.68, 1.72, 1)));
    EXPECT_FALSE(stream.finder.last_unit_incomplete());
}

TEST(DamageFinder, LetsAFlagPassWhereAKeyPictureFollows) {
    Stream stream;  // 48 is flagged for 49, and 50 begins another recording
    stream.flagged = [](int64_t n) { return n == 48; };
    EXPECT_EQ(stream.run(), Damage());
}

TEST(DamageFinder, TellsWhetherTheLastUnitIsIncomplete) {
    for (const int64_t flagged : {97, 98, 99}) {
        Stream stream;
        stream.flagged = [flagged](int64_t n) { return n == flagged; };
        EXPECT_EQ(stream.run().damaged(), 1u);
        EXPECT_EQ(stream.finder.last_unit_incomplete(), flagged >= 98) << flagged;
    }
}

TEST(DamageFinder, JoinsEndlessDamage) {
    Stream stream(20000);
    stream.during = [&](int64_t n) {
        if (n >= 100) stream.finder.complained(n, DamageFinder::kOfData);
    };
    EXPECT_THAT(stream.run().ranges, ElementsAre(RangeOf(Kind::kDamaged, 4.0, 800.0, 19900)));
}

TEST(DamageFinder, TakesTheLatestUnitForTheRefusedOneWhereNoneWasComplainedOf) {
    Stream stream;
    stream.comes_out = [](int64_t n) { return n != 40; };
    stream.during = [&](int64_t n) {
        if (n == 40) stream.finder.refused();
    };
    EXPECT_THAT(stream.run().ranges, ElementsAre(RangeOf(Kind::kUndecodable, 1.6, 1.64, 1)));
}

TEST(DamageFinder, LooksForTheRefusedUnitAmongTheLatest64) {
    for (const int64_t late : {63, 64}) {
        Stream stream(400);
        stream.comes_out = [](int64_t n) { return n != 100; };
        stream.during = [&, late](int64_t n) {
            if (n == 100) stream.finder.complained(100, DamageFinder::kOfData);
            if (n == 100 + late) stream.finder.refused();
        };
        const Damage damage = stream.run();
        EXPECT_EQ(damage.undecodable(), late == 63 ? 1u : 0u) << late;
    }
}

TEST(DamageFinder, LetsUnitsPassThatItDoesNotKnow) {
    DamageFinder finder(kFrame);
    finder.refused();
    finder.shown(0, {.begin = 0, .missing = 0, .damaged = true});
    finder.complained(3, DamageFinder::kOfData);
    EXPECT_EQ(finder.finish(), Damage());
    Stream stream(600);
    stream.during = [&](int64_t n) {
        if (n != 500) return;
        stream.finder.complained(10, DamageFinder::kOfData);  // settled long ago
        stream.finder.complained(501, DamageFinder::kOfData);
        stream.finder.refused(501);
    };
    EXPECT_EQ(stream.run(), Damage());
}

TEST(DamageFinder, ChargesThePictureOfADecoderThatLosesCountToTheLatestUnit) {
    DamageFinder finder(kFrame);
    for (int64_t n = 0; n < 20; n++) {
        finder.sent({.key = n == 0, .flagged = false});
        finder.shown(n == 15 ? -1 : n,
                     {.begin = kFrame * static_cast<double>(n), .missing = 0, .damaged = n == 15});
    }
    EXPECT_THAT(finder.finish().ranges, ElementsAre(RangeOf(Kind::kDamaged, 0.6, 0.64, 1)));
}

TEST(DamageFinder, TellsAnIncompleteLastUnitByEveryWitness) {
    for (const int witness : {0, 1, 2, 3, 4}) {
        DamageFinder finder(kFrame);
        for (int64_t n = 0; n < 30; n++) {
            const bool last = n == 29;
            finder.sent({.key = n % 10 == 0, .flagged = false});
            if (last && witness == 1) finder.complained(n, DamageFinder::kOfData);
            if (last && witness == 2) finder.complained(n, DamageFinder::kOfReferences);
            if (last && witness == 3) finder.refused(n);
            finder.shown(
                n, {.begin = kFrame * static_cast<double>(n), .missing = 0, .damaged = last && witness == 4});
        }
        EXPECT_EQ(finder.finish().damaged(), witness == 0 ? 0u : 1u) << witness;
        EXPECT_EQ(finder.last_unit_incomplete(), witness == 1 || witness == 3 || witness == 4) << witness;
    }
}

TEST(ComplaintsOf, AreWhatTheDecoderFlags) {
    const FramePtr frame = new_frame();
    const std::vector<std::pair<int, unsigned>> flags = {
        {0, 0},
        {FF_DECODE_ERROR_MISSING_REFERENCE, DamageFinder::kOfReferences},
        {FF_DECODE_ERROR_INVALID_BITSTREAM, DamageFinder::kOfData},
        {FF_DECODE_ERROR_MISSING_REFERENCE | FF_DECODE_ERROR_DECODE_SLICES,
         DamageFinder::kOfReferences | DamageFinder::kOfData}};
    for (const auto& [flag, complaints] : flags) {
        frame->decode_error_flags = flag;
        EXPECT_EQ(complaints_of(*frame), complaints) << flag;
    }
}

TEST(Damage, IsEqualWhereEveryPartIs) {
    const DamagedRange range = {Kind::kMissing, 1, 2, 25};
    const std::vector<DamagedRange> others = {{Kind::kDamaged, 1, 2, 25},
                                              {Kind::kMissing, 0, 2, 25},
                                              {Kind::kMissing, 1, 3, 25},
                                              {Kind::kMissing, 1, 2, 24}};
    for (const DamagedRange& other : others) {
        EXPECT_NE(range, other);
        EXPECT_NE((Damage{{range}, {}}), (Damage{{other}, {}}));
    }
    EXPECT_EQ(DamagedRange().kind, Kind::kDamaged);
    EXPECT_EQ(DamagedRange().pictures, 0u);
    EXPECT_EQ(DamagedRange().begin, 0);
    EXPECT_EQ(DamagedRange().end, 0);
    EXPECT_EQ(Damage::EarlyEnd().seconds, 0);
    const Damage::EarlyEnd end = {3, 4.0};
    for (const Damage::EarlyEnd& other : {Damage::EarlyEnd{3, {}}, {3, 5.0}, {2, 4.0}, {}})
        EXPECT_NE((Damage{{}, end}), (Damage{{}, other}));
    EXPECT_EQ((Damage{{range}, end}), (Damage{{range}, end}));
    EXPECT_TRUE((Damage{{}, end}).any());
    EXPECT_FALSE(Damage().any());
}

}  // namespace
}  // namespace gsve::programme
