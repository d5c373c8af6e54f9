// Insertion into encoded pictures: the gap, the GOP time code, and the three layouts of MPEG-2 picture user
// data, byte for byte.

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/caption_blocks.h"
#include "support/mpeg2_units.h"
#include "support/scripted_exchange.h"
#include "support/stderr_capture.h"
#include "support/unit_in_window.h"

namespace gsve::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

void set_rate(GeneralStreamingVideoEncoder& host, const Rate& rate) {
    host.frame_rate_num = rate.num;
    host.frame_rate_den = rate.den;
    host.frame_rate_divider = rate.divider;
}

void file(GeneralStreamingVideoEncoder& host, uint64_t pts, const Captions& captions) {
    auto& record = host.aux_data_map[pts];
    record.eia608_word_field1 = captions.field1;
    record.eia608_word_field2 = captions.field2;
    record.cea708_count = static_cast<uint32_t>(captions.words.size());
    for (size_t i = 0; i < captions.words.size(); i++) record.cea708_words[i] = captions.words[i];
}

/// A P-picture cut in front of its first slice, and the rest.
const Bytes kBeforeSlice = picture_header(2);
const Bytes kUnit = kBeforeSlice + kFirstSlice;

/// Units in which there is no place for user data: a picture start code, then a first slice, must follow.
const Bytes kUnitsWithoutAPlace[] = {
    {},
    from_hex("00"),
    from_hex("00 00 01"),
    from_hex("00 00 01 00"),
    from_hex("00 00 01 01"),
    from_hex("00 00 01 00 00 00 01"),
    from_hex("00 00 01 00 00 00 01 02"),
    kFirstSlice + picture_header(1),
    kBeforeSlice,
    kBeforeSlice + from_hex("00 00"),
    kBeforeSlice + from_hex("00 00 01"),
    kBeforeSlice + from_hex("00 00 01 02 99"),
    filler(500),
    Bytes(500, 0),
    kFirstSlice,
};

// The gap

class InsertOutput : public testing::Test {
protected:
    /// Inserts `n` bytes at `offset` from the unit's first byte; returns whether the gap was opened.
    bool insert(ptrdiff_t offset, size_t n) {
        out = host.output_window->data + offset;
        before = out;
        return host.GeneralStreamingVideoEncoder::mpeg_insert_output(out, n);
    }
    UnitInWindow host;
    uint8_t* out = nullptr;
    uint8_t* before = nullptr;
};

TEST_F(InsertOutput, OpensAGapInFrontOfThePositionByMovingTheBytesBeforeIt) {
    for (const size_t offset : {0, 1, 5, 9}) {
        for (const size_t n : {0, 1, 3, 9, 100}) {
            host.place(filler(10));
            ASSERT_TRUE(insert(static_cast<ptrdiff_t>(offset), n)) << offset << " " << n;
            EXPECT_EQ(out, before - n);
            EXPECT_EQ(host.head_room(), 8192 - n);
            std::fill_n(out, n, 0xAB);
            Bytes expected = filler(10);
            expected.insert(expected.begin() + static_cast<ptrdiff_t>(offset), n, 0xAB);
            EXPECT_EQ(hex(host.unit()), hex(expected));
        }
    }
}

TEST_F(InsertOutput, TakesExactlyTheHeadRoomThatThereIs) {
    for (const size_t n : {1, 50, 1000}) {
        host.place(filler(10), n);
        EXPECT_TRUE(insert(4, n));
        EXPECT_EQ(host.output_window->data, host.output_window->base);
        host.place(filler(10), n - 1);
        EXPECT_FALSE(insert(4, n)) << n;
        EXPECT_EQ(out, before);
        EXPECT_EQ(hex(host.unit()), hex(filler(10)));
        EXPECT_EQ(host.head_room(), n - 1);
    }
}

TEST_F(InsertOutput, RejectsPositionsOutsideTheUnit) {
    const struct {
        ptrdiff_t offset;
        bool accepted;
    } cases[] = {{-8193, false}, {-8192, false}, {-1, false}, {0, true}, {9, true}, {10, false}, {11, false}};
    for (const auto& row : cases) {
        host.place(filler(10));
        EXPECT_EQ(insert(row.offset, 4), row.accepted) << row.offset;
        if (!row.accepted) {
            EXPECT_EQ(out, before) << row.offset;
            EXPECT_EQ(host.head_room(), 8192u) << row.offset;
            EXPECT_EQ(hex(host.unit()), hex(filler(10))) << row.offset;
        }
    }
}

TEST_F(InsertOutput, RejectsPositionsInFrontOfTheBufferOfABrokenWindow) {
    host.place(filler(10));
    uint8_t* const base = std::exchange(host.output_window->base, host.output_window->data + 4);
    EXPECT_FALSE(insert(3, 0));
    EXPECT_TRUE(insert(4, 0));
    host.output_window->base = base;
}

