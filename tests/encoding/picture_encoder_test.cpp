// The picture encoder as a channel or an element uses it: pictures with their ancillary data in, finished
// units out, at once and from draining alike.

#include <algorithm>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
}

#include "captions/cc_data.h"
#include "captions/line21.h"
#include "captions/scte20.h"
#include "encoding/coded_unit.h"
#include "encoding/error.h"
#include "encoding/picture_encoder.h"
#include "encoding/unit_messages.h"
#include "support/av_decoder.h"
#include "support/mpeg2_units.h"
#include "support/stderr_capture.h"
#include "support/test_picture.h"

namespace {

using namespace gsve::encoding;
using gsve::Failure;
using gsve::captions::Cea708Construct;
using gsve::captions::GopTimecode;
using gsve::captions::Timecode;
using gsve::captions::Word;
using gsve::test::Bytes;
using gsve::test::decode;
using gsve::test::DecodedPicture;
using gsve::test::stderr_of;
using gsve::test::TestPicture;
using testing::ElementsAre;
using testing::HasSubstr;

using Settings = std::vector<std::pair<std::string, std::string>>;

struct KeptUnit {
    Bytes bytes;
    int64_t pts = 0, dts = 0;
    bool key = false, ancillary = false, drained = false;
    char type = '?';
};

Word pair_of(uint64_t n, int field) {
    return gsve::captions::with_parity(gsve::captions::make_word(
        0x20 + static_cast<unsigned>(n % 90), 0x30 + static_cast<unsigned>(n / 90 % 70 + field)));
}

std::vector<Cea708Construct> constructs_of(uint64_t n) {
    return {{0xFF, static_cast<uint8_t>(n), static_cast<uint8_t>(n >> 8)},
            {0xFE, 0x12, static_cast<uint8_t>(n)}};
}

GopTimecode timecode_of(uint64_t n) {
    return {0, 10, static_cast<uint8_t>(n / 1500), static_cast<uint8_t>(n / 25 % 60),
            static_cast<uint8_t>(n % 25)};
}

/// An encoder of small pictures, and what it gave.
class Session {
public:
    explicit Session(const Settings& settings, AVRational rate = {30, 1}, bool interlaced = false) {
        av_log_set_level(AV_LOG_QUIET);
        encoder.describe_source({.width = 64, .height = 48, .frame_rate = rate, .interlaced = interlaced});
        for (const auto& [key, value] : Settings{{"bitrate", "1000000"},
                                                 {"maximum threads", "1"},
                                                 {"enable", "1"},
                                                 {"h.264 preset", "ultrafast"}})
            encoder.apply(key, value);
        for (const auto& [key, value] : settings) encoder.apply(key, value);
        encoder.send_units_to([this](const EncodedUnit& unit) {
            units.push_back({Bytes(unit.bytes.begin(), unit.bytes.end()), unit.pts, unit.dts, unit.key,
                             unit.ancillary, draining, unit.type});
        });
    }

    bool open(const Ancillary& first = {}) {
        bool opened = false;
        said = stderr_of([&] { opened = encoder.open(first); });
        return opened;
    }

    PictureFate push(uint64_t number, const Ancillary& ancillary, unsigned look = 0) {
        const TestPicture picture(64, 48, 1, 1, look ? look : static_cast<unsigned>(number));
        return push(picture, number, ancillary);
    }
    PictureFate push(const TestPicture& picture, uint64_t number, const Ancillary& ancillary) {
        PictureView view;
        view.planes[0] = picture.y.data(), view.planes[1] = picture.u.data(),
        view.planes[2] = picture.v.data();
        view.strides[0] = 64, view.strides[1] = view.strides[2] = 32;
        view.number = number;
        return encoder.push(view, ancillary);
    }

    uint64_t drain() {
        draining = true;
        uint64_t drained = 0;
        stderr_of([&] { drained = encoder.drain(); });
        return drained;
    }

    std::vector<DecodedPicture> decoded() const {
        std::vector<gsve::test::Unit> copied;
        for (const KeptUnit& unit : units) copied.push_back({unit.bytes, unit.pts, unit.dts, unit.key, 0});
        return decode(encoder.mpeg_context->codec_id, copied);
    }

