// gsve encode with captions, SCTE 20 and time codes: what goes in is what a decoder finds in the stream.

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

extern "C" {
#include <libavutil/timecode.h>
}

#include "captions/cc_data.h"
#include "captions/eia608_decoder.h"
#include "captions/scte20.h"
#include "support/clip.h"
#include "support/program.h"
#include "support/soft_telecine.h"

namespace {

using namespace gsve::test;
using gsve::captions::Word;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr AVRational k23_976 = {24000, 1001}, k25 = {25, 1}, k29_97 = {30000, 1001}, k50 = {50, 1},
                     k59_94 = {60000, 1001};

/// One byte pair with the picture that carries it.
struct Found {
    int picture;
    int field;
    Word word;  // with parity

    friend bool operator==(const Found&, const Found&) = default;
    friend void PrintTo(const Found& found, std::ostream* out) {
        *out << fmt::format("{}:{}:{:04x}", found.picture, found.field, found.word);
    }
};

struct ReadBack {
    int pictures = 0;
    std::vector<Found> pairs;  // in display order, idle ones left out
    std::vector<gsve::captions::Cea708Construct> constructs;
    std::vector<std::string> timecodes;  // of the GOPs
    std::vector<int> intra;              // pictures of type I
};

/// A picture of film carries the pairs of the fields of 60 Hz that begin while it is shown, up to three: it
/// begins this long before the last of them, in seconds.
constexpr double kFilmPictureBeforeItsLastField = 2 / 59.94;

/// A stream as FFmpeg's decoder sees it.
ReadBack read_back(const std::string& path) {
    AVFormatContext* input = nullptr;
    require(avformat_open_input(&input, path.c_str(), nullptr, nullptr), "open");
    require(avformat_find_stream_info(input, nullptr), "stream info");
    const AVCodec* codec = nullptr;
    const int index = av_find_best_stream(input, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    require(index, "video stream");
    AVCodecContext* decoder = avcodec_alloc_context3(codec);
    avcodec_parameters_to_context(decoder, input->streams[index]->codecpar);
    decoder->thread_count = 1;
    require(avcodec_open2(decoder, codec, nullptr), "decoder");
    ReadBack result;
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    const auto take_pictures = [&] {
        while (avcodec_receive_frame(decoder, frame) == 0) {
            if (const AVFrameSideData* cc = av_frame_get_side_data(frame, AV_FRAME_DATA_A53_CC)) {
                const auto found = gsve::captions::parse_cc_data({cc->data, cc->size}).captions;
                for (int field = 0; field < 2; field++)
                    for (const Word word : found.fields[field])
                        if (!gsve::captions::is_null(word))
                            result.pairs.push_back({result.pictures, field, word});
                for (const auto& construct : found.cea708) result.constructs.push_back(construct);
            }
            if (av_frame_get_side_data(frame, AV_FRAME_DATA_GOP_TIMECODE))
                result.timecodes.push_back(av_dict_get(frame->metadata, "timecode", nullptr, 0)->value);
            if (frame->pict_type == AV_PICTURE_TYPE_I) result.intra.push_back(result.pictures);
            result.pictures++;
        }
    };
    while (av_read_frame(input, packet) == 0) {
        if (packet->stream_index == index && avcodec_send_packet(decoder, packet) == 0) take_pictures();
        av_packet_unref(packet);
    }
    avcodec_send_packet(decoder, nullptr);
    take_pictures();
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&decoder);
    avformat_close_input(&input);
    return result;
}

/// Offsets right after each occurrence of `pattern`.
std::vector<size_t> ends_of(const std::string& bytes, const std::string& pattern) {
    std::vector<size_t> ends;
    for (size_t at = bytes.find(pattern); at != std::string::npos; at = bytes.find(pattern, at + 1))
        ends.push_back(at + pattern.size());
    return ends;
}

/// Field 1 of an MPEG-2 stream's "CC" user data, without idle pairs.
std::vector<Word> cc_pairs(const std::string& bytes) {
    std::vector<Word> pairs;
    for (const size_t at : ends_of(bytes, std::string{0, 0, 1, '\xB2', 'C', 'C', 1, '\xF8'}))
        for (unsigned n = 0; n < (byte_at(bytes, at) & 0x7F) / 2; n++) {
            const auto word =
                static_cast<Word>(byte_at(bytes, at + 2 + 6 * n) << 8 | byte_at(bytes, at + 3 + 6 * n));
            if (!gsve::captions::is_null(word)) pairs.push_back(word);
        }
    return pairs;
}

// MPEG-2 user data with SCTE 20 pairs, and with "CC" ones, and A/53 cc_data of MPEG-2 and H.264.
const std::string kScte20 = {0, 0, 1, '\xB2', 3};

/// The time codes of an MPEG-2 stream's GOP headers.
std::vector<std::string> gop_timecodes(const std::string& bytes) {
    std::vector<std::string> timecodes;
    for (const size_t at : ends_of(bytes, std::string{0, 0, 1, '\xB8'})) {
        const uint32_t bits = byte_at(bytes, at) << 17 | byte_at(bytes, at + 1) << 9 |
                              byte_at(bytes, at + 2) << 1 | byte_at(bytes, at + 3) >> 7;
        char text[AV_TIMECODE_STR_SIZE];
        timecodes.push_back(av_timecode_make_mpeg_tc_string(text, bits));
    }
    return timecodes;
}

/// A byte pair of a caption file: text, which has no meaning for when it is sent.
struct Asked {
    int frame;  // at 29.97
    int field;
    Word word;
};

/// Pairs "Aa", "Ab", ... of a field, one every `step` frames.
std::vector<Asked> text_pairs(int field, int first, int count, int step) {
    std::vector<Asked> pairs;
    for (int n = 0; n < count; n++) {
        const unsigned letters = (field ? 'a' : 'A') << 8 | ('a' + n % 26);
        pairs.push_back({first + n * step, field, gsve::captions::with_parity(static_cast<Word>(letters))});
    }
    return pairs;
}

std::string scc(const std::vector<Asked>& pairs) {
    std::string text = "Scenarist_SCC V1.0\n";
    for (const Asked& pair : pairs)
        text += fmt::format("\n00:00:{:02}:{:02}\t{:04x}\n", pair.frame / 30, pair.frame % 30, pair.word);
    return text;
}

/// The first picture of the encoded rate that carries the pair's field and begins no earlier than the pair.
int due_picture(const Asked& pair, AVRational rate) {
    // Film carries the fields of 60 Hz that begin while each of its pictures is shown: three and two in turn.
    if (av_q2d(rate) < 24.5) return static_cast<int>((2 * pair.frame + pair.field) / 2.5);
    const int picture = static_cast<int>(std::ceil(pair.frame * av_q2d(rate) / av_q2d(k29_97) - 1e-6));
    const bool alternating = av_q2d(rate) > 39;
    return alternating && picture % 2 != pair.field ? picture + 1 : picture;
}

std::vector<Found> expected(const std::vector<Asked>& pairs, AVRational rate) {
    std::vector<Found> found;
    for (const Asked& pair : pairs) found.push_back({due_picture(pair, rate), pair.field, pair.word});
    std::stable_sort(found.begin(), found.end(), [](const Found& a, const Found& b) {
        return std::pair(a.picture, a.field) < std::pair(b.picture, b.field);
    });
    return found;
}

std::vector<Word> words_of(const std::vector<Found>& pairs, int field) {
    std::vector<Word> words;
    for (const Found& pair : pairs)
        if (pair.field == field) words.push_back(pair.word);
    return words;
}

std::vector<Word> words_of(const std::vector<Asked>& pairs) {
    std::vector<Word> words;
    for (const Asked& pair : pairs) words.push_back(pair.word);
    return words;
}

class CaptionCommand : public testing::Test {
protected:
    std::string y4m(AVRational rate, unsigned pictures, char interlacing = 'p') {
        const std::string path = directory / fmt::format("in{}.y4m", pictures);
        write_y4m(path, {.width = 64, .height = 48, .rate = rate, .interlacing = interlacing}, pictures);
        return path;
    }