TEST_F(InsertOutput, RejectsLengthsBeyondAnyBuffer) {
    host.place(filler(10));
    for (const size_t n : {static_cast<size_t>(8193), SIZE_MAX / 2, SIZE_MAX - 8192, SIZE_MAX})
        EXPECT_FALSE(insert(5, n)) << n;
    EXPECT_EQ(host.head_room(), 8192u);
}

TEST_F(InsertOutput, RejectsEveryPositionInAnEmptyUnit) {
    host.place({});
    EXPECT_FALSE(insert(0, 1));
    EXPECT_FALSE(insert(0, 0));
}

// GOP time code

mpeg2_gop_timecode_t timecode(bool drop_frame, int hours, int minutes, int seconds, int pictures) {
    mpeg2_gop_timecode_t made;
    made.valid = 1;
    made.drop_frame_flag = drop_frame;
    made.hours = static_cast<uint8_t>(hours);
    made.minutes = static_cast<uint8_t>(minutes);
    made.seconds = static_cast<uint8_t>(seconds);
    made.pictures = static_cast<uint8_t>(pictures);
    return made;
}

TEST(GopTimecode, RewritesTheTimeCodeAndKeepsTheFlags) {
    mpeg2_gop_timecode_t any_drop_flag = timecode(false, 0, 0, 0, 0);
    any_drop_flag.drop_frame_flag = 0x40;
    const struct {
        mpeg2_gop_timecode_t timecode;
        const char *before, *after;
    } cases[] = {
        {timecode(false, 1, 2, 3, 4), "00 08 00 40", "04 28 62 40"},
        {timecode(false, 0, 0, 0, 0), "00 08 00 00", "00 08 00 00"},
        {timecode(false, 0, 0, 0, 0), "FF FF FF FF", "00 08 00 7F"},
        {timecode(true, 23, 59, 59, 59), "00 00 00 20", "DF BF 7D A0"},
        {timecode(true, 0, 0, 0, 0), "00 08 00 01", "80 08 00 01"},
        {timecode(false, 16, 32, 32, 32), "00 08 00 15", "42 0C 10 15"},
        {timecode(false, 0, 0, 0, 1), "00 08 00 7F", "00 08 00 FF"},
        {any_drop_flag, "00 08 00 40", "80 08 00 40"},
        // Values out of range are not masked.
        {timecode(false, 32, 0, 0, 0), "00 08 00 40", "80 08 00 40"},
        {timecode(false, 0, 0, 0, 64), "00 08 00 40", "00 08 20 40"},
    };
    for (const auto& row : cases) {
        const Bytes head = from_hex("00 00 01 B8");
        UnitInWindow host(kSequenceHeader + head + from_hex(row.before) + picture_unit(1));
        host.GeneralStreamingVideoEncoder::mpeg_insert_gop_timecode(row.timecode);
        EXPECT_EQ(hex(host.unit()), hex(kSequenceHeader + head + from_hex(row.after) + picture_unit(1)))
            << row.before;
        EXPECT_EQ(host.head_room(), 8192u);
        EXPECT_THAT(host.calls, IsEmpty()) << "needs no gap";
    }
}

TEST(GopTimecode, IsLeftAloneWithoutAValidTimecodeOrAHeader) {
    mpeg2_gop_timecode_t invalid = timecode(false, 1, 2, 3, 4);
    invalid.valid = 0;
    UnitInWindow host(gop_unit(kClosedGop));
    host.mpeg_insert_gop_timecode(invalid);
    EXPECT_EQ(hex(host.unit()), hex(gop_unit(kClosedGop)));
    host.place(picture_unit(1));
    host.mpeg_insert_gop_timecode(timecode(false, 1, 2, 3, 4));
    EXPECT_EQ(hex(host.unit()), hex(picture_unit(1)));
}

TEST(GopTimecode, RewritesTheFirstHeaderOnly) {
    UnitInWindow host(gop_header(kClosedGop) + gop_header(kOpenGop));
    host.mpeg_insert_gop_timecode(timecode(false, 1, 2, 3, 4));
    EXPECT_EQ(hex(host.unit()), hex(gop_header(0x04286240) + gop_header(kOpenGop)));
}

TEST(GopTimecode, IsSearchedInTheFirst1024Bytes) {
    const struct {
        size_t offset, unit_size;
        bool written;
    } cases[] = {
        {0, 8, true},        {0, 7, false},       {0, 9, true},        {5, 13, true},
        {5, 12, false},      {1000, 4000, true},  {1016, 4000, true},  {1017, 4000, false},
        {1019, 4000, false}, {1020, 4000, false}, {1021, 4000, false}, {2000, 4000, false},
        {1016, 1024, true},  {1016, 1023, false},
    };
    for (const auto& row : cases) {
        Bytes unit = filler(row.offset) + gop_header(kClosedGop) + filler(4000);
        unit.resize(row.unit_size);
        UnitInWindow host(unit);
        host.mpeg_insert_gop_timecode(timecode(false, 1, 2, 3, 4));
        EXPECT_EQ(hex(host.unit()) != hex(unit), row.written) << row.offset << " in " << row.unit_size;
        if (row.written) {
            Bytes expected = filler(row.offset) + gop_header(0x04286240) + filler(4000);
            expected.resize(row.unit_size);
            EXPECT_EQ(hex(host.unit()), hex(expected));
        }
    }
}

