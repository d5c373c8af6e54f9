// The caption SEI of H.264 access units: its payload, its place, and what happens when it cannot be written.

#include <dlfcn.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <orb_utils_v4/h264.h>

#include "support/caption_blocks.h"
#include "support/scripted_exchange.h"
#include "support/stderr_capture.h"
#include "support/unit_in_window.h"

namespace {

using gsve::test::Bytes;

/// What the NAL unit writer was asked, and what it answers instead of writing, when that is set.
struct NalWriter {
    int calls = 0;
    unsigned long capacity = 0;
    Bytes rbsp;
    unsigned ref_idc = 99;
    int type = 99;
    std::function<int(uint8_t*)> answer;
};
NalWriter nal_writer;

}  // namespace

extern "C" int h264_nal_write(uint8_t* out, unsigned long out_capacity, uint8_t* rbsp,
                              unsigned long rbsp_length, unsigned int nal_ref_idc, uint8_t nal_unit_type) {
    nal_writer.calls++;
    nal_writer.capacity = out_capacity;
    nal_writer.rbsp.assign(rbsp, rbsp + rbsp_length);
    nal_writer.ref_idc = nal_ref_idc;
    nal_writer.type = nal_unit_type;
    if (nal_writer.answer) return nal_writer.answer(out);
    // The linker leaves the host's library out, now that nothing in it is missing here.
    static void* const library = dlopen("liborb_utils_v4_h264.so", RTLD_NOW);
    static const auto real = reinterpret_cast<decltype(h264_nal_write)*>(dlsym(library, "h264_nal_write"));
    return real(out, out_capacity, rbsp, rbsp_length, nal_ref_idc, nal_unit_type);
}

namespace gsve::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const Bytes kDelimiter = from_hex("00 00 00 01 09 F0");
const Bytes kSps = from_hex("00 00 00 01 67 42 C0 1E 11 22 33");
const Bytes kPps = from_hex("00 00 00 01 68 CE 3C 80");
const Bytes kOwnSei = from_hex("00 00 01 06 05 04 AA BB CC DD 80");
const Bytes kIdrSlice = from_hex("00 00 01 65 88 84 00 33 FF 91 12");
const Bytes kSlice = from_hex("00 00 01 41 9A 21 33 44 55");

/// A NAL unit that stands for the caption SEI where only its place matters.
const Bytes kMarker = from_hex("00 00 01 06 99 98 97");

class CaptionSei : public testing::Test {
protected:
    CaptionSei() {
        nal_writer = {};
        set_rate({30000, 1001, 1});
    }
    ~CaptionSei() override {
        nal_writer = {};
        surroundings() = Surroundings{};
    }
    void set_rate(const Rate& rate) {
        host.frame_rate_num = rate.num;
        host.frame_rate_den = rate.den;
        host.frame_rate_divider = rate.divider;
    }
    void file(uint64_t pts, const Captions& captions) {
        auto& record = host.aux_data_map[pts];
        record.eia608_word_field1 = captions.field1;
        record.eia608_word_field2 = captions.field2;
        record.cea708_count = static_cast<uint32_t>(captions.words.size());
        for (size_t i = 0; i < captions.words.size(); i++) record.cea708_words[i] = captions.words[i];
    }
    static std::vector<zeph_cea708_word> words(unsigned count) {
        return std::vector<zeph_cea708_word>(count, {0xFE, 0x4142});
    }
    /// The RBSP that is written for picture `pts`.
    std::string written(uint64_t pts) {
        host.place(kIdrSlice);
        said = stderr_of([&] { host.h264_insert_cea708_cc(pts); });
        return hex(nal_writer.rbsp);
    }
    void answer_with(const Bytes& nal) {
        nal_writer.answer = [nal](uint8_t* out) {
            std::copy(nal.begin(), nal.end(), out);
            return static_cast<int>(nal.size());
        };
    }
    UnitInWindow host;
    std::string said;
};
using CaptionSeiDeath = CaptionSei;

// Payload