    std::string file(const std::string& name, const std::string& text) {
        const std::string path = directory / name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }

    /// Both fields' text pairs as two files; field 2 begins one frame later.
    std::vector<std::string> two_files(const std::vector<Asked>& field_1, const std::vector<Asked>& field_2) {
        return {"--captions", file("field1.scc", scc(field_1)), "--captions",
                file("field2.scc", scc(field_2))};
    }

    /// Runs gsve encode; it must succeed. Above 39 pictures/s the encoder complains of a field on the wrong
    /// picture; it must not.
    json encode(const std::string& in, const std::string& out, std::vector<std::string> more = {}) {
        more.insert(more.begin(), {"encode", in, out, "-y", "--report", "json", "--verbose"});
        const ProgramResult result = run(more);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_THAT(result.err, Not(HasSubstr("BUG")));
        EXPECT_THAT(result.err, Not(HasSubstr("overflow")));
        diagnostics = result.err;
        return result.status == 0 ? json::parse(result.out)["captions"] : json();
    }

    ProgramResult fail(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "encode");
        return run(arguments);
    }

    ScratchDirectory directory;
    std::string diagnostics;
};

// FFmpeg puts all kinds of user data into one list; "CC" is left out where it is to be read back.
const std::vector<std::string> kNoCc = {"--set", "enable eia-608=0"};

std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class FilmCaptions : public CaptionCommand {
protected:
    /// A pair of each field in every frame of 29.97, for as long as 96 pictures of film last.
    static constexpr int kFrames = 118;
    static constexpr unsigned kPictures = 96;
    const std::vector<Asked> field_1 = text_pairs(0, 0, kFrames, 1), field_2 = text_pairs(1, 0, kFrames, 1);

    /// The most pairs of a field that a picture has.
    static std::ptrdiff_t most_in_a_picture(const ReadBack& found) {
        std::ptrdiff_t most = 0;
        for (const Found& pair : found.pairs)
            most = std::max(most, std::count_if(found.pairs.begin(), found.pairs.end(), [&](const Found& p) {
                                return p.picture == pair.picture && p.field == pair.field;
                            }));
        return most;
    }
};

TEST_F(FilmCaptions, AreOnTimeWhereEveryFieldOf60HzHasAPair) {
    for (const char* extension : {".m2v", ".h264"})
        for (const AVRational rate : {k23_976, AVRational{24, 1}}) {
            SCOPED_TRACE(fmt::format("{} at {}/{}", extension, rate.num, rate.den));
            const std::string out = directory / (std::string("out") + extension);
            const json account = encode(y4m(rate, kPictures), out, two_files(field_1, field_2));
            const ReadBack found = read_back(out);
            EXPECT_EQ(words_of(found.pairs, 0), words_of(field_1));
            EXPECT_EQ(words_of(found.pairs, 1), words_of(field_2));
            EXPECT_EQ(account["delayed_pairs"], 0);
            EXPECT_EQ(account["left_over"], 0);
            EXPECT_EQ(most_in_a_picture(found), 2);
        }
}

TEST_F(FilmCaptions, AreCarriedOverUnchanged) {
    const std::string in = directory / "in.ts", out = directory / "out.mp4";
    encode(y4m(k23_976, kPictures), in,
           two_files(field_1, field_2) + std::vector<std::string>{"--codec", "mpeg-2"});
    const json account = encode(in, out);
    EXPECT_EQ(read_back(out).pairs, read_back(in).pairs);
    EXPECT_EQ(account["delayed_pairs"], 0);
    EXPECT_EQ(account["left_over"], 0);
}

TEST_F(FilmCaptions, HaveOnePairOfEachFieldWhereAnotherFormSaysTheSame) {
    const std::string out = directory / "out.m2v";
    encode(
        y4m(k23_976, kPictures), out,
        two_files(text_pairs(0, 0, 30, 3), text_pairs(1, 1, 30, 3)) + std::vector<std::string>{"--scte20"});
    const std::string cc = directory / "cc.m2v";
    encode(y4m(k23_976, kPictures), cc,
           two_files(text_pairs(0, 0, 30, 1), {}) + std::vector<std::string>{"--set", "enable eia-608=1"});
    const std::vector<Word> words = cc_pairs(read_file(cc));
    EXPECT_EQ(words, words_of(text_pairs(0, 0, 30, 1))) << "\"CC\" lacks pairs";
}

TEST_F(FilmCaptions, HaveTheReservedBitsOfA53AndOtherRatesThoseOfTheEncoder) {
    const auto header_after = [&](AVRational rate) {
        const std::string out = directory / "out.m2v";
        encode(y4m(rate, 10), out, {"--set", "enable cea-708=1"});
        const std::string bytes = read_file(out);
        const size_t at = ends_of(bytes, kCcData).at(0);
        return std::pair(byte_at(bytes, at), byte_at(bytes, at + 1));
    };
    EXPECT_EQ(header_after({24, 1}), std::pair(0xC0u | 25, 0xFFu));
    EXPECT_EQ(header_after(k25), std::pair(0x40u | 24, 0x00u));
}

class CaptionGrid : public CaptionCommand,
                    public testing::WithParamInterface<std::tuple<const char*, AVRational, int, char>> {};