TEST(GopTimecode, SurvivesUnitsOfAFewBytes) {
    for (size_t size = 0; size < 12; size++) {
        Bytes unit = gop_header(kClosedGop) + gop_header(kClosedGop);
        unit.resize(size);
        UnitInWindow host(unit);
        host.mpeg_insert_gop_timecode(timecode(false, 1, 2, 3, 4));
        EXPECT_EQ(hex(host.unit()) != hex(unit), size >= 8) << size;
    }
}

TEST(GopTimecode, WaitsAsOneCopyForTheNextPicture) {
    UnitInWindow host;
    mpeg2_gop_timecode_t first = timecode(true, 1, 2, 3, 4);
    first.valid = 9;
    first.text = "first";
    host.write_mpeg2_gop_timecode(first);
    first.text = "changed afterwards";
    EXPECT_EQ(host.pending_gop_timecode.valid, 9);
    EXPECT_EQ(host.pending_gop_timecode.drop_frame_flag, 1);
    EXPECT_EQ(host.pending_gop_timecode.hours, 1);
    EXPECT_EQ(host.pending_gop_timecode.minutes, 2);
    EXPECT_EQ(host.pending_gop_timecode.seconds, 3);
    EXPECT_EQ(host.pending_gop_timecode.pictures, 4);
    EXPECT_EQ(host.pending_gop_timecode.text, "first");
    host.write_mpeg2_gop_timecode({});
    EXPECT_EQ(host.pending_gop_timecode.valid, 0);
    EXPECT_EQ(host.pending_gop_timecode.hours, 0);
    EXPECT_EQ(host.pending_gop_timecode.text, "");
}

// Where user data goes

struct Inserter {
    const char* name;
    void (*insert)(UnitInWindow&);
    Bytes user_data;
};

/// Each inserter with captions for picture 5 at 29.97 pictures/s.
const Inserter kInserters[] = {
    {"CC", [](UnitInWindow& host) { host.GeneralStreamingVideoEncoder::mpeg_insert_eia608_cc(); },
     from_hex("00 00 01 B2 43 43 01 F8 82 FF 94 20 FE 80 80")},
    {"SCTE 20", [](UnitInWindow& host) { host.GeneralStreamingVideoEncoder::mpeg_insert_scte20(5); },
     from_hex("00 00 01 B2 03 11 22 33")},
    {"GA94", [](UnitInWindow& host) { host.GeneralStreamingVideoEncoder::mpeg_insert_cea708_cc(5); },
     ga94_user_data({}, 5, {0x1420, 0, {}})},
};

/// Captions for picture 5, and a packet that lets "CC" user data carry exactly that picture.
void prepare(UnitInWindow& host) {
    set_rate(host, {});
    file(host, 5, {0x1420, 0, {}});
    auto& record = host.aux_data_map.at(5);
    record.scte20_data_length = 3;
    std::copy_n(from_hex("11 22 33").begin(), 3, record.scte20_data);
    host.eia608_next_pts = 5;
    host.make_packet(6);
}

TEST(UserDataPlace, IsInFrontOfTheFirstSliceOfTheFirstPicture) {
    const struct {
        const char* what;
        Bytes before, after;
    } cases[] = {
        {"plain picture", kBeforeSlice, kFirstSlice},
        {"headers in front", kSequenceHeader + gop_header(kClosedGop) + picture_header(1), kFirstSlice},
        {"a slice in front of the picture", kFirstSlice + kBeforeSlice, kFirstSlice},
        {"further slices", kBeforeSlice, kFirstSlice + from_hex("00 00 01 02 55 00 00 01 03 66")},
        {"a later slice in front", kBeforeSlice + from_hex("00 00 01 02 55"), kFirstSlice},
        {"a second picture", kBeforeSlice, kFirstSlice + kBeforeSlice + kFirstSlice},
        {"zeros in front of the start codes", from_hex("00 00 00") + kBeforeSlice + from_hex("00 00"),
         kFirstSlice},
        {"a slice right behind the start code", from_hex("00 00 01 00"), from_hex("00 00 01 01")},
        {"a start code as the last bytes", kBeforeSlice, from_hex("00 00 01 01")},
    };
    for (const Inserter& inserter : kInserters) {
        for (const auto& row : cases) {
            UnitInWindow host(row.before + row.after);
            prepare(host);
            EXPECT_EQ(stderr_of([&] { inserter.insert(host); }), "");
            EXPECT_EQ(hex(host.unit()), hex(row.before + inserter.user_data + row.after))
                << inserter.name << ", " << row.what;
            EXPECT_THAT(host.calls,
                        ElementsAre("mpeg_insert_output(" + std::to_string(inserter.user_data.size()) + ")"))
                << "the gap comes through the virtual table";
        }
    }
}