    PictureEncoder encoder{"session"};
    std::vector<KeptUnit> units;
    std::string said;
    bool draining = false;
};

struct Way {
    const char* codec;
    Settings settings;
    AVRational rate = {30, 1};
    uint64_t divider = 1;
};

Settings with_codec(const Way& way) {
    Settings settings = {{"encoder", way.codec}, {"enable cea-708", "1"}, {"enable eia-608", "0"}};
    settings.insert(settings.end(), way.settings.begin(), way.settings.end());
    return settings;
}

const std::vector<Way> kWays = {
    {"mpeg-2", {}},
    {"mpeg-2", {{"constant bitrate per frame", "0"}}},
    {"mpeg-2", {{"b frames", "0"}}},
    {"mpeg-2", {{"closed gop", "1"}, {"gop size", "9"}}},
    {"mpeg-2", {{"frame rate limit", "30"}}, {60, 1}, 2},
    {"mpeg-2", {{"frame rate limit", "30"}, {"constant bitrate per frame", "0"}}, {60, 1}, 2},
    {"h.264", {}},
    {"h.264", {{"constant bitrate per frame", "1"}}},
    {"h.264", {{"b frames", "0"}}},
    {"h.264", {{"h.264 preset", "medium"}, {"h.264 profile", "main"}}},
    {"h.264", {{"frame rate limit", "30"}}, {60, 1}, 2},
    {"h.264", {{"frame rate limit", "30"}, {"constant bitrate per frame", "1"}}, {60, 1}, 2},
    {"h.265", {}},
    {"h.265", {{"frame rate limit", "30"}}, {60, 1}, 2},
};

class PictureEncoderWays : public testing::TestWithParam<size_t> {
protected:
    const Way& way() const { return kWays[GetParam()]; }
    bool is(const char* codec) const { return std::string(way().codec) == codec; }
};

TEST_P(PictureEncoderWays, EveryUnitLeavesOnceWithItsTimesTypeAndAncillaryData) {
    Session session(with_codec(way()), way().rate);
    ASSERT_TRUE(session.open()) << session.encoder.last_error << session.said;
    EXPECT_EQ(av_cmp_q(session.encoder.encoded_rate(), {30, 1}), 0);

    constexpr uint64_t kPictures = 70;
    std::vector<int64_t> taken;
    std::map<int64_t, uint64_t> encoded_number;
    for (uint64_t number = 0; number < kPictures; number++) {
        const uint64_t n = taken.size();
        Ancillary ancillary;
        ancillary.captions.words[0] = pair_of(n, 0);
        ancillary.captions.words[1] = n % 3 == 0 ? 0 : pair_of(n, 1);
        ancillary.captions.cea708 = constructs_of(n);
        ancillary.scte20 =
            compose_scte20(gsve::captions::scte20_constructs(pair_of(n, 0), pair_of(n, 1), true));
        ancillary.timecode = timecode_of(n);
        const bool due = number % way().divider == 0;
        EXPECT_EQ(session.encoder.takes(number), due) << number;
        EXPECT_EQ(session.push(number, ancillary), due ? PictureFate::kEncoded : PictureFate::kSkipped)
            << number;
        if (due) {
            encoded_number[static_cast<int64_t>(number)] = n;
            taken.push_back(static_cast<int64_t>(number));
        }
    }
    const size_t at_once = session.units.size();
    const uint64_t drained = session.drain();
    EXPECT_EQ(session.units.size(), at_once + drained);
    ASSERT_EQ(session.units.size(), taken.size());

    // Times: each picture once; decoding times rise and are none later than the unit's own picture.
    std::vector<int64_t> shown;
    const auto step = static_cast<int64_t>(way().divider);
    for (size_t k = 0; k < session.units.size(); k++) {
        const KeptUnit& unit = session.units[k];
        shown.push_back(unit.pts);
        EXPECT_LE(unit.dts, unit.pts);
        EXPECT_EQ(unit.dts, session.units[0].dts + static_cast<int64_t>(k) * step);
        EXPECT_TRUE(unit.ancillary) << unit.pts;
    }
    std::sort(shown.begin(), shown.end());
    EXPECT_EQ(shown, taken);
    const bool reorders = std::any_of(session.units.begin(), session.units.end(),
                                      [](const KeptUnit& unit) { return unit.type == 'B'; });
    EXPECT_TRUE(session.units[0].dts < 0 || !reorders);
    EXPECT_TRUE(session.units[0].key);

    const std::vector<DecodedPicture> pictures = session.decoded();
    ASSERT_EQ(pictures.size(), taken.size());
    std::map<int64_t, char> types;
    for (const KeptUnit& unit : session.units) types[unit.pts] = unit.type;
    for (const DecodedPicture& picture : pictures) {
        EXPECT_EQ(types[picture.pts], av_get_picture_type_char(picture.type)) << picture.pts;
        const uint64_t n = encoded_number.at(picture.pts);
        Bytes triples = picture.a53;
        if (is("mpeg-2")) {  // where the decoder merges them with the SCTE 20 data
            const auto unit = std::find_if(session.units.begin(), session.units.end(),
                                           [&](const KeptUnit& u) { return u.pts == picture.pts; });
            triples =
                read_unit(AV_CODEC_ID_MPEG2VIDEO, unit->bytes, unit->key).captions.cc_data.value_or(Bytes{});
        }
        const auto captions = gsve::captions::parse_cc_data(triples).captions;
        const Word second = n % 3 == 0 ? gsve::captions::kNullPair : pair_of(n, 1);
        EXPECT_EQ(captions.fields[0], std::vector<Word>{pair_of(n, 0)}) << picture.pts;
        EXPECT_EQ(captions.fields[1], std::vector<Word>{second}) << picture.pts;
        EXPECT_EQ(captions.cea708, constructs_of(n)) << picture.pts;
    }
    for (const KeptUnit& unit : session.units) {
        EXPECT_EQ(unit.key, unit.type == 'I') << unit.pts;
        if (!is("mpeg-2")) continue;
        const UnitContents contents = read_unit(AV_CODEC_ID_MPEG2VIDEO, unit.bytes, unit.key);
        const uint64_t n = encoded_number.at(unit.pts);
        ASSERT_TRUE(contents.captions.scte20) << unit.pts;
        ASSERT_EQ(contents.captions.scte20->size(), 2u) << unit.pts;
        EXPECT_EQ(contents.captions.scte20->at(0).word, pair_of(n, 0)) << unit.pts;
        EXPECT_EQ(contents.captions.scte20->at(1).word, pair_of(n, 1)) << unit.pts;
        EXPECT_FALSE(contents.captions.cc) << unit.pts;
        EXPECT_EQ(contents.gop.has_value(), unit.key);
        if (!contents.gop) continue;
        // The code of the picture that is displayed first, which may be a B-picture in front of the
        // I-picture.
        const auto reference = static_cast<uint64_t>(mpeg2_picture_header(unit.bytes)->temporal_reference);
        ASSERT_TRUE(contents.gop->timecode);
        EXPECT_EQ(gop_timecode(*contents.gop->timecode), timecode_of(n - reference)) << unit.pts;
    }
}

INSTANTIATE_TEST_SUITE_P(All, PictureEncoderWays, testing::Range<size_t>(0, kWays.size()));

TEST(PictureEncoder, TellsTheShapeOfEachPictureInEveryCodec) {
    for (const char* codec : {"mpeg-2", "h.264", "h.265"}) {
        Session session({{"encoder", codec}, {"resize", "160x96"}});
        ASSERT_TRUE(session.open()) << codec;
        const int width = session.encoder.input_width, height = session.encoder.input_height;
        const auto shape_of = [&](uint64_t n) {
            PictureShape shape;
            if (n % 3 != 0) shape.afd = static_cast<int>(n % 16);
            if (n % 2 == 1) shape.bars = Bars{height / 8 - 1, height - height / 8, {}, {}};
            if (n % 2 == 0 && n % 5 == 0) shape.bars = Bars{{}, {}, width / 4 - 1, width - width / 4};
            return shape;
        };
        for (uint64_t n = 0; n < 40; n++) {
            Ancillary ancillary;
            ancillary.shape = shape_of(n);
            session.push(n, ancillary);
        }
        session.drain();
        ASSERT_EQ(session.units.size(), 40u) << codec;
        const AVCodecID id = codec == std::string("mpeg-2")  ? AV_CODEC_ID_MPEG2VIDEO
                             : codec == std::string("h.264") ? AV_CODEC_ID_H264
                                                             : AV_CODEC_ID_HEVC;
        for (const KeptUnit& unit : session.units) {
            PictureShape expected = shape_of(static_cast<uint64_t>(unit.pts));
            if (expected.bars)
                expected.bars = expected.bars->top_end ? Bars{11, 84, {}, {}} : Bars{{}, {}, 39, 120};
            EXPECT_EQ(read_shape(id, unit.bytes), expected) << codec << " " << unit.pts;
        }
    }
}

// A receiver forgets the shape at a sequence header.
TEST(PictureEncoder, SaysAgainWithKeyPicturesWhatStillHolds) {
    for (const char* codec : {"mpeg-2", "h.264"}) {
        Session session({{"encoder", codec}, {"gop size", "6"}});
        ASSERT_TRUE(session.open()) << codec;
        for (uint64_t n = 0; n < 40; n++) {
            Ancillary ancillary;
            if (n == 4) ancillary.shape.afd = 10;
            if (n >= 4 && n < 30) ancillary.held_shape.afd = 10;
            session.push(n, ancillary);
        }
        session.drain();
        const AVCodecID id = codec == std::string("mpeg-2") ? AV_CODEC_ID_MPEG2VIDEO : AV_CODEC_ID_H264;
        int keys = 0;
        for (const KeptUnit& unit : session.units) {
            const bool told = unit.pts == 4 || (unit.key && unit.pts > 4 && unit.pts < 30);
            keys += unit.key;
            EXPECT_EQ(read_shape(id, unit.bytes).afd.has_value(), told) << codec << " " << unit.pts;
        }
        EXPECT_GE(keys, 5);
    }
}

// What is added says something of the pictures, and changes none.
TEST(PictureEncoder, DecodesToTheSamePicturesWithAndWithoutAdditions) {
    for (const char* codec : {"mpeg-2", "h.264", "h.265"})
        for (const char* constant : {"0", "1"}) {
            const auto decoded = [&](bool with) {
                Session session(
                    {{"encoder", codec}, {"enable cea-708", "1"}, {"enable h.264 nal hrd", constant}});
                SourceDescription source = {.width = 64, .height = 48, .frame_rate = {30, 1}};
                if (with)
                    source.colour = {AVCOL_PRI_BT709, AVCOL_TRC_BT709, AVCOL_SPC_SMPTE170M, AVCOL_RANGE_MPEG,
                                     AVCHROMA_LOC_LEFT};
                session.encoder.describe_source(source);
                EXPECT_TRUE(session.open());
                session.encoder.adapt_to_load(false);
                for (uint64_t n = 0; n < 40; n++) {
                    Ancillary ancillary;
                    if (with) {
                        ancillary.captions.words[0] = pair_of(n, 0);
                        ancillary.timecode = timecode_of(n);
                        ancillary.shape = {.afd = 9, .bars = Bars{4, 44, {}, {}}};
                    }
                    session.push(n, ancillary);
                }
                session.drain();
                return session.decoded();
            };
            const std::vector<DecodedPicture> bare = decoded(false), full = decoded(true);
            ASSERT_EQ(full.size(), 40u) << codec;
            ASSERT_EQ(bare.size(), 40u) << codec;
            for (size_t n = 0; n < bare.size(); n++)
                for (int plane = 0; plane < 3; plane++)
                    EXPECT_TRUE(full[n].planes[plane] == bare[n].planes[plane]) << codec << " " << n;
        }
}

TEST(PictureEncoder, PutsATimeCodeInFrontOfEachPictureOfH265) {
    Session session(Settings{{"encoder", "h.265"}});
    ASSERT_TRUE(session.open());
    for (uint64_t n = 0; n < 30; n++) {
        Ancillary ancillary;
        if (n != 7) ancillary.timecode = timecode_of(n);
        session.push(n, ancillary);
    }
    session.drain();
    for (const KeptUnit& unit : session.units) {
        const auto n = static_cast<uint64_t>(unit.pts);
        const Bytes message = n == 7 ? Bytes{} : timecode_message(timecode_of(n), gsve::captions::kRate30);
        const auto found = std::search(unit.bytes.begin(), unit.bytes.end(), message.begin(), message.end());
        EXPECT_NE(found, unit.bytes.end()) << n;
        const Bytes any = gsve::test::from_hex("4E 01 88");
        EXPECT_EQ(
            std::search(unit.bytes.begin(), unit.bytes.end(), any.begin(), any.end()) == unit.bytes.end(),
            n == 7);
    }
}

TEST(PictureEncoder, WritesOpenGopsWhoseTimeCodeIsThatOfABPicture) {
    Session session({{"encoder", "mpeg-2"}, {"gop size", "9"}});
    ASSERT_TRUE(session.open());
    for (uint64_t n = 0; n < 40; n++) {
        Ancillary ancillary;
        ancillary.timecode = timecode_of(n);
        session.push(n, ancillary);
    }
    session.drain();
    int before_i_picture = 0;
    for (const KeptUnit& unit : session.units) {
        const UnitContents contents = read_unit(AV_CODEC_ID_MPEG2VIDEO, unit.bytes, unit.key);
        if (!contents.gop) continue;
        before_i_picture +=
            gop_timecode(*contents.gop->timecode) == timecode_of(static_cast<uint64_t>(unit.pts) - 2);
    }
    EXPECT_GE(before_i_picture, 3);
}

TEST(PictureEncoder, LeavesTheCodecsTimeCodeWhereNoneIsGiven) {
    Session session({{"encoder", "mpeg-2"}, {"enable cea-708", "1"}}, {25, 1});
    ASSERT_TRUE(session.open());
    for (uint64_t n = 0; n < 20; n++) {
        Ancillary ancillary;
        ancillary.captions.words[0] = pair_of(n, 0);
        if (n > 5) ancillary.timecode = timecode_of(n);  // the first group has none
        session.push(n, ancillary);
    }
    session.drain();
    const UnitContents first = read_unit(AV_CODEC_ID_MPEG2VIDEO, session.units[0].bytes, true);
    ASSERT_TRUE(first.gop && first.gop->timecode);
    EXPECT_EQ(*first.gop->timecode, Timecode{});
}

/// The units of a film of 40 pictures with captions, every second of which has a third pair.
std::vector<KeptUnit> film_units(const char* codec, gsve::captions::LineRate line_rate) {
    Session session({{"encoder", codec}, {"enable cea-708", "1"}, {"enable eia-608", "0"}}, {24, 1});
    EXPECT_TRUE(session.open());
    session.encoder.carry_line_rate(line_rate);
    for (uint64_t n = 0; n < 40; n++) {
        Ancillary ancillary;
        ancillary.captions.words[0] = pair_of(n, 0);
        ancillary.captions.words[1] = n % 3 == 0 ? 0 : pair_of(n, 1);
        ancillary.captions.has_third = n % 2 == 1;
        ancillary.captions.third = ancillary.captions.has_third ? pair_of(n + 2000, 0) : 0;
        ancillary.captions.cea708 = constructs_of(n);
        session.push(n, ancillary);
    }
    session.drain();
    return session.units;
}

TEST(PictureEncoder, FullRateOfFilmChangesTheReservedBitsAndAddsTheThirdPair) {
    constexpr size_t kCcCount = 25;
    const Bytes kUserIdentifier = {'G', 'A', '9', '4', 0x03};
    for (const char* codec : {"mpeg-2", "h.264"}) {
        SCOPED_TRACE(codec);
        const auto full = film_units(codec, gsve::captions::LineRate::kFull);
        const auto plain = film_units(codec, gsve::captions::LineRate::kPairOfEachField);
        ASSERT_EQ(full.size(), 40u);
        ASSERT_EQ(plain.size(), 40u);
        for (size_t k = 0; k < full.size(); k++) {
            SCOPED_TRACE("picture " + std::to_string(full[k].pts));
            Bytes bytes = full[k].bytes;
            const auto body =
                std::search(bytes.begin(), bytes.end(), kUserIdentifier.begin(), kUserIdentifier.end()) + 5;
            ASSERT_GT(bytes.end() - body, static_cast<ptrdiff_t>(2 + 3 * kCcCount));
            EXPECT_EQ(body[0], 0xC0 | kCcCount);
            EXPECT_EQ(body[1], 0xFF);
            body[0] = 0x40 | kCcCount;
            body[1] = 0x00;
            if (full[k].pts % 2 == 1) {
                const auto third = body + 2 + 2 * 3;
                const Word pair = pair_of(static_cast<uint64_t>(full[k].pts) + 2000, 0);
                EXPECT_THAT(Bytes(third, third + 3), ElementsAre(0xFC, pair >> 8, pair & 0xFF));
                // Without it, what follows moves up and one more construct is padding.
                const auto end = body + 2 + 3 * kCcCount;
                std::copy(third + 3, end, third);
                std::copy_n(Bytes{0xFA, 0x00, 0x00}.begin(), 3, end - 3);
            }
            EXPECT_EQ(bytes, plain[k].bytes);
        }
    }
}

TEST(PictureEncoder, WritesCcUserDataWithThePairsOfAllPicturesUpToTheLastThatCarriesIt) {
    for (const char* on_p_frames : {"0", "1"})
        for (const char* per_frame : {"0", "1"}) {
            Session session({{"encoder", "mpeg-2"},
                             {"enable eia-608", "1"},
                             {"enable cea-708", "0"},
                             {"eia-608 on p-frames", on_p_frames},
                             {"constant bitrate per frame", per_frame}});
            ASSERT_TRUE(session.open());
            constexpr uint64_t kPictures = 40;
            for (uint64_t n = 0; n < kPictures; n++) {
                Ancillary ancillary;
                ancillary.captions.words[0] = pair_of(n, 0);
                ancillary.captions.words[1] = pair_of(n, 1);
                session.push(n, ancillary);
            }
            session.drain();
            std::vector<std::pair<Word, Word>> carried, given;
            for (const KeptUnit& unit : session.units) {
                const auto contents = read_unit(AV_CODEC_ID_MPEG2VIDEO, unit.bytes, unit.key);
                const bool may = unit.key || (unit.type == 'P' && std::string(on_p_frames) == "1");
                EXPECT_TRUE(!contents.captions.cc || may) << unit.pts;
                EXPECT_FALSE(contents.captions.cc_data);
                if (contents.captions.cc)
                    carried.insert(carried.end(), contents.captions.cc->begin(), contents.captions.cc->end());
            }
            for (uint64_t n = 0; n < carried.size(); n++) given.emplace_back(pair_of(n, 0), pair_of(n, 1));
            EXPECT_EQ(carried, given);
            EXPECT_GT(carried.size(), std::string(on_p_frames) == "1" ? 35u : 25u);
            EXPECT_EQ(session.encoder.pairs_after_last_cc(), 2 * (kPictures - carried.size()));
        }
}

TEST(PictureEncoder, CountsThePairsAfterTheLastCcUserDataByField) {
    Session session({{"encoder", "mpeg-2"},
                     {"enable eia-608", "1"},
                     {"b frames", "0"},
                     {"gop size", "7"},
                     {"eia-608 on p-frames", "0"}});
    ASSERT_TRUE(session.open());
    // Two, two, one, two, none, two ...
    const uint64_t pairs[] = {2, 2, 1, 2, 0, 2};
    for (uint64_t n = 0; n < 12; n++) {
        Ancillary ancillary;
        ancillary.captions.words[0] = pairs[n % 6] > 0 ? pair_of(n, 0) : 0;
        ancillary.captions.words[1] = pairs[n % 6] > 1 ? pair_of(n, 1) : 0;
        session.push(n, ancillary);
    }
    session.drain();
    size_t carried = 0;
    for (const KeptUnit& unit : session.units)
        if (const auto cc = read_unit(AV_CODEC_ID_MPEG2VIDEO, unit.bytes, unit.key).captions.cc)
            carried += cc->size();
    EXPECT_GT(carried, 4u);
    EXPECT_LT(carried, 12u);
    uint64_t after = 0;
    for (size_t n = carried; n < 12; n++) after += pairs[n % 6];
    EXPECT_EQ(session.encoder.pairs_after_last_cc(), after);
}

TEST(PictureEncoder, LeavesPicturesWithoutAncillaryDataAlone) {
    for (const char* codec : {"mpeg-2", "h.264"}) {
        const Settings settings = {{"encoder", codec}, {"enable cea-708", "0"}, {"enable eia-608", "0"}};
        Session session(settings);
        ASSERT_TRUE(session.open());
        for (uint64_t n = 0; n < 10; n++) session.push(n, {});
        session.drain();
        ASSERT_EQ(session.units.size(), 10u);
        for (const KeptUnit& unit : session.units) {
            const UnitContents contents = read_unit(AV_CODEC_ID_MPEG2VIDEO, unit.bytes, unit.key);
            EXPECT_FALSE(contents.captions.cc || contents.captions.cc_data || contents.captions.scte20);
        }
        for (const DecodedPicture& picture : session.decoded()) EXPECT_TRUE(picture.a53.empty());
    }
}

TEST(PictureEncoder, SaysThatAPictureWasDroppedForTheBitRate) {
    Session session({{"encoder", "mpeg-2"},
                     {"bitrate", "20000"},
                     {"min bitrate", "0"},
                     {"drop frame for bitrate limit", "on"}});
    ASSERT_TRUE(session.open()) << session.encoder.last_error;
    std::mt19937 random(5);
    TestPicture noise(64, 48, 1, 1, 0);
    size_t encoded = 0, dropped = 0;
    for (uint64_t n = 0; n < 120; n++) {
        for (uint8_t& sample : noise.y) sample = static_cast<uint8_t>(random());
        const PictureFate fate = session.push(noise, n, {});
        encoded += fate == PictureFate::kEncoded;
        dropped += fate == PictureFate::kDropped;
    }
    session.drain();
    EXPECT_GT(dropped, 5u);
    EXPECT_EQ(encoded + dropped, 120u);
    EXPECT_EQ(session.units.size(), encoded);
    for (size_t k = 1; k < session.units.size(); k++)
        EXPECT_GT(session.units[k].dts, session.units[k - 1].dts);
    for (const KeptUnit& unit : session.units) EXPECT_LE(unit.dts, unit.pts);
}

TEST(PictureEncoder, PassesOnWhatTheReceiverThrows) {
    for (const bool at_drain : {false, true}) {
        Session session(Settings{{"encoder", "mpeg-2"}});
        ASSERT_TRUE(session.open());
        int calls = 0;
        session.encoder.send_units_to([&](const EncodedUnit&) {
            calls++;
            if (!at_drain || session.draining) throw std::runtime_error("disk full");
        });
        std::string thrown;
        try {
            for (uint64_t n = 0; n < 10; n++) session.push(n, {});
            EXPECT_TRUE(at_drain);
            session.draining = true;
            session.encoder.drain();
        } catch (const std::runtime_error& error) {
            thrown = error.what();
        }
        EXPECT_EQ(thrown, "disk full");
        EXPECT_TRUE(at_drain || calls == 1);
    }
}

TEST(PictureEncoder, FailsWhereTheTimesOfPicturesAreForgotten) {
    Session session({{"encoder", "h.264"},
                     {"h.264 preset", "placebo"},
                     {"constant bitrate per frame", "1"},
                     {"b frames", "16"},
                     {"maximum threads", "16"}});
    ASSERT_TRUE(session.open()) << session.encoder.last_error;
    const auto run = [&] {
        for (uint64_t n = 0; n < 120; n++) session.push(n, {});
        session.drain();
    };
    std::string said;
    try {
        run();
    } catch (const Failure& failure) {
        said = failure.what();
    }
    EXPECT_THAT(said, HasSubstr("the codec holds pictures back for longer than 60 pictures"));
}

TEST(PictureEncoder, FailsWhereTheEncoderCannotTakeAPicture) {
    Session session(Settings{{"encoder", "mpeg-2"}});
    ASSERT_TRUE(session.open());
    EXPECT_EQ(session.encoder.host_frame_tag, 0u);  // the first picture is signalled
    AVPacket* const packet = std::exchange(session.encoder.mpeg_packet, nullptr);  // as for want of memory
    std::string said;
    try {
        session.push(0, {});
    } catch (const Failure& failure) {
        said = failure.what();
    }
    session.encoder.mpeg_packet = packet;
    EXPECT_EQ(said, "the encoder cannot take a picture: memory ran out");
}

TEST(PictureEncoder, TellsWhyItDoesNotOpen) {
    Session unknown(Settings{{"encoder", "none"}});
    EXPECT_FALSE(unknown.open());
    Session disabled(Settings{{"encoder", "mpeg-2"}, {"enable", "0"}});
    EXPECT_FALSE(disabled.open());
    Session refused({{"encoder", "mpeg-2"}, {"bitrate", "1000000"}}, {26, 1});  // no rate of MPEG-2's
    EXPECT_FALSE(refused.open());
    EXPECT_NE(refused.encoder.last_error, "");
}

TEST(PictureEncoder, SignalsAspectRatioAndFieldOrder) {
    const struct {
        AVRational display;
        AVRational sample;  // of 64x48 pictures
    } rows[] = {{{4, 3}, {1, 1}}, {{16, 9}, {4, 3}}};
    for (const char* codec : {"mpeg-2", "h.264"})
        for (const auto& row : rows) {
            Session session(Settings{{"encoder", codec}});
            Ancillary ancillary;
            ancillary.display_aspect = row.display;
            ASSERT_TRUE(session.open(ancillary));
            for (uint64_t n = 0; n < 4; n++) session.push(n, ancillary);
            session.drain();
            ASSERT_EQ(session.units.size(), 4u);
            for (const DecodedPicture& picture : session.decoded())
                EXPECT_EQ(av_cmp_q(picture.sample_aspect_ratio, row.sample), 0)
                    << codec << " " << picture.sample_aspect_ratio.num << ":"
                    << picture.sample_aspect_ratio.den;
        }
    // MPEG-2's picture coding extension tells which field comes first, and whether the picture is one of two.
    for (const int order : {0, 1, 2}) {
        Session session(Settings{{"encoder", "mpeg-2"}}, {25, 1}, order != 0);
        Ancillary ancillary;
        ancillary.field_order = order;
        ASSERT_TRUE(session.open(ancillary));
        for (uint64_t n = 0; n < 4; n++) session.push(n, ancillary);
        session.drain();
        for (const KeptUnit& unit : session.units) {
            std::vector<gsve::test::Section> parts = gsve::test::sections(unit.bytes);
            const auto extension = std::find_if(parts.begin(), parts.end(), [](const gsve::test::Section& s) {
                return s.code == 0xB5 && s.payload[0] >> 4 == 8;
            });
            ASSERT_NE(extension, parts.end());
            const bool top_first = extension->payload[3] & 0x80, progressive = extension->payload[4] & 0x80;
            EXPECT_EQ(progressive, order == 0);
            EXPECT_TRUE(progressive || top_first == (order == 1));
        }
    }
}

TEST(PictureEncoder, GivesTheSameBytesWhateverTheLoadWhereItDoesNotAdapt) {
    std::vector<Bytes> first;
    for (const double load : {0.0, 1000.0}) {
        Session session({{"encoder", "mpeg-2"}, {"bitrate", "300000"}, {"s_tune_cpu", "10000"}});
        session.encoder.adapt_to_load(false);
        ASSERT_TRUE(session.open());
        std::vector<Bytes> bytes;
        for (uint64_t n = 0; n < 25; n++) {
            session.encoder.smoothed_encode_time = load;  // as a busy machine would have left it
            session.push(n, {});
        }
        session.drain();
        for (const KeptUnit& unit : session.units) bytes.push_back(unit.bytes);
        if (first.empty()) first = bytes;
        EXPECT_EQ(bytes, first);
    }
}

TEST(PictureEncoder, AdaptsToTheLoadByDefault) {
    std::vector<Bytes> streams;
    for (const double load : {0.0, 1000.0}) {
        Session session({{"encoder", "mpeg-2"}, {"bitrate", "300000"}, {"s_tune_cpu", "10000"}});
        ASSERT_TRUE(session.open());
        Bytes stream;
        for (uint64_t n = 0; n < 25; n++) {
            session.encoder.smoothed_encode_time = load;
            session.push(n, {});
        }
        session.drain();
        for (const KeptUnit& unit : session.units)
            stream.insert(stream.end(), unit.bytes.begin(), unit.bytes.end());
        streams.push_back(stream);
    }
    EXPECT_NE(streams[0], streams[1]);
}

TEST(PictureEncoder, MakesAKeyPictureOfTheOneThatIsToBe) {
    for (const char* codec : {"mpeg-2", "h.264", "h.265"})
        for (const char* b_frames : {"0", "2"})
            for (const char* gop_size : {"-1", "15", "100"}) {
                SCOPED_TRACE(std::string(codec) + " b frames=" + b_frames + " gop size=" + gop_size);
                Session session({{"encoder", codec},
                                 {"b frames", b_frames},
                                 {"gop size", gop_size},
                                 {"h.264 profile", "main"}});
                ASSERT_TRUE(session.open()) << session.encoder.last_error;
                for (uint64_t n = 0; n < 40; n++) session.push(n, {.key = n == 7 || n == 19});
                session.drain();
                ASSERT_EQ(session.units.size(), 40u);
                std::map<int64_t, bool> key;
                for (const KeptUnit& unit : session.units) key[unit.pts] = unit.key;
                EXPECT_TRUE(key[0] && key[7] && key[19]);
                EXPECT_FALSE(key[6] || key[8] || key[18] || key[20]);
                EXPECT_EQ(session.encoder.gop_size, std::stoi(gop_size));
            }
}

TEST(PictureEncoder, GivesTheEncodedRateOfADividedSource) {
    Session session({{"encoder", "h.264"}, {"frame rate limit", "20"}}, {60000, 1001});
    ASSERT_TRUE(session.open());
    EXPECT_EQ(av_cmp_q(session.encoder.encoded_rate(), {20000, 1001}), 0);
}

}  // namespace