TEST_P(CaptionGrid, BringsEveryPairOfBothFieldsToItsPictureUpToTheLast) {
    const auto& [extension, rate, b_frames, interlacing] = GetParam();
    constexpr unsigned kPictures = 42;
    const int frames = static_cast<int>((kPictures - 2) * av_q2d(k29_97) / av_q2d(rate));
    const auto field_1 = text_pairs(0, 0, frames / 3 + 1, 3), field_2 = text_pairs(1, 1, frames / 3, 3);
    const std::string out = directory / (std::string("out") + extension);
    const json account = encode(y4m(rate, kPictures, interlacing), out,
                                two_files(field_1, field_2) + kNoCc +
                                    std::vector<std::string>{"--set", fmt::format("b frames={}", b_frames)});
    const ReadBack found = read_back(out);
    EXPECT_EQ(found.pictures, static_cast<int>(kPictures));
    std::vector<Asked> all = field_1;
    all.insert(all.end(), field_2.begin(), field_2.end());
    EXPECT_EQ(found.pairs, expected(all, rate));
    EXPECT_EQ(account["carried"]["eia608_pairs"], all.size());
    EXPECT_EQ(account["left_over"], 0);
    EXPECT_EQ(account["source"], "file");
}

INSTANTIATE_TEST_SUITE_P(Grid, CaptionGrid,
                         testing::Combine(testing::Values(".m2v", ".h264"),
                                          testing::Values(k23_976, k25, k29_97, k50, k59_94),
                                          testing::Values(0, 2, 5), testing::Values('p', 't')));

struct RateChange {
    const char* name;
    AVRational from;
    std::vector<std::string> options;
    AVRational to;
};

class CaptionCarryOver
    : public CaptionCommand,
      public testing::WithParamInterface<std::tuple<const char*, const char*, RateChange>> {};