TEST(UserDataPlace, MissingLeavesTheUnitUnchanged) {
    for (const Inserter& inserter : kInserters) {
        for (const Bytes& unit : kUnitsWithoutAPlace) {
            UnitInWindow host(unit);
            prepare(host);
            EXPECT_EQ(stderr_of([&] { inserter.insert(host); }), "");
            EXPECT_EQ(hex(host.unit()), hex(unit)) << inserter.name;
            EXPECT_EQ(host.head_room(), 8192u);
            EXPECT_EQ(host.eia608_next_pts, 5u);
            EXPECT_THAT(host.calls, IsEmpty());
        }
    }
}

TEST(UserDataPlace, NeedsHeadRoom) {
    for (const Inserter& inserter : kInserters) {
        for (const size_t missing : {0, 1}) {
            UnitInWindow host;
            host.place(kUnit, inserter.user_data.size() - missing);
            prepare(host);
            EXPECT_EQ(stderr_of([&] { inserter.insert(host); }), "");
            EXPECT_EQ(hex(host.unit()),
                      missing ? hex(kUnit) : hex(kBeforeSlice + inserter.user_data + kFirstSlice))
                << inserter.name;
            if (missing) {
                EXPECT_EQ(host.eia608_next_pts, 5u) << "words wait for the next picture";
            }
        }
    }
}

TEST(UserDataPlace, StandsInTheOrderOfTheCalls) {
    UnitInWindow host(gop_unit(kClosedGop));
    prepare(host);
    for (const Inserter& inserter : kInserters) inserter.insert(host);
    const Bytes front = kSequenceHeader + gop_header(kClosedGop) + picture_header(1);
    EXPECT_EQ(hex(host.unit()), hex(front + kInserters[0].user_data + kInserters[1].user_data +
                                    kInserters[2].user_data + kFirstSlice));
}

TEST(UserDataPlace, IsSearchedWithinTheUnitOnHostileBytes) {
    // Bytes of start codes in every order, cut anywhere; the window ends where its buffer ends.
    std::mt19937 random(7);
    const uint8_t alphabet[] = {0x00, 0x00, 0x00, 0x01, 0x01, 0xB8, 0x02};
    for (int round = 0; round < 3000; round++) {
        Bytes unit(random() % 24);
        for (uint8_t& byte : unit) byte = alphabet[random() % sizeof alphabet];
        for (const Inserter& inserter : kInserters) {
            UnitInWindow host(unit, 256);
            prepare(host);
            inserter.insert(host);
            const size_t grown = host.unit().size() - unit.size();
            EXPECT_TRUE(grown == 0 || grown == inserter.user_data.size())
                << inserter.name << " " << hex(unit);
        }
        UnitInWindow host(unit, 0);
        host.mpeg_insert_gop_timecode(timecode(false, 1, 2, 3, 4));
        EXPECT_EQ(host.unit().size(), unit.size());
    }
}

TEST(UserDataPlaceDeath, AbortsWhenAnOverriddenGapIsInTheWrongPlace) {
    for (const Inserter& inserter : {kInserters[1], kInserters[2]}) {
        UnitInWindow host(kUnit);
        prepare(host);
        host.insert_output = [&](uint8_t*& out, size_t n) {
            const bool opened = host.GeneralStreamingVideoEncoder::mpeg_insert_output(out, n);
            out -= 1;
            return opened;
        };
        EXPECT_DEATH(inserter.insert(host), "lib/gsve:[0-9]+: .*Assertion `p == pf' failed") << inserter.name;
    }
}

// "CC" user data

class Eia608Cc : public testing::Test {
protected:
    Eia608Cc() : host(kUnit) { set_rate(host, {}); }
    ~Eia608Cc() override { surroundings() = Surroundings{}; }

    /// Inserts into a fresh unit for a packet with `dts`; returns the user data that came in.
    std::string inserted(int64_t dts) {
        host.place(kUnit);
        host.make_packet(dts);
        said = stderr_of([&] { host.mpeg_insert_eia608_cc(); });
        const Bytes unit = host.unit();
        const size_t grown = unit.size() - kUnit.size();
        const Bytes user_data(unit.begin() + static_cast<ptrdiff_t>(kBeforeSlice.size()),
                              unit.begin() + static_cast<ptrdiff_t>(kBeforeSlice.size() + grown));
        EXPECT_EQ(hex(unit), hex(kBeforeSlice + user_data + kFirstSlice));
        return hex(user_data);
    }
    UnitInWindow host;
    std::string said;
};
using Eia608CcDeath = Eia608Cc;