TEST_F(CaptionSei, Holds74BytesAt2997PicturesASecondWithoutCaptionsToo) {
    std::string padding;
    for (int i = 0; i < 18; i++) padding += "FA 00 00 ";
    const std::string expected = "04 47 B5 00 31 47 41 39 34 03 54 00 FC 80 80 FD 80 80 " + padding + "FF 80";
    file(0, {});
    EXPECT_EQ(written(0), expected);
    EXPECT_EQ(nal_writer.rbsp.size(), 74u);
    EXPECT_EQ(written(12345), expected) << "a picture without a record";
    EXPECT_EQ(said, "");
}

TEST_F(CaptionSei, IsWrittenAsAnSeiNalUnitThatNothingRefersTo) {
    written(0);
    EXPECT_EQ(nal_writer.calls, 1);
    EXPECT_EQ(nal_writer.capacity, 4096u);
    EXPECT_EQ(nal_writer.ref_idc, 0u);
    EXPECT_EQ(nal_writer.type, 6);
}

TEST_F(CaptionSei, SizesTheBlockByTheEncodedRate) {
    const struct {
        Rate rate;
        unsigned count;
    } cases[] = {
        {{60, 1, 1}, 10},       {{60000, 1001, 1}, 10}, {{59, 1, 1}, 10},     {{5899, 100, 1}, 12},
        {{50, 1, 1}, 12},       {{49, 1, 1}, 12},       {{4899, 100, 1}, 20}, {{30, 1, 1}, 20},
        {{60000, 1001, 2}, 20}, {{29, 1, 1}, 20},       {{2899, 100, 1}, 24}, {{25, 1, 1}, 24},
        {{249, 10, 1}, 24},     {{2489, 100, 1}, 25},   {{24, 1, 1}, 25},     {{24000, 1001, 1}, 25},
    };
    for (const auto& row : cases) {
        set_rate(row.rate);
        EXPECT_EQ(written(0), hex(cc_sei(row.rate, 0, {}))) << row.rate.real();
        EXPECT_EQ(nal_writer.rbsp.size(), 14 + 3 * row.count) << row.rate.real();
        EXPECT_EQ(nal_writer.rbsp[1], 11 + 3 * row.count) << row.rate.real();
        EXPECT_EQ(nal_writer.rbsp[10], 0x40 | row.count) << row.rate.real();
    }
}

TEST_F(CaptionSei, CarriesTheSameConstructsAndMessagesAsPictureUserData) {
    const char both[] =
        "[gsve] BUG: EIA-608 at 60fps (even/odd mode) and both CC words contain data. The main de-queueing "
        "code "
        "made a boo-boo.\n";
    const char odd_frame[] = "[gsve] BUG: EIA-608 at 60fps (even/odd mode), odd frame and even CC word\n";
    const char even_frame[] = "[gsve] BUG: EIA-608 at 60fps (even/odd mode), even frame and odd CC word\n";
    auto with_padding_first = words(20);
    with_padding_first[0].header = 0xFA;
    const struct {
        Rate rate;
        uint64_t pts;
        Captions captions;
        const char* message;
    } cases[] = {
        {{30000, 1001, 1}, 3, {0x1420, 0x1C21, words(4)}, ""},
        {{30000, 1001, 1}, 3, {0x1420, 0, words(18)}, ""},
        {{30000, 1001, 1},
         3,
         {0, 0, words(20)},
         "[gsve] WARNING: Some CEA-708 was dropped (18/20 written)\n"},
        {{30000, 1001, 1},
         3,
         {0, 0, with_padding_first},
         "[gsve] WARNING: Some CEA-708 was dropped (19/20 written)\n"},
        {{40, 1, 1}, 3, {0x1420, 0, {}}, ""},
        {{24, 1, 1}, 2, {0x7F7F, 0x0303, words(23)}, ""},
        {{60, 1, 1}, 2, {0x1420, 0, words(9)}, ""},
        {{60, 1, 1}, 3, {0, 0x1C21, words(9)}, ""},
        {{60, 1, 1}, 3, {0, 0, words(10)}, "[gsve] WARNING: Some CEA-708 was dropped (9/10 written)\n"},
        {{60000, 1001, 1}, 2, {0x1420, 0x1C21, {}}, both},
        {{60000, 1001, 1}, 3, {0x1420, 0x1C21, {}}, both},
        {{50, 1, 1}, 3, {0x1420, 0, {}}, odd_frame},
        {{50, 1, 1}, 2, {0, 0x1C21, {}}, even_frame},
        {{50, 1, 1}, 2, {0x8080, 0x8000, {}}, ""},
    };
    for (const auto& row : cases) {
        set_rate(row.rate);
        host.aux_data_map.clear();
        file(row.pts, row.captions);
        EXPECT_EQ(written(row.pts), hex(cc_sei(row.rate, row.pts, row.captions)))
            << row.rate.real() << " picture " << row.pts;
        EXPECT_EQ(said, row.message) << row.rate.real() << " picture " << row.pts;
    }
}