TEST_P(CaptionCarryOver, KeepsEveryPairOnceAndInOrderAtMostOneSlotLate) {
    const auto& [from, to, change] = GetParam();
    constexpr int kFrames = 60;  // two seconds
    const auto field_1 = text_pairs(0, 3, 17, 3), field_2 = text_pairs(1, 4, 13, 4);
    const auto pictures = static_cast<unsigned>(kFrames * av_q2d(change.from) / av_q2d(k29_97));
    const std::string in = directory / (std::string("captioned") + from);
    encode(y4m(change.from, pictures), in, two_files(field_1, field_2) + kNoCc);

    const std::string out = directory / (std::string("out") + to);
    const json account = encode(in, out, change.options + kNoCc);
    const ReadBack found = read_back(out);
    EXPECT_EQ(words_of(found.pairs, 0), words_of(field_1));
    EXPECT_EQ(words_of(found.pairs, 1), words_of(field_2));
    EXPECT_EQ(account["source"], "input");
    EXPECT_EQ(account["carried"]["eia608_pairs"], field_1.size() + field_2.size());
    EXPECT_EQ(account["left_over"], 0);

    if (av_cmp_q(change.from, change.to) == 0) {
        EXPECT_EQ(found.pairs, read_back(in).pairs);
    }

    // Two steps of rounding: to a picture of the input, then to one of the output. Above 39 pictures/s the
    // two pictures of a frame carry a field each, and both fields belong to its first one.
    const double slack = 2 / av_q2d(change.from) + 2 / av_q2d(change.to);
    const bool halved = av_q2d(change.from) > 39 && av_q2d(change.to) < 39;
    const bool film = std::min(av_q2d(change.from), av_q2d(change.to)) < 24.5;
    std::vector<Asked> all = field_1;
    all.insert(all.end(), field_2.begin(), field_2.end());
    for (const Found& pair : found.pairs) {
        const auto asked =
            std::find_if(all.begin(), all.end(), [&](const Asked& a) { return a.word == pair.word; });
        ASSERT_NE(asked, all.end());
        const double delay = pair.picture / av_q2d(change.to) - asked->frame / av_q2d(k29_97);
        EXPECT_GE(delay, (film                        ? -kFilmPictureBeforeItsLastField
                          : halved && pair.field == 1 ? -1 / av_q2d(change.from)
                                                      : 0) -
                             1e-9);
        EXPECT_LT(delay, slack);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Grid, CaptionCarryOver,
    testing::Combine(testing::Values(".m2v", ".ts", ".mkv"), testing::Values(".m2v", ".h264"),
                     testing::Values(RateChange{"same", k29_97, {}, k29_97},
                                     RateChange{"same_fast", k59_94, {}, k59_94},
                                     RateChange{"doubled", k29_97, {"--rate", "60000/1001"}, k59_94},
                                     RateChange{"halved", k59_94, {"--set", "frame rate limit=30"}, k29_97},
                                     RateChange{"24_to_30", {24, 1}, {"--rate", "30"}, {30, 1}},
                                     RateChange{"30_to_24", {30, 1}, {"--rate", "24"}, {24, 1}},
                                     RateChange{"50_to_25", k50, {"--set", "frame rate limit=25"}, k25})),
    [](const auto& info) {
        std::string name = fmt::format("{}_to_{}_{}", std::get<0>(info.param) + 1,
                                       std::get<1>(info.param) + 1, std::get<2>(info.param).name);
        return name;
    });

TEST_F(CaptionCommand, CarriesOverAControlPairOnTheLastPictureThoughItsRepetitionNeverComes) {
    const std::vector<Asked> pairs = {{74, 0, 0x9420}};  // picture 60 of 0 to 60 at 24 pictures/s
    const std::string in = directory / "in.m2v", out = directory / "out.h264";
    encode(y4m({24, 1}, 61), in, std::vector<std::string>{"--captions", file("a.scc", scc(pairs))} + kNoCc);
    ASSERT_EQ(read_back(in).pairs, (std::vector<Found>{{60, 0, 0x9420}}));
    const json account = encode(in, out, {"--rate", "30"});
    EXPECT_EQ(read_back(out).pairs, (std::vector<Found>{{75, 0, 0x9420}}));
    EXPECT_EQ(account["left_over"], 0);
}

TEST_F(CaptionCommand, WritesCcUpToTheLastPicturesAlsoAtADividedRate) {
    const auto pairs = text_pairs(0, 0, 40, 2);
    for (const int b_frames : {0, 2, 5}) {
        const std::string out = directory / "out.m2v";
        const json account =
            encode(y4m(k59_94, 160), out,
                   {"--captions", file("a.scc", scc(pairs)), "--set", "enable eia-608=1", "--set",
                    "frame rate limit=30", "--set", fmt::format("b frames={}", b_frames)});
        const std::vector<Word> found = cc_pairs(read_file(out));
        const auto missing = account["pairs_after_last_cc"].get<size_t>();
        // The last P-picture may come before the B-pictures that it frames, and tells only of those before
        // it.
        EXPECT_LE(static_cast<int>(missing), (b_frames + 2) / 2);
        ASSERT_EQ(found.size() + missing, pairs.size()) << b_frames;
        EXPECT_EQ(found, words_of({pairs.begin(), pairs.end() - static_cast<ptrdiff_t>(missing)}));
    }
}

TEST_F(CaptionCommand, CarriesOverPairsThatTheInputHasInSeveralFormsOnlyOnce) {
    const auto pairs = text_pairs(0, 2, 12, 3);
    const std::string in = directory / "three_forms.m2v", out = directory / "out.h264";
    encode(y4m(k29_97, 42), in,
           {"--captions", file("a.scc", scc(pairs)), "--scte20", "--set", "enable eia-608=1"});
    // Decoders differ in which forms they give.
    const std::string bytes = read_file(in);
    ASSERT_EQ(cc_pairs(bytes), words_of(pairs));
    ASSERT_EQ(ends_of(bytes, kScte20).size(), pairs.size());
    ASSERT_EQ(ends_of(bytes, kCcData).size(), 42U);
    encode(in, out);
    EXPECT_EQ(read_back(out).pairs, expected(pairs, k29_97));
}

TEST_F(CaptionCommand, LeavesCcOutBesideScte20) {
    const auto pairs = text_pairs(0, 2, 12, 3);
    const std::string out = directory / "out.m2v";
    encode(y4m(k29_97, 42), out,
           {"--captions", file("a.scc", scc(pairs)), "--scte20", "--set", "enable cea-708=0"});
    EXPECT_EQ(ends_of(read_file(out), kScte20).size(), pairs.size());
    EXPECT_THAT(ends_of(read_file(out), kCc), testing::IsEmpty());
    EXPECT_EQ(read_back(out).pairs, expected(pairs, k29_97));
}

class CcCarryOver : public CaptionCommand, public testing::WithParamInterface<std::tuple<bool, int, int>> {};

TEST_P(CcCarryOver, BringsEachPairToThePictureItWasMeantForOnce) {
    const auto& [beside_scte20, on_p_frames, b_frames] = GetParam();
    std::vector<Asked> field_1 = text_pairs(0, 2, 17, 3);
    for (const int frame : {53, 54, 57, 58}) field_1.push_back({frame, 0, 0x94AE});
    const auto field_2 = text_pairs(1, 3, 13, 4);
    std::vector<Asked> all = field_1;
    all.insert(all.end(), field_2.begin(), field_2.end());
    const std::string in = directory / "in.m2v", out = directory / "out.h264";
    std::vector<std::string> options = two_files(field_1, field_2);
    for (const std::string& setting :
         {std::string("enable eia-608=1"), std::string("enable cea-708=0"),
          fmt::format("eia-608 on p-frames={}", on_p_frames), fmt::format("b frames={}", b_frames)})
        options.insert(options.end(), {"--set", setting});
    if (beside_scte20) options.push_back("--scte20");
    encode(y4m(k29_97, 100), in, options);
    ASSERT_EQ(cc_pairs(read_file(in)), words_of(field_1));
    ASSERT_EQ(ends_of(read_file(in), kScte20).empty(), !beside_scte20);

    const json account = encode(in, out);
    EXPECT_EQ(read_back(out).pairs, expected(all, k29_97));
    EXPECT_EQ(account["carried"]["eia608_pairs"], all.size());
    EXPECT_EQ(account["largest_delay"], 0);
}

INSTANTIATE_TEST_SUITE_P(Grid, CcCarryOver,
                         testing::Combine(testing::Bool(), testing::Values(0, 1), testing::Values(0, 2)));

/// Pop-on captions of a second each without text that matters, all commands twice: one pair per frame.
std::vector<Word> pop_on_pairs(int field, int captions) {
    constexpr int kSecondField = 0x0100;
    std::vector<Word> pairs;
    for (int caption = 0; caption < captions; caption++) {
        for (const int command : {0x1420, 0x142E, 0x1470})
            for (int times = 0; times < 2; times++)
                pairs.push_back(gsve::captions::with_parity(
                    static_cast<Word>(command + (field == 1 ? kSecondField : 0))));
        for (const Asked& text : text_pairs(field, 0, 9, 1)) pairs.push_back(text.word);
        for (int times = 0; times < 2; times++)
            pairs.push_back(
                gsve::captions::with_parity(static_cast<Word>(0x142F + (field == 1 ? kSecondField : 0))));
        pairs.resize(pairs.size() + 13, gsve::captions::kNullPair);
    }
    return pairs;
}

/// What a receiver acts upon: a command at once after an equal one of its field is its repetition. `step`
/// pictures carry a pair of each field.
std::vector<Word> acted_upon(const std::vector<Found>& pairs, int field, int step = 1) {
    std::vector<Word> words;
    Found newest{-10, field, 0};
    for (const Found& pair : pairs) {
        if (pair.field != field) continue;
        const bool repetition = gsve::captions::is_control(pair.word) && pair.word == newest.word &&
                                pair.picture - newest.picture <= step;
        if (!repetition) words.push_back(pair.word);
        newest = repetition ? Found{pair.picture, field, 0} : pair;
    }
    return words;
}

class TelecineCarryOver : public CaptionCommand,
                          public testing::WithParamInterface<std::tuple<bool, const char*>> {
protected:
    std::string film() {
        const auto& [dvd, container] = GetParam();
        constexpr int kPictures = 144;
        const std::string y4m = directory / "film.y4m", progressive = directory / "film.m2v";
        // Interlaced sequences have whole pairs of macroblock rows.
        write_y4m(y4m, {.width = 64, .height = 64, .rate = {24, 1}}, kPictures);
        encode(y4m, progressive, {"--no-captions", "--set", "b frames=0", "--set", "gop size=12"});
        const SoftTelecine telecine(read_file(progressive), dvd, programme[0], programme[1]);
        const std::string stream = file("telecine.m2v", telecine.stream());
        if (container == std::string(".m2v")) return stream;
        const std::string in = directory / (std::string("telecine") + container);
        put_into_container(stream, in);
        return in;
    }

    std::vector<Found> on_their_frames() const {
        std::vector<Found> pairs;
        for (int frame = 0; frame < static_cast<int>(programme[0].size()); frame++)
            for (int field = 0; field < 2; field++)
                if (const Word word = programme[field][static_cast<size_t>(frame)];
                    !gsve::captions::is_null(word))
                    pairs.push_back({frame, field, word});
        return pairs;
    }

    const std::vector<Word> programme[2] = {pop_on_pairs(0, 5), pop_on_pairs(1, 5)};
};

TEST_P(TelecineCarryOver, BringsEachPairToItsFrame) {
    const std::string in = film(), out = directory / "out.h264";
    const json account = encode(in, out);
    const ReadBack found = read_back(out);
    EXPECT_EQ(found.pictures, 180);
    EXPECT_EQ(found.pairs, on_their_frames());
    EXPECT_EQ(account["delayed_pairs"], 0);
    EXPECT_EQ(account["repetitions_left_out"], 0);
}

TEST_P(TelecineCarryOver, LeavesNoGapBetweenACommandAndItsRepetitionAtOtherRates) {
    const std::string in = film(), out = directory / "out.h264";
    const std::vector<Found> asked = on_their_frames();
    struct {
        std::vector<std::string> options;
        int step;
    } const cases[] = {{{"--rate", "24000/1001"}, 1},
                       {{"--rate", "25"}, 1},
                       {{"--rate", "60000/1001"}, 2},
                       {{"--set", "frame rate limit=15"}, 1}};
    for (const auto& [options, step] : cases) {
        encode(in, out, options);
        const ReadBack found = read_back(out);
        for (int field = 0; field < 2; field++) {
            // At half the rate, the last ones no longer fit.
            std::vector<Word> wanted = acted_upon(asked, field);
            const std::vector<Word> got = acted_upon(found.pairs, field, step);
            if (options[1] == "frame rate limit=15") wanted.resize(std::min(wanted.size(), got.size()));
            EXPECT_EQ(got, wanted) << options[1] << " field " << field + 1;
            EXPECT_GT(got.size(), 40U);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Grid, TelecineCarryOver,
                         testing::Combine(testing::Bool(), testing::Values(".m2v", ".ts", ".mkv")));

/// Elementary streams can be put end to end: the first twelve seconds have no captions, the next have.
class LateCaptions : public CaptionCommand {
protected:
    std::string film(const std::string& extension, AVRational rate) {
        const std::string plain = directory / ("plain" + extension),
                          captioned = directory / ("captioned" + extension);
        encode(y4m(rate, static_cast<unsigned>(12 * av_q2d(rate))), plain, {"--no-captions"});
        encode(y4m(rate, 50), captioned, {"--captions", file("a.scc", scc(pairs))});
        return file("in" + extension, read_file(plain) + read_file(captioned));
    }

    const std::vector<Asked> pairs = text_pairs(0, 2, 8, 3);
};

TEST_F(LateCaptions, AreCarriedOverFromAFile) {
    for (const auto& [extension, rate] : {std::pair(".m2v", k25), std::pair(".h264", k50)}) {
        const std::string in = film(extension, rate), out = directory / "out.m2v";
        EXPECT_EQ(encode(in, out)["carried"]["eia608_pairs"], pairs.size()) << extension;
        EXPECT_EQ(read_back(out).pairs, read_back(in).pairs) << extension;
        EXPECT_EQ(read_back(out).pairs.size(), pairs.size()) << extension;
    }
}

TEST_F(LateCaptions, AreReportedWhereTheInputCanBeReadOnlyOnce) {
    const std::string in = film(".m2v", k25), pipe = directory / "pipe", out = directory / "out.m2v";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const std::string feed = fmt::format("cat {} > {} &", in, pipe);

    ASSERT_EQ(std::system(feed.c_str()), 0);
    EXPECT_EQ(encode(pipe, out)["without_form"]["eia608_pairs"], 8);
    EXPECT_THAT(diagnostics, HasSubstr("8 byte pairs and 0 CEA-708 constructs of the input are not in"));
    EXPECT_TRUE(read_back(out).pairs.empty());

    ASSERT_EQ(std::system(feed.c_str()), 0);
    EXPECT_EQ(encode(pipe, out, {"--set", "enable cea-708=1"})["carried"]["eia608_pairs"], 8);
    EXPECT_EQ(read_back(out).pairs, read_back(in).pairs);
}

TEST_F(CaptionCommand, PutsNoCaptionDataIntoTheStreamOfAnInputWithoutAny) {
    const std::string in = directory / "in.h264", out = directory / "out.m2v";
    encode(y4m(k25, 200), in);
    EXPECT_EQ(encode(in, out)["source"], "none");
    EXPECT_TRUE(ends_of(read_file(out), kCcData).empty());
}

TEST_F(CaptionCommand, BringsBothFieldsBackToTheirPicturesWhenTheRateIsDoubledAndHalved) {
    const auto field_1 = text_pairs(0, 3, 20, 3), field_2 = text_pairs(1, 4, 14, 4);
    struct {
        AVRational slow;
        std::vector<std::string> doubled, halved;
    } const cases[] = {
        {k29_97, {"--rate", "60000/1001"}, {"--set", "frame rate limit=30"}},
        {k29_97, {"--rate", "60000/1001"}, {"--rate", "30000/1001"}},
        {k25, {"--rate", "50"}, {"--set", "frame rate limit=25"}},
        {k25, {"--rate", "50"}, {"--rate", "25"}},
    };
    for (const auto& [slow, doubled, halved] : cases)
        for (const char* extension : {".m2v", ".ts"}) {
            const std::string in = directory / (std::string("in") + extension),
                              fast = directory / (std::string("fast") + extension),
                              out = directory / (std::string("out") + extension);
            encode(y4m(slow, 70), in, two_files(field_1, field_2) + kNoCc);
            encode(in, fast, doubled + kNoCc);
            const json account = encode(fast, out, halved + kNoCc);
            EXPECT_EQ(read_back(out).pairs, read_back(in).pairs) << halved[1] << extension;
            EXPECT_EQ(account["largest_delay"], 0);
            EXPECT_EQ(account["delayed_pairs"], 0);
        }
}

/// Subtitles of 38 characters, `count` of them from 2 s on, without a pause between.
std::string dense_srt(int count, double seconds) {
    const auto time = [](double at) {
        const auto ms = std::lround(at * 1000);
        return fmt::format("{:02}:{:02}:{:02},{:03}", ms / 3600000, ms / 60000 % 60, ms / 1000 % 60,
                           ms % 1000);
    };
    std::string text;
    for (int n = 0; n < count; n++)
        text += fmt::format("{}\n{} --> {}\nThe caption number {:02}\nand its other row.\n\n", n + 1,
                            time(2 + n * seconds), time(2 + (n + 1) * seconds), n);
    return text;
}

std::vector<double> begins_of_captions(const std::vector<Found>& pairs, AVRational rate) {
    gsve::captions::Eia608Decoder decoder({rate.num, rate.den});
    for (const Found& pair : pairs) decoder.feed(pair.picture, pair.field, pair.word);
    std::vector<double> begins;
    for (const auto& caption : decoder.finish(100000))
        begins.push_back(static_cast<double>(caption.begin) / av_q2d(rate));
    return begins;
}

TEST_F(CaptionCommand, ShowsPopOnCaptionsOnTheirPicturesAtALowerRate) {
    const std::string in = directory / "in.m2v", out = directory / "out.h264";
    constexpr AVRational k30 = {30, 1}, k24 = {24, 1};
    const json first = encode(
        y4m(k30, 460), in, std::vector<std::string>{"--captions", file("a.srt", dense_srt(8, 1.6))} + kNoCc);
    ASSERT_EQ(first["largest_delay"], 0);
    const auto expected_begins = begins_of_captions(read_back(in).pairs, k30);
    ASSERT_EQ(expected_begins.size(), 8U);

    const json account = encode(in, out, {"--rate", "24"});
    const auto begins = begins_of_captions(read_back(out).pairs, k24);
    ASSERT_EQ(begins.size(), 8U);
    for (size_t n = 0; n < begins.size(); n++) {
        EXPECT_GE(begins[n], expected_begins[n] - kFilmPictureBeforeItsLastField) << n;
        EXPECT_LT(begins[n], expected_begins[n] + 1 / 24.0) << n;
    }
    EXPECT_EQ(account["largest_delay"], 0);
}

TEST_F(CaptionCommand, TellsTheLargestDelayOfAFilesPairs) {
    // Text that is seen as it arrives, 60 pairs without a pause: at 25 pictures/s the pair of frame f is due
    // on picture ceil(f * 25 / 29.97), and goes on picture f.
    const auto pairs = text_pairs(0, 0, 60, 1);
    const std::string out = directory / "out.m2v";
    const json account = encode(y4m(k25, 62), out, {"--captions", file("a.scc", scc(pairs))});
    EXPECT_EQ(words_of(read_back(out).pairs, 0), words_of(pairs));
    EXPECT_DOUBLE_EQ(account["largest_delay"], 9 / 25.0);  // frame 59 is due on picture 50
    EXPECT_EQ(account["delayed_pairs"], 53);               // from frame 7 on
    EXPECT_FALSE(account["warnings"].contains("delayed_pairs"));
}

TEST_F(CaptionCommand, TellsTheDelayOfALateCue) {
    // A row of 32 characters and a half takes more than a second to load.
    const std::string srt = file("a.srt",
                                 "1\n00:00:00,200 --> 00:00:02,500\nThirty-two letters, all in a row\n"
                                 "and then this.\n");
    const json account = encode(y4m(k25, 75), directory / "out.m2v", {"--captions", srt});
    ASSERT_EQ(account["warnings"]["late_cues"], 1);
    const auto begins = begins_of_captions(read_back(directory / "out.m2v").pairs, k25);
    ASSERT_EQ(begins.size(), 1U);
    EXPECT_NEAR(account["largest_delay"], begins[0] - 0.2, 1e-9);
    EXPECT_GT(account["largest_delay"], 0.5);
}

TEST_F(CaptionCommand, NamesTheCaptionsThatTheEndOfTheStreamCutsOff) {
    const std::string srt = file("a.srt",
                                 "1\n00:00:01,000 --> 00:00:02,000\nIn time\n\n"
                                 "2\n00:00:02,400 --> 00:00:03,000\nMuch too long a text for the rest\n\n"
                                 "3\n00:01:12,400 --> 00:01:14,000\nBeyond\n");
    const json account = encode(y4m(k25, 61), directory / "out.h264", {"--captions", srt});
    EXPECT_THAT(diagnostics, HasSubstr("captions: the caption at 00:01:12.40 comes after the last picture: "
                                       "CC1 \"Beyond\"\n"));
    EXPECT_THAT(diagnostics, Not(HasSubstr("In time")));
    ASSERT_EQ(account["lost"].size(), 1U);
    EXPECT_EQ(account["lost"][0]["text"], "Beyond");
    EXPECT_EQ(account["lost"][0]["channel"], "CC1");
    EXPECT_DOUBLE_EQ(account["lost"][0]["time"], 72.4);

    // Loading begins with the first picture, and ends after the last one.
    const std::string early = file("b.srt", "1\n00:00:00,400 --> 00:00:03,000\nMuch too long a text\n");
    encode(y4m(k25, 12), directory / "out.h264", {"--captions", early});
    EXPECT_THAT(diagnostics, HasSubstr("captions: the caption at 00:00:00.40 did not fit before the last "
                                       "picture: CC1 \"Much too long a text\"\n"));

    // Roll-up text is seen as it comes.
    std::vector<Asked> roll_up;
    for (const int word : {0x9425, 0x9425, 0x94ad, 0x94ad, 0x9470, 0x9470})
        roll_up.push_back({static_cast<int>(roll_up.size()), 0, static_cast<Word>(word)});
    for (const Asked& pair : text_pairs(0, 6, 6, 1)) roll_up.push_back(pair);
    encode(y4m(k29_97, 9), directory / "out.h264", {"--captions", file("d.scc", scc(roll_up))});
    EXPECT_THAT(diagnostics,
                HasSubstr("captions: the caption at 00:00:00.20 is cut short by the last picture: "
                          "CC1 \"AaAbAcAdAeAf\"\n"));

    // What only takes the last caption away says nothing.
    const std::string last = file("c.srt", "1\n00:00:01,000 --> 00:00:09,000\nTo the end\n");
    EXPECT_EQ(encode(y4m(k25, 61), directory / "out.h264", {"--captions", last})["lost"].size(), 0U);
    EXPECT_THAT(diagnostics, HasSubstr("and no caption is lost with them"));
}

TEST_F(CaptionCommand, CountsWhatIsLostInACodecThatHoldsPicturesForTooLong) {
    const auto pairs = text_pairs(0, 2, 30, 3);
    const std::string out = directory / "out.h264";
    const json account = encode(
        y4m(k29_97, 120), out,
        {"--captions", file("a.scc", scc(pairs)), "--set", "h.264 preset=placebo", "--set", "b frames=16"});
    const size_t arrived = read_back(out).pairs.size();
    EXPECT_LT(arrived, pairs.size()) << "nothing is lost here";
    EXPECT_EQ(account["carried"]["eia608_pairs"], arrived);
    EXPECT_EQ(account["expired"]["eia608_pairs"], pairs.size() - arrived);
    EXPECT_THAT(diagnostics, HasSubstr("choose a faster \"h.264 preset\""));
}

TEST_F(CaptionCommand, CarriesOverCea708) {
    // One DTVCC packet for service 1 with "Hi", spread over two pictures, the first with the captions' rest.
    const std::string mcc =
        "File Format=MacCaption_MCC V1.0\nUUID=00000000-0000-0000-0000-000000000000\n"
        "Time Code Rate=30\n\n";
    const std::vector<uint8_t> cdp_head = {0x96, 0x69, 0,    0x4F, 0x43, 0,    1,    0x72, 0xE2, 0xFC, 0x80,
                                           0x80, 0xFF, 0x02, 0x22, 0xFE, 0x48, 0x69, 0x74, 0,    1};
    std::vector<uint8_t> cdp = cdp_head;
    cdp[8] = 0xE3;
    cdp.push_back(0);
    cdp[2] = static_cast<uint8_t>(cdp.size());
    unsigned sum = 0;
    for (const uint8_t byte : cdp) sum += byte;
    cdp.back() = static_cast<uint8_t>(256 - sum % 256);
    std::string hex = fmt::format("6101{:02X}", cdp.size());
    for (const uint8_t byte : cdp) hex += fmt::format("{:02X}", byte);
    unsigned packet_sum = 0x61 + 0x01 + static_cast<unsigned>(cdp.size());
    for (const uint8_t byte : cdp) packet_sum += byte;
    hex += fmt::format("{:02X}", packet_sum % 256);

    const std::string in = directory / "in.m2v", out = directory / "out.h264";
    const json first =
        encode(y4m(k29_97, 20), in, {"--captions", file("a.mcc", mcc + "00:00:00:05\t" + hex + "\n")});
    EXPECT_EQ(first["carried"]["cea708_constructs"], 2);
    EXPECT_EQ(encode(in, out)["carried"]["cea708_constructs"], 2);
    EXPECT_THAT(read_back(out).constructs, ElementsAre(gsve::captions::Cea708Construct{0xFF, 0x02, 0x22},
                                                       gsve::captions::Cea708Construct{0xFE, 0x48, 0x69}));
}

TEST_F(CaptionCommand, LeavesCaptionsOutOnRequestAndForAFileInTheirPlace) {
    const auto old_pairs = text_pairs(0, 2, 8, 3), new_pairs = text_pairs(1, 2, 9, 3);
    const std::string in = directory / "in.ts", out = directory / "out.ts";
    encode(y4m(k25, 42), in, {"--captions", file("a.scc", scc(old_pairs))});

    const json none = encode(in, out, {"--no-captions"});
    EXPECT_EQ(none["source"], "none");
    EXPECT_TRUE(read_back(out).pairs.empty());

    encode(in, out, {"--captions", file("b.scc", scc(new_pairs)), "--captions-field", "2"});
    EXPECT_EQ(read_back(out).pairs, expected(new_pairs, k25));

    // Without a form they are lost, which is said.
    const json lost = encode(in, out, {"--codec", "h.264", "--set", "enable cea-708=0"});
    EXPECT_EQ(lost["without_form"]["eia608_pairs"], old_pairs.size());
    EXPECT_THAT(diagnostics, HasSubstr("captions: 8 byte pairs and 0 CEA-708 constructs of the input"));
}

TEST_F(CaptionCommand, SaysWhatComesAfterTheLastPicture) {
    const auto pairs = text_pairs(0, 10, 10, 2);  // frames 10 to 28
    const std::string out = directory / "out.m2v";
    const json account =
        encode(y4m(k29_97, 20), out, {"--captions", file("a.scc", scc(pairs)), "--set", "enable eia-608=1"});
    EXPECT_EQ(account["carried"]["eia608_pairs"], 5);
    EXPECT_EQ(account["left_over"], 5);
    EXPECT_THAT(diagnostics,
                HasSubstr("captions: 5 byte pairs and 0 CEA-708 constructs are not in the stream"));
    // "CC" user data always ends before the last picture, on which one of the five pairs lies.
    EXPECT_EQ(cc_pairs(read_file(out)), words_of({pairs.begin(), pairs.begin() + 4}));
    EXPECT_EQ(account["pairs_after_last_cc"], 1);
    EXPECT_THAT(diagnostics, HasSubstr("the last 1 byte pairs are not in the \"CC\" user data"));
}

class CaptionDrop : public CaptionCommand,
                    public testing::WithParamInterface<std::tuple<const char*, AVRational, int>> {};

TEST_P(CaptionDrop, KeepsTheWordsOfPicturesThatAreDroppedForTheBitRate) {
    const auto& [extension, rate, per_frame] = GetParam();
    const auto field_1 = text_pairs(0, 0, 12, 3), field_2 = text_pairs(1, 1, 12, 3);
    const std::string in = directory / "in.y4m", out = directory / (std::string("out") + extension);
    write_y4m(in, {.rate = rate}, 240);
    const ProgramResult result =
        run(std::vector<std::string>{"encode", in, out, "--report", "json"} + two_files(field_1, field_2) +
            kNoCc +
            std::vector<std::string>{"--set", "drop frame for bitrate limit=on", "--set", "bitrate=20000",
                                     "--set", "min bitrate=0", "--set", "h.264 preset=ultrafast", "--set",
                                     fmt::format("constant bitrate per frame={}", per_frame)});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err, Not(HasSubstr("BUG")));
    const json report = json::parse(result.out);
    ASSERT_GT(report["pictures"]["dropped"], 5);
    const ReadBack found = read_back(out);
    EXPECT_EQ(words_of(found.pairs, 0), words_of(field_1));
    EXPECT_EQ(words_of(found.pairs, 1), words_of(field_2));
    EXPECT_EQ(report["captions"]["left_over"], 0);
}

INSTANTIATE_TEST_SUITE_P(Grid, CaptionDrop,
                         testing::Values(std::tuple(".m2v", k29_97, 1), std::tuple(".m2v", k29_97, 0),
                                         std::tuple(".m2v", k59_94, 0), std::tuple(".h264", k59_94, 0)));

TEST_F(CaptionCommand, RefusesSettingsThatWouldLoseOrSwapCaptions) {
    const std::string captions = file("a.scc", scc(text_pairs(0, 2, 8, 3))), out = directory / "out.m2v";
    const std::vector<std::string> slow = {y4m(k25, 5), out,     "--captions",
                                           captions,    "--set", "enable eia-608=1"};
    const std::vector<std::string> fast = {y4m(k50, 6), out, "--captions", captions};
    const std::vector<std::string> drop = {"--set", "drop frame for bitrate limit=on"};
    struct {
        std::vector<std::string> arguments;
        const char* text;
    } const refused[] = {
        {slow + std::vector<std::string>{"--set", "eia-608 on p-frames=0", "--set", "gop size=64"},
         "would come only every"},
        {slow + drop + std::vector<std::string>{"--set", "constant bitrate per frame=0"}, "dropped pictures"},
        {fast + drop, "swap"},
    };
    for (const auto& [arguments, text] : refused) {
        const ProgramResult result = fail(arguments);
        EXPECT_EQ(result.status, 2);
        EXPECT_THAT(result.err, HasSubstr(text));
    }
    EXPECT_EQ(fail(slow + std::vector<std::string>{"--set", "gop size=64"}).status, 0);
}

TEST_F(CaptionCommand, SaysWhatIsWrongWithFilesAndOptions) {
    const std::string in = y4m(k25, 5), out = directory / "out.m2v", h265 = directory / "out.h265",
                      h264 = directory / "out.h264", good = file("good.scc", scc(text_pairs(0, 1, 1, 3)));
    const std::string bad_scc = file("bad.scc", "Scenarist_SCC V1.0\n\n00:00:01:00\t94zz\n");
    const std::string bad_srt = file("bad.srt", "1\n00:00:01,000 -> 00:00:02,000\nText\n");
    const std::string bad_mcc = file("bad.mcc",
                                     "File Format=MacCaption_MCC V1.0\nTime Code Rate=30\n"
                                     "00:00:00:00\t6101FF00\n");
    struct {
        std::vector<std::string> arguments;
        int status;
        std::string text;
    } const refused[] = {
        {{in, out, "--captions", bad_scc}, 1, "bad.scc:3: "},
        {{in, out, "--captions", bad_srt}, 1, "bad.srt:2: "},
        {{in, out, "--captions", bad_mcc}, 1, "bad.mcc:3: "},
        {{in, out, "--captions", in}, 1, "not a caption file by its name"},
        {{in, out, "--captions", directory / "none.scc"}, 2, "none.scc"},
        {{in, h264, "--scte20"}, 2, "--scte20 is for MPEG-2"},
        {{in, out, "--captions", good, "--no-captions"}, 2, "--no-captions"},
        {{in, out, "--captions", good, "--captions", good, "--captions", good}, 2, "two files"},
        {{in, out, "--captions", bad_mcc, "--captions-field", "2"}, 2, "both fields"},
        {{in, out, "--captions", good, "--captions-start", "99:00"}, 2, "99:00"},
        {{in, out, "--captions", good, "--set", "enable cea-708=0"}, 2, "are off"},
        {{in, h264, "--timecode", "01:00:00:00"}, 2, "--timecode: h.264 has no place for one"},
        {{in, out, "--timecode", "01:00:00:25"}, 2, "frames to 24"},
        {{in, out, "--timecode", "01:00:00;00"}, 2, "drop-frame"},
        {{in, out, "--timecode", "1:2"}, 2, "HH:MM:SS:FF"},
        {{in, out, "--timecode", "source"}, 2, "no time code"},
    };
    for (const auto& [arguments, status, text] : refused) {
        const ProgramResult result = fail(arguments);
        EXPECT_EQ(result.status, status) << text << "\n" << result.err;
        EXPECT_THAT(result.err, HasSubstr(text));
        EXPECT_FALSE(std::filesystem::exists(arguments[1])) << text;
    }
}

TEST_F(CaptionCommand, CountsWhatACaptionFileHadToChange) {
    const std::string srt = file("a.srt", "1\n00:00:01,000 --> 00:00:01,500\nA \xE6\x97\xA5 b\n");
    const json account = encode(y4m(k25, 45), directory / "out.m2v", {"--captions", srt});
    EXPECT_EQ(account["warnings"]["replaced_characters"], 1);
    EXPECT_THAT(diagnostics, HasSubstr("a.srt:"));
}

TEST_F(CaptionCommand, SendsThePairsAsScte20InTheSamePictures) {
    using gsve::captions::parse_scte20;
    const auto field_1 = text_pairs(0, 2, 9, 3), field_2 = text_pairs(1, 3, 8, 3);
    std::vector<Asked> all = field_1;
    all.insert(all.end(), field_2.begin(), field_2.end());
    const std::vector<std::string> only_scte20 =
        kNoCc + std::vector<std::string>{"--scte20", "--set", "enable cea-708=0"};
    for (const char interlacing : {'p', 't', 'b'}) {
        const std::string out = directory / "out.m2v";
        encode(y4m(k29_97, 33, interlacing), out, two_files(field_1, field_2) + only_scte20);
        EXPECT_EQ(read_back(out).pairs, expected(all, k29_97)) << interlacing;

        size_t constructs = 0;
        const std::string bytes = read_file(out);
        for (const size_t at : ends_of(bytes, kScte20)) {
            const auto* body = reinterpret_cast<const uint8_t*>(bytes.data()) + at;
            const auto parsed = parse_scte20({body, bytes.find(std::string{0, 0, 1}, at) - at});
            ASSERT_TRUE(parsed);
            constructs += parsed->size();
        }
        EXPECT_EQ(constructs, all.size()) << interlacing;
    }
}

class Timecodes : public CaptionCommand, public testing::WithParamInterface<int> {};

TEST_P(Timecodes, CountDropFramesAcrossTheMinuteAndTravelWithTheirPictures) {
    const std::string out = directory / "out.m2v";
    encode(y4m(k29_97, 40), out,
           {"--timecode", "00:00:59;20", "--set", "gop size=6", "--set",
            fmt::format("b frames={}", GetParam())});
    const ReadBack found = read_back(out);
    std::vector<std::string> wanted;
    int before = -1;
    for (const int intra : found.intra) {
        // An open GOP's header tells the time of the B-pictures in front of the I-picture, of which there are
        // fewer at the end of the film.
        const int picture = intra - std::min(GetParam(), intra - before - 1);
        before = intra;
        wanted.push_back(picture < 10
                             ? fmt::format("00:00:59;{:02}", 20 + picture)
                             : fmt::format("00:01:{:02};{:02}", (picture - 8) / 30, (picture - 8) % 30));
    }
    ASSERT_GT(found.intra.size(), 3U);
    EXPECT_EQ(gop_timecodes(read_file(out)), wanted);
}

INSTANTIATE_TEST_SUITE_P(BFrames, Timecodes, testing::Values(0, 1, 2, 5));

TEST_F(CaptionCommand, CountsTimecodesAtTheEncodedRateAndCarriesTheInputs) {
    const std::vector<std::string> gops = {"--set", "gop size=10", "--set", "b frames=0"};
    const std::string fast = directory / "fast.m2v", slow = directory / "slow.m2v",
                      again = directory / "2.m2v";
    encode(y4m(k50, 41), fast, gops + std::vector<std::string>{"--timecode", "10:00:00:40"});
    EXPECT_THAT(read_back(fast).timecodes,
                ElementsAre("10:00:00:40", "10:00:01:00", "10:00:01:10", "10:00:01:20", "10:00:01:30"));
    encode(fast, slow,
           gops + std::vector<std::string>{"--timecode", "source", "--set", "frame rate limit=25"});
    EXPECT_THAT(read_back(slow).timecodes, ElementsAre("10:00:00:20", "10:00:01:05", "10:00:01:15"));
    encode(slow, again, gops + std::vector<std::string>{"--timecode", "source"});
    EXPECT_EQ(read_back(again).timecodes, read_back(slow).timecodes);
}

}  // namespace