TEST_F(Eia608Cc, CarriesTheWordsOfAllPicturesBeforeTheDts) {
    for (uint64_t pts = 0; pts < 6; pts++)
        file(host, pts, {static_cast<uint16_t>(0x4101 + pts), static_cast<uint16_t>(0x6101 + pts), {}});
    EXPECT_EQ(inserted(3), hex(from_hex("00 00 01 B2 43 43 01 F8 86"
                                        "FF C1 01 FE 61 01"
                                        "FF C1 02 FE 61 02"
                                        "FF C1 83 FE 61 83")));
    EXPECT_EQ(host.eia608_next_pts, 3u);
    EXPECT_EQ(inserted(4), hex(cc_user_data({{0x4104, 0x6104, {}}})));
    EXPECT_EQ(inserted(4), "") << "carried already";
    EXPECT_EQ(inserted(6), hex(cc_user_data({{0x4105, 0x6105, {}}, {0x4106, 0x6106, {}}})));
    EXPECT_EQ(host.eia608_next_pts, 6u);
    EXPECT_EQ(said, "");
}

TEST_F(Eia608Cc, SetsOddParityOnEveryByte) {
    const struct {
        uint16_t word;
        const char* bytes;
    } cases[] = {{0x0000, "80 80"}, {0x1420, "94 20"}, {0x9420, "94 20"}, {0x7F7F, "7F 7F"},
                 {0xFFFF, "7F 7F"}, {0x0301, "83 01"}, {0x8001, "80 01"}, {0x4142, "C1 C2"}};
    for (const auto& row : cases) {
        host.aux_data_map.clear();
        host.eia608_next_pts = 0;
        file(host, 0, {row.word, 0, {}});
        EXPECT_EQ(inserted(1).substr(9 * 3), std::string("FF ") + row.bytes + " FE 80 80");
        host.eia608_next_pts = 0;
        file(host, 0, {0, row.word, {}});
        EXPECT_EQ(inserted(1).substr(9 * 3), std::string("FF 80 80 FE ") + row.bytes);
    }
}

TEST_F(Eia608Cc, PadsForPicturesWithoutARecord) {
    file(host, 0, {0x1420, 0, {}});
    file(host, 2, {0x1421, 0, {}});
    EXPECT_EQ(inserted(4), hex(cc_user_data({{0x1420, 0, {}}, {}, {0x1421, 0, {}}, {}})));
}

TEST_F(Eia608Cc, IsNotWrittenAboveThirtyThreePicturesASecond) {
    const struct {
        Rate rate;
        bool written;
    } cases[] = {
        {{24000, 1001, 1}, true},  {{33, 1, 1}, true},       {{339, 10, 1}, true},
        {{34, 1, 1}, false},       {{50, 1, 1}, false},      {{50, 1, 2}, true},
        {{60000, 1001, 1}, false}, {{60000, 1001, 2}, true}, {{60, 1, 1}, false},
    };
    for (const auto& row : cases) {
        host.aux_data_map.clear();
        host.eia608_next_pts = 0;
        file(host, 10, {0x1420, 0, {}});
        set_rate(host, row.rate);
        EXPECT_EQ(inserted(11) != "", row.written) << row.rate.real();
        EXPECT_EQ(host.eia608_next_pts, row.written ? 11u : 0u) << row.rate.real();
    }
}

TEST_F(Eia608Cc, StartsNoEarlierThanTwoPicturesBeforeTheOldestRecord) {
    const struct {
        uint64_t next, oldest;
        int64_t dts;
        uint64_t pictures, next_after;
    } cases[] = {
        {0, 100, 101, 3, 101},  // from 98
        {97, 100, 101, 3, 101},  {98, 100, 101, 3, 101}, {99, 100, 101, 2, 101},
        {100, 100, 101, 1, 101}, {0, 100, 98, 0, 98},  // caught up, and nothing to carry
        {0, 100, 99, 1, 99},     {0, 100, 50, 0, 98},    {0, 100, -5, 0, 98},
        {0, 2, 1, 1, 1},         {0, 3, 1, 0, 1},
    };
    for (const auto& row : cases) {
        host.aux_data_map.clear();
        file(host, row.oldest, {0x1420, 0, {}});
        host.eia608_next_pts = row.next;
        const std::string user_data = inserted(row.dts);
        const size_t size = user_data.empty() ? 0 : (user_data.size() + 1) / 3;
        EXPECT_EQ(size, row.pictures ? 9 + 6 * row.pictures : 0) << row.next << " dts " << row.dts;
        EXPECT_EQ(host.eia608_next_pts, row.next_after) << row.next << " dts " << row.dts;
    }
}

TEST_F(Eia608Cc, WaitsForADtsBeyondTheWordsThatAreDue) {
    file(host, 0, {0x1420, 0, {}});
    for (const int64_t dts : {INT64_MIN, INT64_C(-2), INT64_C(-1), INT64_C(0)})
        EXPECT_EQ(inserted(dts), "") << dts;
    EXPECT_EQ(host.eia608_next_pts, 0u);
    host.eia608_next_pts = 7;
    EXPECT_EQ(inserted(7), "");
    EXPECT_EQ(inserted(6), "");
    EXPECT_NE(inserted(8), "");
}