// Place

TEST_F(CaptionSei, StandsInFrontOfTheFirstSlice) {
    const struct {
        const char* what;
        Bytes before, after;
    } cases[] = {
        {"IDR slice alone", {}, kIdrSlice},
        {"slice alone", {}, kSlice},
        {"delimiter, parameter sets and SEI", kDelimiter + kSps + kPps + kOwnSei, kIdrSlice},
        {"several slices", kDelimiter, kSlice + kSlice},
        {"two SEI", kOwnSei + kOwnSei, kSlice},
        {"four-byte start code of the slice", kDelimiter + from_hex("00"), kIdrSlice},
        {"SEI behind the slice", kDelimiter, kSlice + kOwnSei},
        {"unspecified NAL unit type 0", from_hex("00 00 01 00 55"), kSlice},
        {"slice of five bytes at the end", kDelimiter, from_hex("00 00 01 41 9A")},
    };
    answer_with(kMarker);
    for (const auto& row : cases) {
        host.place(row.before + row.after);
        host.calls.clear();
        host.h264_insert_cea708_cc(0);
        EXPECT_EQ(hex(host.unit()), hex(row.before + kMarker + row.after)) << row.what;
        EXPECT_THAT(host.calls, testing::Contains("mpeg_insert_output(7)"))
            << "the gap comes through the virtual table";
    }
}

TEST_F(CaptionSei, StepsOverParameterSetsDelimitersAndSeiOnly) {
    answer_with(kMarker);
    for (int type = 0; type < 32; type++) {
        for (const int ref_idc : {0, 3}) {
            const bool stepped_over = type == 0 || (type >= 6 && type <= 9);
            const Bytes nal =
                from_hex("00 00 01") + Bytes{static_cast<uint8_t>(ref_idc << 5 | type), 0x55, 0x66};
            host.place(kDelimiter + nal + kSlice);
            host.h264_insert_cea708_cc(0);
            const Bytes expected =
                stepped_over ? kDelimiter + nal + kMarker + kSlice : kDelimiter + kMarker + nal + kSlice;
            EXPECT_EQ(hex(host.unit()), hex(expected)) << "type " << type << " ref_idc " << ref_idc;
        }
    }
}

TEST_F(CaptionSei, IsLeftOutWithoutASlice) {
    const Bytes units[] = {
        {},
        from_hex("00"),
        from_hex("00 00 01"),
        from_hex("00 00 00 01"),
        kDelimiter + kSps + kPps + kOwnSei,
        kDelimiter + from_hex("00 00 01"),
        kOwnSei + from_hex("00 00"),
        filler(300),
        Bytes(300, 0),
    };
    for (const Bytes& unit : units) {
        host.place(unit);
        EXPECT_EQ(stderr_of([&] { host.h264_insert_cea708_cc(0); }), "");
        EXPECT_EQ(hex(host.unit()), hex(unit));
        EXPECT_EQ(host.head_room(), 8192u);
    }
    EXPECT_THAT(host.calls, testing::Each("h264_insert_cea708_cc(0)")) << "no gap is asked for";
}

TEST_F(CaptionSei, IsLeftOutWhenTheSearchComesWithinFourBytesOfTheEnd) {
    answer_with(kMarker);
    for (const size_t left : {3, 4, 5, 6}) {
        Bytes slice = from_hex("00 00 01 65 88 84");
        slice.resize(left);
        host.place(kDelimiter + slice);
        host.h264_insert_cea708_cc(0);
        EXPECT_EQ(host.unit().size() > kDelimiter.size() + left, left > 4) << left << " bytes";
    }
}

