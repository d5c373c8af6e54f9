// Whatever goes into its units, an encoder's stream keeps to the buffer and the rate that it declares.

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "encoding/codec_id.h"
#include "encoding/picture_encoder.h"
#include "programme/buffer_checker.h"
#include "support/stderr_capture.h"
#include "support/test_picture.h"

namespace gsve::programme {
namespace {

using captions::PictureWrites;
using encoding::Ancillary;
using encoding::PictureEncoder;
using Settings = std::vector<std::pair<std::string, std::string>>;

/// What goes into the units.
struct Load {
    const char* name;
    Settings settings;
    bool captions = false, scte20 = false, shape = false, colour = false;
};

const Load kLoads[] = {
    {"nothing", {{"enable cea-708", "0"}, {"enable eia-608", "0"}}},
    {"idle captions", {{"enable cea-708", "1"}, {"enable eia-608", "0"}}},
    {"captions", {{"enable cea-708", "1"}, {"enable eia-608", "0"}}, true},
    {"colour", {{"enable cea-708", "0"}, {"enable eia-608", "0"}}, false, false, false, true},
    {"all", {{"enable cea-708", "1"}, {"enable eia-608", "1"}}, true, true, true, true},
};

const AVRational kRates[] = {{24000, 1001}, {60000, 1001}};

struct Way {
    const char* name;
    Settings settings;
};
const Way kWays[] = {
    {"as it is", {}},
    {"closed GOPs of 9 without B-pictures",
     {{"closed gop", "1"}, {"gop size", "9"}, {"b frames", "0"}, {"h.264 profile", "main"}}},
    {"half the rate", {{"frame rate limit", "30"}}},
    {"fast", {{"bitrate", "2000000"}}},
    {"variable", {{"min bitrate", "0"}, {"max bitrate", "1500000"}}},
};

Ancillary ancillary_of(uint64_t n, const Load& load) {
    Ancillary ancillary;
    if (load.captions) {
        ancillary.captions.words[n % 2] = captions::with_parity(captions::make_word('A' + n % 26, 'b'));
        for (int more = 0; more < 3 && n % 5 != 0; more++)
            ancillary.captions.cea708.push_back({0xFE, static_cast<uint8_t>(n), 0});
    }
    if (load.scte20 && n % 3 != 0)
        ancillary.scte20 = std::vector<uint8_t>{0x81, 0x10, 0x0A, 0x10, 0x42, 0x10};
    if (load.shape) {
        ancillary.shape.afd = static_cast<int>(n % 16);
        ancillary.shape.bars =
            encoding::Bars{.top_end = 5, .bottom_begin = 42, .left_end = {}, .right_begin = {}};
    }
    return ancillary;
}

struct Sent {
    BufferVerdict verdict;
    double bits_per_second = 0;
    uint64_t unreadable = 0;
};

Sent encode(const char* codec, AVRational rate, const Load& load, const Way& way) {
    constexpr int kWidth = 96, kHeight = 64;
    constexpr uint64_t kPictures = 120;
    PictureEncoder encoder("declared");
    encoding::SourceDescription source;
    source.width = kWidth, source.height = kHeight, source.frame_rate = rate;
    source.may_have_shape = load.shape;
    if (load.colour)
        source.colour = {AVCOL_PRI_BT709, AVCOL_TRC_BT709, AVCOL_SPC_BT709, AVCOL_RANGE_MPEG,
                         AVCHROMA_LOC_LEFT};
    encoder.describe_source(source);
    encoder.adapt_to_load(false);
    for (const auto& [key, value] : Settings{{"encoder", codec},
                                             {"enable", "1"},
                                             {"bitrate", "1000000"},
                                             {"maximum threads", "1"},
                                             {"enable h.264 nal hrd", "1"}})
        encoder.apply(key, value);
    for (const Settings& settings : {load.settings, way.settings})
        for (const auto& [key, value] : settings) encoder.apply(key, value);
    BufferChecker checker(codec == std::string("mpeg-2") ? AV_CODEC_ID_MPEG2VIDEO : AV_CODEC_ID_H264);
    uint64_t units = 0;
    double bits = 0;
    encoder.send_units_to([&](const encoding::EncodedUnit& unit) {
        checker.unit(unit.bytes);
        bits += 8 * static_cast<double>(unit.bytes.size());
        units++;
    });
    Sent sent;
    test::stderr_of([&] {
        if (!encoder.open(ancillary_of(0, load))) throw std::runtime_error(encoder.last_error);
        if (load.scte20) encoder.carry_scte20();
        for (uint64_t n = 0; n < kPictures; n++) {
            const test::TestPicture picture(kWidth, kHeight, 1, 1, static_cast<unsigned>(n));
            encoding::PictureView view;
            view.planes[0] = picture.y.data(), view.planes[1] = picture.u.data(),
            view.planes[2] = picture.v.data();
            view.strides[0] = kWidth, view.strides[1] = view.strides[2] = kWidth / 2;
            view.number = n;
            encoder.push(view, encoder.takes(n) ? ancillary_of(n, load) : Ancillary());
        }
        encoder.drain();
    });
    sent.verdict = checker.finish();
    sent.bits_per_second = bits / static_cast<double>(units) * av_q2d(encoder.encoded_rate());
    sent.unreadable = encoder.unreadable_headers();
    return sent;
}

std::string faults_of(const BufferVerdict& verdict) {
    std::string text;
    for (const BufferAccount& account : verdict.accounts)
        for (const BufferFinding& finding : account.findings)
            text += fmt::format("model {} kind {} unit {} bits {}; ", static_cast<int>(account.model),
                                static_cast<int>(finding.kind), finding.unit, finding.bits);
    return text;
}

class DeclaredRate : public testing::TestWithParam<std::tuple<const char*, size_t>> {};

TEST_P(DeclaredRate, IsKeptWhateverGoesIntoTheUnits) {
    const auto [codec, way] = GetParam();
    for (const AVRational rate : kRates)
        for (const Load& load : kLoads) {
            SCOPED_TRACE(
                fmt::format("{} {}/{} with {}, {}", codec, rate.num, rate.den, load.name, kWays[way].name));
            const Sent sent = encode(codec, rate, load, kWays[way]);
            EXPECT_EQ(sent.verdict.state, BufferVerdict::State::kChecked);
            EXPECT_EQ(sent.verdict.unreadable, 0);
            EXPECT_EQ(sent.unreadable, 0u);
            EXPECT_TRUE(sent.verdict.holds()) << faults_of(sent.verdict);
            const double declared = static_cast<double>(sent.verdict.accounts.at(0).bit_rate);
            // What is in the buffer at both ends counts for 5 of 100 in so short a stream.
            EXPECT_LT(sent.bits_per_second, declared * 1.05);
            if (way != std::size(kWays) - 1) {
                EXPECT_GT(sent.bits_per_second, declared * 0.95);
            }
        }
}

// What the main level's decoder holds is the codec's to fill, but for what is inserted.
TEST(MainLevel, HoldsWhatIsInsertedAtHighRates) {
    for (const char* bitrate : {"7400000", "8000000", "14000000"}) {
        const Sent sent =
            encode("mpeg-2", {25, 1}, kLoads[2], {"fast", {{"bitrate", bitrate}, {"resize", "704x480"}}});
        EXPECT_TRUE(sent.verdict.holds()) << bitrate << " " << faults_of(sent.verdict);
        EXPECT_EQ(sent.verdict.accounts.at(0).size, 1'835'008);
    }
}

INSTANTIATE_TEST_SUITE_P(All, DeclaredRate,
                         testing::Combine(testing::Values("mpeg-2", "h.264"),
                                          testing::Range<size_t>(0, std::size(kWays))));

}  // namespace
}  // namespace gsve::programme