TEST_F(Eia608Cc, CarriesSixtyThreePicturesAtMost) {
    std::vector<Captions> pictures;
    for (uint64_t pts = 0; pts < 63; pts++) {
        pictures.push_back({static_cast<uint16_t>(0x2020 + pts), 0, {}});
        file(host, pts, pictures.back());
    }
    const std::string user_data = inserted(63);
    EXPECT_EQ(user_data, hex(cc_user_data(pictures)));
    EXPECT_EQ((user_data.size() + 1) / 3, 387u);
    EXPECT_EQ(user_data.substr(8 * 3, 2), "FE");
}

TEST_F(Eia608CcDeath, AbortsBeyondSixtyThreePictures) {
    file(host, 0, {0x1420, 0, {}});
    host.make_packet(64);
    EXPECT_EXIT(host.mpeg_insert_eia608_cc(), testing::KilledBySignal(SIGABRT),
                "^\\[gsve\\] EIA-608 insertion: too many words \\(64\\)!\n");
    host.make_packet(1000000);
    EXPECT_EXIT(host.mpeg_insert_eia608_cc(), testing::KilledBySignal(SIGABRT),
                "^\\[gsve\\] EIA-608 insertion: too many words \\(1000000\\)!\n");
}

TEST_F(Eia608Cc, LooksForAPlaceBeforeItCountsThePictures) {
    file(host, 0, {0x1420, 0, {}});
    host.place(kBeforeSlice);
    host.make_packet(64);
    host.mpeg_insert_eia608_cc();
    EXPECT_EQ(hex(host.unit()), hex(kBeforeSlice));
}

TEST_F(Eia608CcDeath, AbortsWhenTheWindowIsBroken) {
    file(host, 0, {0x1420, 0, {}});
    host.make_packet(1);
    surroundings().window_insane = true;
    EXPECT_DEATH(host.mpeg_insert_eia608_cc(),
                 "lib/gsve:[0-9]+: .*Assertion `sliding_window_v4_is_sane\\(output\\)' failed");
}

// GA94 user data

class Cea708Cc : public testing::Test {
protected:
    Cea708Cc() : host(kUnit) {}
    ~Cea708Cc() override { surroundings() = Surroundings{}; }

    std::string inserted(uint64_t pts) {
        host.place(kUnit);
        said = stderr_of([&] { host.mpeg_insert_cea708_cc(pts); });
        const Bytes unit = host.unit();
        const size_t grown = unit.size() - kUnit.size();
        return hex(unit.data() + kBeforeSlice.size(), grown);
    }
    static std::vector<zeph_cea708_word> words(unsigned count) {
        std::vector<zeph_cea708_word> made;
        for (unsigned i = 0; i < count; i++)
            made.push_back({static_cast<uint8_t>(i % 2 ? 0xFF : 0xFE), static_cast<uint16_t>(0xA100 + i)});
        return made;
    }
    UnitInWindow host;
    std::string said;
};
using Cea708CcDeath = Cea708Cc;

const char kBothWords[] =
    "[gsve] BUG: EIA-608 at 60fps (even/odd mode) and both CC words contain data. The main de-queueing code "
    "made "
    "a boo-boo.\n";
const char kOddFrame[] = "[gsve] BUG: EIA-608 at 60fps (even/odd mode), odd frame and even CC word\n";
const char kEvenFrame[] = "[gsve] BUG: EIA-608 at 60fps (even/odd mode), even frame and odd CC word\n";

TEST_F(Cea708Cc, Holds72BytesAt2997PicturesASecondWithoutCaptionsToo) {
    set_rate(host, {30000, 1001, 1});
    file(host, 0, {});
    std::string padding;
    for (int i = 0; i < 18; i++) padding += "FA 00 00 ";
    const std::string expected = "00 00 01 B2 47 41 39 34 03 54 00 FC 80 80 FD 80 80 " + padding + "FF";
    EXPECT_EQ(inserted(0), expected);
    EXPECT_EQ((expected.size() + 1) / 3, 72u);
    EXPECT_EQ(inserted(99), expected) << "a picture without a record";
    EXPECT_EQ(said, "");
}