TEST_F(CaptionSei, IsSearchedWithinTheUnitOnHostileBytes) {
    std::mt19937 random(11);
    const uint8_t alphabet[] = {0x00, 0x00, 0x00, 0x01, 0x01, 0x65, 0x06, 0x09};
    answer_with(kMarker);
    for (int round = 0; round < 5000; round++) {
        Bytes unit(random() % 20);
        for (uint8_t& byte : unit) byte = alphabet[random() % sizeof alphabet];
        host.place(unit, 64);
        host.h264_insert_cea708_cc(0);
        const size_t grown = host.unit().size() - unit.size();
        EXPECT_TRUE(grown == 0 || grown == kMarker.size()) << hex(unit);
    }
}

// The NAL unit

TEST_F(CaptionSei, IsAReadableNalUnitOfTheStream) {
    const Captions captions = {0x1420, 0, {{0xFE, 0x0000}, {0xFE, 0x0001}, {0xFF, 0x0002}, {0xFE, 0x0003}}};
    file(4, captions);
    host.place(kDelimiter + kSps + kPps + kIdrSlice);
    host.h264_insert_cea708_cc(4);
    const Bytes unit = host.unit();
    const size_t front = (kDelimiter + kSps + kPps).size();
    const Bytes nal(unit.begin() + static_cast<ptrdiff_t>(front),
                    unit.end() - static_cast<ptrdiff_t>(kIdrSlice.size()));
    EXPECT_EQ(hex(unit), hex(kDelimiter + kSps + kPps + nal + kIdrSlice));
    const size_t header = nal.at(2) == 1 ? 3 : 4;
    EXPECT_EQ(hex(nal.data() + header - 3, 4), "00 00 01 06");
    const Bytes payload(nal.begin() + static_cast<ptrdiff_t>(header) + 1, nal.end());
    EXPECT_EQ(hex(rbsp(payload)), hex(cc_sei({}, 4, captions)));
    for (size_t i = 0; i + 2 < payload.size(); i++)
        EXPECT_FALSE(payload[i] == 0 && payload[i + 1] == 0 && payload[i + 2] < 3)
            << "start code inside, at " << i;
}

TEST_F(CaptionSei, IsLeftOutWhenTheNalUnitCannotBeWritten) {
    for (const int result : {0, -1, INT32_MIN}) {
        nal_writer.answer = [result](uint8_t*) { return result; };
        host.place(kDelimiter + kIdrSlice);
        host.calls.clear();
        EXPECT_EQ(stderr_of([&] { host.h264_insert_cea708_cc(0); }), "");
        EXPECT_EQ(hex(host.unit()), hex(kDelimiter + kIdrSlice)) << result;
        EXPECT_THAT(host.calls, ElementsAre("h264_insert_cea708_cc(0)")) << result;
    }
}

TEST_F(CaptionSei, NeedsHeadRoom) {
    answer_with(kMarker);
    for (const size_t head_room : {6, 7}) {
        host.place(kDelimiter + kIdrSlice, head_room);
        host.h264_insert_cea708_cc(0);
        EXPECT_EQ(hex(host.unit()),
                  hex(head_room == 7 ? kDelimiter + kMarker + kIdrSlice : kDelimiter + kIdrSlice));
    }
}

TEST_F(CaptionSeiDeath, AbortsWhenAnOverriddenGapIsInTheWrongPlace) {
    host.place(kDelimiter + kIdrSlice);
    host.insert_output = [&](uint8_t*& out, size_t n) {
        const bool opened = host.GeneralStreamingVideoEncoder::mpeg_insert_output(out, n);
        out -= 1;
        return opened;
    };
    EXPECT_DEATH(host.h264_insert_cea708_cc(0),
                 "lib/gsve:[0-9]+: .*h264_insert_cea708_cc.*Assertion `\\(p\\+fsz\\) == pf' failed");
}

TEST_F(CaptionSeiDeath, AbortsWhenTheWindowIsBroken) {
    file(0, {});
    host.place(kIdrSlice);
    surroundings().window_insane = true;
    EXPECT_DEATH(host.h264_insert_cea708_cc(0),
                 "lib/gsve:[0-9]+: .*Assertion `sliding_window_v4_is_sane\\(output\\)' failed");
}

}  // namespace
}  // namespace gsve::test