TEST_F(Cea708Cc, SizesTheBlockByTheEncodedRate) {
    const struct {
        Rate rate;
        size_t size;
        const char* count_byte;
    } cases[] = {
        {{60, 1, 1}, 42, "4A"},       {{60000, 1001, 1}, 42, "4A"}, {{59, 1, 1}, 42, "4A"},
        {{5899, 100, 1}, 48, "4C"},   {{50, 1, 1}, 48, "4C"},       {{49, 1, 1}, 48, "4C"},
        {{4899, 100, 1}, 72, "54"},   {{30, 1, 1}, 72, "54"},       {{60000, 1001, 2}, 72, "54"},
        {{29, 1, 1}, 72, "54"},       {{2899, 100, 1}, 84, "58"},   {{25, 1, 1}, 84, "58"},
        {{249, 10, 1}, 84, "58"},     {{2489, 100, 1}, 87, "59"},   {{24, 1, 1}, 87, "59"},
        {{24000, 1001, 1}, 87, "59"}, {{50, 1, 4}, 87, "59"},
    };
    for (const auto& row : cases) {
        set_rate(host, row.rate);
        const std::string user_data = inserted(0);
        EXPECT_EQ((user_data.size() + 1) / 3, row.size) << row.rate.real();
        EXPECT_EQ(user_data.substr(9 * 3, 2), row.count_byte) << row.rate.real();
        EXPECT_EQ(user_data, hex(ga94_user_data(row.rate, 0, {}))) << row.rate.real();
    }
}

TEST_F(Cea708Cc, CarriesBothFieldsUpToFortyPicturesASecond) {
    for (const Rate& rate : {Rate{30000, 1001, 1}, Rate{25, 1, 1}, Rate{24000, 1001, 1}, Rate{40, 1, 1},
                             Rate{409, 10, 1}, Rate{60000, 1001, 2}}) {
        set_rate(host, rate);
        for (const uint64_t pts : {4, 5}) {
            file(host, pts, {0x1420, 0x1C21, words(3)});
            EXPECT_EQ(inserted(pts).substr(11 * 3, 26), "FC 94 20 FD 1C A1 FE A1 00")
                << rate.real() << " " << pts;
            EXPECT_EQ(said, "");
            file(host, pts, {0x1420, 0, {}});
            EXPECT_EQ(inserted(pts).substr(11 * 3, 26), "FC 94 20 FD 80 80 FA 00 00")
                << rate.real() << " " << pts;
        }
    }
}

TEST_F(Cea708Cc, CarriesTheFieldsInTurnAboveFortyPicturesASecond) {
    const struct {
        uint16_t field1, field2;
        uint64_t pts;
        const char* constructs;
        const char* message;
    } cases[] = {
        {0x1420, 0, 4, "FC 94 20 FA 00 00", ""},
        {0, 0x1C21, 5, "FD 1C A1 FA 00 00", ""},
        {0, 0, 4, "FC 80 80 FA 00 00", ""},
        {0, 0, 5, "FD 80 80 FA 00 00", ""},
        {0x8080, 0x0080, 4, "FC 80 80 FA 00 00", ""},  // no data but for parity bits
        {0x1420, 0x8000, 4, "FC 94 20 FA 00 00", ""},
        {0x1420, 0x1C21, 4, "FC 94 20 FD 1C A1", kBothWords},
        {0x1420, 0x1C21, 5, "FC 94 20 FD 1C A1", kBothWords},
        {0x1420, 0, 5, "FC 94 20 FD 80 80", kOddFrame},
        {0, 0x1C21, 4, "FC 80 80 FD 1C A1", kEvenFrame},
    };
    for (const Rate& rate : {Rate{60, 1, 1}, Rate{60000, 1001, 1}, Rate{50, 1, 1}, Rate{41, 1, 1}}) {
        set_rate(host, rate);
        for (const auto& row : cases) {
            file(host, row.pts, {row.field1, row.field2, {}});
            const std::string user_data = inserted(row.pts);
            EXPECT_EQ(user_data.substr(11 * 3, 17), row.constructs)
                << row.field1 << "/" << row.field2 << " at " << row.pts;
            EXPECT_EQ(said, row.message);
            EXPECT_EQ(user_data, hex(ga94_user_data(rate, row.pts, {row.field1, row.field2, {}})));
        }
    }
}

TEST_F(Cea708Cc, FillsTheBlockOfASixtyHertzPictureWithNineConstructs) {
    set_rate(host, {60, 1, 1});
    const Captions captions = {0x1420, 0, words(9)};
    file(host, 8, captions);
    EXPECT_EQ(inserted(8),
              "00 00 01 B2 47 41 39 34 03 4A 00 FC 94 20 "
              "FE A1 00 FF A1 01 FE A1 02 FF A1 03 FE A1 04 FF A1 05 FE A1 06 FF A1 07 FE A1 08 FF");
    EXPECT_EQ(said, "");
}

TEST_F(Cea708Cc, DropsWordsThatHaveNoRoomWithAWarning) {
    const auto with_skipped_first = [](unsigned count) {
        auto made = words(count);
        made[0].header = 0xFA;
        return made;
    };
    const struct {
        Rate rate;
        Captions captions;
        const char* message;
    } cases[] = {
        {{30000, 1001, 1}, {0, 0, words(18)}, ""},
        {{30000, 1001, 1}, {0, 0, words(19)}, "[gsve] WARNING: Some CEA-708 was dropped (18/19 written)\n"},
        {{30000, 1001, 1}, {0, 0, words(20)}, "[gsve] WARNING: Some CEA-708 was dropped (18/20 written)\n"},
        {{30000, 1001, 1}, {0, 0, words(32)}, "[gsve] WARNING: Some CEA-708 was dropped (18/32 written)\n"},
        // Words that are no CEA-708 are passed over, and count as examined.
        {{30000, 1001, 1}, {0, 0, with_skipped_first(19)}, ""},
        {{30000, 1001, 1},
         {0, 0, with_skipped_first(20)},
         "[gsve] WARNING: Some CEA-708 was dropped (19/20 written)\n"},
        {{60, 1, 1}, {0, 0, words(9)}, ""},
        {{60, 1, 1}, {0, 0, words(10)}, "[gsve] WARNING: Some CEA-708 was dropped (9/10 written)\n"},
        {{50, 1, 1}, {0, 0, words(12)}, "[gsve] WARNING: Some CEA-708 was dropped (11/12 written)\n"},
        {{25, 1, 1}, {0, 0, words(23)}, "[gsve] WARNING: Some CEA-708 was dropped (22/23 written)\n"},
        {{24, 1, 1}, {0, 0, words(23)}, ""},
    };
    for (const auto& row : cases) {
        set_rate(host, row.rate);
        file(host, 0, row.captions);
        EXPECT_EQ(inserted(0), hex(ga94_user_data(row.rate, 0, row.captions)));
        EXPECT_EQ(said, row.message) << row.rate.real() << " " << row.captions.words.size();
    }
}

TEST_F(Cea708Cc, PassesOverWordsThatAreNoCea708) {
    set_rate(host, {30000, 1001, 1});
    file(host, 0,
         {0, 0, {{0xFC, 0x1420}, {0xFE, 0x0102}, {0xFA, 0}, {0xFD, 0x1C21}, {0xFF, 0xA0B0}, {0x00, 1}}});
    EXPECT_EQ(inserted(0).substr(17 * 3, 26), "FE 01 02 FF A0 B0 FA 00 00");
    EXPECT_EQ(said, "");
}

TEST_F(Cea708Cc, LooksAtTheCountOfTheRecordOnly) {
    set_rate(host, {30000, 1001, 1});
    file(host, 0, {0, 0, words(5)});
    host.aux_data_map.at(0).cea708_count = 2;
    EXPECT_EQ(inserted(0).substr(17 * 3, 26), "FE A1 00 FF A1 01 FA 00 00");
}

TEST_F(Cea708CcDeath, AbortsWhenTheWindowIsBroken) {
    set_rate(host, {30000, 1001, 1});
    file(host, 0, {});
    surroundings().window_insane = true;
    EXPECT_DEATH(host.mpeg_insert_cea708_cc(0),
                 "lib/gsve:[0-9]+: .*Assertion `sliding_window_v4_is_sane\\(output\\)' failed");
}

// SCTE 20 user data

TEST(Scte20, FramesTheHostsBytesUnchanged) {
    Bytes body;
    for (int i = 0; i < 1024; i++) body.push_back(static_cast<uint8_t>(i * 37));
    for (const size_t size : {1, 2, 100, 1024}) {
        UnitInWindow host(kUnit);
        auto& record = host.aux_data_map[7];
        std::copy_n(body.begin(), size, record.scte20_data);
        record.scte20_data_length = size;
        host.mpeg_insert_scte20(7);
        const Bytes expected(body.begin(), body.begin() + static_cast<ptrdiff_t>(size));
        EXPECT_EQ(hex(host.unit()), hex(kBeforeSlice + from_hex("00 00 01 B2 03") + expected + kFirstSlice));
        EXPECT_EQ(host.unit().size(), kUnit.size() + size + 5);
    }
}

TEST(Scte20, IsLeftOutWithoutARecordOrABody) {
    UnitInWindow host(kUnit);
    host.aux_data_map[7] = {};
    host.mpeg_insert_scte20(7);
    host.mpeg_insert_scte20(8);
    EXPECT_EQ(hex(host.unit()), hex(kUnit));
    EXPECT_EQ(std::count_if(host.calls.begin(), host.calls.end(),
                            [](const std::string& call) { return call.rfind("mpeg_insert_output", 0) == 0; }),
              0);
}

TEST(Scte20, FitsBesideTheLargestCaptionsOfTheSamePicture) {
    UnitInWindow host(kUnit);
    set_rate(host, {24, 1, 1});
    for (uint64_t pts = 0; pts < 63; pts++) file(host, pts, {0x1420, 0x1C21, {}});
    host.aux_data_map.at(0).scte20_data_length = 1024;
    std::fill_n(host.aux_data_map.at(0).scte20_data, 1024, 0x5A);
    host.make_packet(63);
    host.mpeg_insert_eia608_cc();
    host.mpeg_insert_scte20(0);
    host.mpeg_insert_cea708_cc(0);
    EXPECT_EQ(host.unit().size(), kUnit.size() + 387 + 1029 + 87);
    EXPECT_EQ(host.head_room(), 8192u - 387 - 1029 - 87);
}

}  // namespace
}  // namespace gsve::test
