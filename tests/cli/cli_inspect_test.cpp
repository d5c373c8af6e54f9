// gsve inspect: what went into a stream is what it tells.

#include <algorithm>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

extern "C" {
#include <libavcodec/version.h>
}

#include "captions/scc.h"
#include "support/caption_blocks.h"
#include "support/captioned_stream.h"
#include "support/cues.h"
#include "support/declared_buffers.h"
#include "support/program.h"

namespace gsve::test {
namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kCaptionedCodecs[] = {"mpeg-2", "h.264"};

std::string extension(const std::string& codec) {
    return codec == "mpeg-2" ? ".m2v" : codec == "h.264" ? ".h264" : ".h265";
}

void write_bytes(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

/// "CC1 30-54 A caption".
std::vector<std::string> lines_of(const json& captions) {
    std::vector<std::string> lines;
    for (const json& caption : captions) {
        std::string line = caption["service"].get<std::string>() + " " +
                           std::to_string(caption["begin"].get<int>()) + "-" +
                           std::to_string(caption["end"].get<int>());
        for (const std::string row : caption["rows"]) line += " " + row;
        lines.push_back(line);
    }
    return lines;
}

class InspectCommand : public testing::Test {
protected:
    std::string write(const CaptionedStreamOptions& options) {
        const std::string path = directory / ("in" + extension(options.codec));
        CaptionedStream(options).write_to(path);
        return path;
    }

    static json inspect(const std::string& file, const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments = {"inspect", file, "--json"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const ProgramResult result = run(arguments);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.err, "");
        return json::parse(result.out);
    }

    ScratchDirectory directory;
};

TEST_F(InspectCommand, DescribesTheStreamOfEveryCodec) {
    for (const char* codec : {"mpeg-2", "h.264", "h.265"}) {
        SCOPED_TRACE(codec);
        CaptionedStreamOptions options;
        options.codec = codec;
        options.pictures = 60;
        const std::string path = directory / ("in" + extension(codec));
        const CaptionedStream stream(options);
        stream.write_to(path);

        const json report = inspect(path, {"--pictures"});
        EXPECT_EQ(report["width"], 176);
        EXPECT_EQ(report["height"], 144);
        EXPECT_EQ(report["frame_rate"], "30000/1001");
        EXPECT_EQ(report["field_order"], "progressive");
        EXPECT_EQ(report["pictures"]["total"], 60);
        EXPECT_EQ(report["pictures"]["damaged"], 0);
        EXPECT_EQ(report["pictures"]["lost"], 0);
        EXPECT_GT(report["pictures"]["types"]["B"], 10);

        const json& pictures = report["picture_list"];
        ASSERT_EQ(pictures.size(), 60u);
        for (size_t n = 0; n < pictures.size(); n++) {
            const size_t unit = pictures[n]["unit"];
            ASSERT_LT(unit, stream.units().size());
            EXPECT_EQ(stream.units()[unit].pts, static_cast<int64_t>(n));
            EXPECT_NEAR(pictures[n]["seconds"].get<double>(), n * 1001 / 30000.0, 1e-6);
        }
        std::vector<int64_t> key_pictures, gop_pictures;
        for (const Unit& unit : stream.units())
            if (unit.key) key_pictures.push_back(unit.pts);
        size_t length = 0;
        for (const json& gop : report["gops"]) {
            gop_pictures.push_back(gop["picture"]);
            length += gop["length"].get<size_t>();
            EXPECT_EQ(gop["types"].get<std::string>()[0], 'I');
        }
        EXPECT_EQ(gop_pictures, key_pictures);
        EXPECT_EQ(length, 60u);
        EXPECT_EQ(report["gops"][0]["closed"], true);
    }
}

TEST_F(InspectCommand, TellsInterlacedStreamsApart) {
    CaptionedStreamOptions options;
    options.interlaced = true;
    options.pictures = 30;
    EXPECT_EQ(inspect(write(options))["field_order"], "top field first");
}

TEST_F(InspectCommand, TellsOpenFromClosedGops) {
    for (const char* codec : {"mpeg-2", "h.264"})
        for (const bool closed : {false, true}) {
            SCOPED_TRACE(std::string(codec) + (closed ? " closed" : " open"));
            CaptionedStreamOptions options;
            options.codec = codec;
            options.settings = {{"closed gop", closed ? "1" : "0"}};
            const json report = inspect(write(options));
            ASSERT_GE(report["gops"].size(), 4u);
            EXPECT_EQ(report["gops"][2]["closed"], closed);
        }
}

TEST_F(InspectCommand, ShowsTheTimeCodesOfGopHeaders) {
    CaptionedStreamOptions options;
    options.timecode = captions::parse_timecode("00:59:58;10", captions::kRate29_97);
    const std::string path = directory / "in.m2v";
    const CaptionedStream stream(options);
    stream.write_to(path);
    const captions::TimecodeCounter counter(*options.timecode, captions::kRate29_97);
    const json report = inspect(path);
    size_t gop = 0;
    for (size_t i = 0; i < stream.undrained(); i++) {
        if (!stream.units()[i].key) continue;
        const json& shown = report["gops"][gop++];
        EXPECT_EQ(shown["timecode"], captions::format_timecode(counter.at(stream.units()[i].pts)));
        EXPECT_EQ(shown["drop_frame"], true);
    }
    EXPECT_GE(gop, 5u);
    EXPECT_THAT(run({"inspect", path}).out, HasSubstr("time codes 00:59:58;10 to "));
}

TEST_F(InspectCommand, ShowsTheCaptionsOfAllFourChannels) {
    for (const char* codec : kCaptionedCodecs) {
        SCOPED_TRACE(codec);
        CaptionedStreamOptions options;
        options.codec = codec;
        options.pictures = 140;
        const auto one = [](int field) {
            return pop_on({cue(1000, 1500, field == 0 ? "In field one" : "In field two")}, field);
        };
        const captions::Schedule first = captions::merge(one(0), one(1));
        options.schedule = captions::merge(first, in_second_channel(later(first, 50)));
        const json report = inspect(write(options));
        ASSERT_EQ(report["line21"].size(), 1u);
        const json& a53 = report["line21"][0];
        EXPECT_EQ(a53["carriage"], "A/53");
        EXPECT_EQ(a53["where"], std::string(codec) == "mpeg-2" ? "picture user data" : "SEI");
        EXPECT_EQ(a53["services"], json({"CC1", "CC2", "CC3", "CC4"}));
        EXPECT_EQ(a53["byte_pairs"], options.schedule.eia608.size());
        EXPECT_EQ(a53["parity_errors"], 0);
        EXPECT_THAT(lines_of(a53["captions"]),
                    testing::UnorderedElementsAre("CC1 30-45 In field one", "CC3 30-45 In field two",
                                                  "CC2 80-95 In field one", "CC4 80-95 In field two"));
        EXPECT_NEAR(a53["captions"][0]["begin_seconds"].get<double>(), 1.001, 1e-6);
    }
}

TEST_F(InspectCommand, ShowsRollUpCaptionsRowByRow) {
    CaptionedStreamOptions options;
    options.schedule = roll_up({{10, "FIRST ROW"}, {30, "SECOND ROW"}, {50, "THIRD ROW"}});
    const json captions = inspect(write(options))["line21"][0]["captions"];
    ASSERT_EQ(captions.size(), 3u);
    // A row is seen from its first characters, after the four control pairs, and leaves at the second
    // carriage return after its own, or with the stream.
    EXPECT_THAT(lines_of(captions),
                ElementsAre("CC1 14-52 FIRST ROW", "CC1 34-100 SECOND ROW", "CC1 54-100 THIRD ROW"));
    EXPECT_EQ(captions[0]["mode"], "roll-up");
}

TEST_F(InspectCommand, ShowsTextServicesAndExtendedData) {
    for (const char* codec : kCaptionedCodecs) {
        SCOPED_TRACE(codec);
        CaptionedStreamOptions options;
        options.codec = codec;
        const auto put = [&](int64_t frame, uint8_t field, std::initializer_list<captions::Word> words) {
            for (const captions::Word word : words)
                options.schedule.eia608.push_back({frame++, field, captions::with_parity(word)});
        };
        put(10, 0, {0x142A, 0x142A, 0x4E65, 0x7773});                  // restart T1: "News"
        put(20, 1, {0x0101, 0x4142, 0x0F00, 0x1D2B, 0x1D2B, 0x4869});  // extended data; resume T4: "Hi"
        const std::string path = write(options);
        const json a53 = inspect(path)["line21"][0];
        EXPECT_EQ(a53["services"], json({"T1", "T4", "XDS"}));
        EXPECT_TRUE(a53["captions"].empty());
        ASSERT_EQ(a53["texts"].size(), 2u);
        EXPECT_EQ(a53["texts"][0]["service"], "T1");
        EXPECT_EQ(a53["texts"][0]["begin"], 12);
        EXPECT_EQ(a53["texts"][0]["text"], "News");
        EXPECT_EQ(a53["texts"][1]["service"], "T4");
        EXPECT_EQ(a53["texts"][1]["text"], "Hi");
        const std::string text = run({"inspect", path}).out;
        EXPECT_THAT(text, HasSubstr(": T1 T4 XDS; "));
        EXPECT_THAT(text, HasSubstr("T4  00:00:00.834  picture 25\n    Hi\n"));
    }
}

TEST_F(InspectCommand, ShowsCea708Services) {
    for (const char* codec : kCaptionedCodecs) {
        SCOPED_TRACE(codec);
        CaptionedStreamOptions options;
        options.codec = codec;
        options.schedule.cea708 = {{20, service_packet(1, 0, "Primary")},
                                   {40, service_packet(2, 1, "Second")}};
        const json cea708 = inspect(write(options))["cea708"];
        EXPECT_EQ(cea708["services"], json({1, 2}));
        EXPECT_EQ(cea708["damaged_packets"], 0);
        ASSERT_EQ(cea708["texts"].size(), 2u);
        EXPECT_EQ(cea708["texts"][0]["text"], "Primary");
        EXPECT_EQ(cea708["texts"][0]["begin"], 20);
        EXPECT_EQ(cea708["texts"][1]["service"], 2);
    }
}

TEST_F(InspectCommand, TellsTheCarriagesOfMpeg2Apart) {
    CaptionedStreamOptions options;
    options.schedule = captions::merge(pop_on({cue(1000, 1500, "Three ways")}, 0),
                                       pop_on({cue(1200, 1900, "to carry words")}, 1));
    options.interlaced = true;
    options.scte20 = true;
    options.settings = {{"enable eia-608", "1"}};
    const std::string path = write(options);
    const json line21 = inspect(path)["line21"];
    ASSERT_EQ(line21.size(), 3u);
    EXPECT_EQ(line21[0]["carriage"], "A/53");
    EXPECT_EQ(line21[1]["carriage"], "SCTE-20");
    EXPECT_EQ(line21[2]["carriage"], "CC");
    for (const json& carriage : line21) {
        SCOPED_TRACE(carriage["carriage"]);
        EXPECT_EQ(carriage["byte_pairs"], options.schedule.eia608.size());
        EXPECT_THAT(lines_of(carriage["captions"]),
                    ElementsAre("CC1 30-45 Three ways", "CC3 36-57 to carry words"));
    }
    EXPECT_THAT(run({"inspect", path}).out, HasSubstr("same captions as A/53"));
}

TEST_F(InspectCommand, WritesTheBytePairsAsScc) {
    for (const char* codec : kCaptionedCodecs)
        for (const int field : {0, 1}) {
            SCOPED_TRACE(std::string(codec) + " field " + std::to_string(field + 1));
            CaptionedStreamOptions options;
            options.codec = codec;
            options.schedule =
                captions::merge(pop_on({cue(1000, 1500, "Written"), cue(1600, 2200, "twice")}, 0),
                                pop_on({cue(1100, 1900, "In field two")}, 1));
            const std::string scc = directory / "out.scc";
            inspect(write(options), {"-y", "--scc", scc, "--field", std::to_string(field + 1)});
            captions::Report report;
            captions::SccReadOptions read;
            read.field = field;
            std::vector<captions::Eia608Event> expected;
            for (const captions::Eia608Event& event : options.schedule.eia608)
                if (event.field == field)
                    expected.push_back({event.frame, event.field, captions::with_parity(event.word)});
            EXPECT_EQ(captions::read_scc(scc, read, report).eia608, expected);
            EXPECT_TRUE(report.empty());
        }
}

TEST_F(InspectCommand, FindsCaptionsInH265SeiMessages) {
    CaptionedStreamOptions options;
    options.codec = "h.265";
    const captions::Schedule schedule = pop_on({cue(1000, 1500, "In H.265")}, 0);
    const CaptionedStream stream(options);
    std::string bytes;
    for (const Unit& unit : stream.units()) {
        // A prefix SEI in front of the first slice segment, the NAL unit types 0 to 31.
        size_t slice = 0;
        while (slice + 3 < unit.bytes.size() &&
               !(unit.bytes[slice] == 0 && unit.bytes[slice + 1] == 0 && unit.bytes[slice + 2] == 1 &&
                 unit.bytes[slice + 3] >> 1 < 32))
            slice++;
        Captions words;
        for (const captions::Eia608Event& event : schedule.eia608)
            if (event.frame == unit.pts) words.field1 = event.word;
        Bytes sei = from_hex("00 00 01 4E 01");
        int zeros = 0;
        for (const uint8_t byte : cc_sei({}, static_cast<uint64_t>(unit.pts), words)) {
            if (zeros == 2 && byte <= 3) {
                sei.push_back(3);
                zeros = 0;
            }
            zeros = byte == 0 ? zeros + 1 : 0;
            sei.push_back(byte);
        }
        Bytes with_sei = unit.bytes;
        with_sei.insert(with_sei.begin() + static_cast<ptrdiff_t>(slice), sei.begin(), sei.end());
        bytes.append(with_sei.begin(), with_sei.end());
    }
    const std::string path = directory / "in.h265";
    write_bytes(path, bytes);
    const json report = inspect(path);
    ASSERT_EQ(report["line21"].size(), 1u);
    EXPECT_EQ(report["line21"][0]["pictures"], 100);
    EXPECT_EQ(report["line21"][0]["gaps"], 0);
    EXPECT_THAT(lines_of(report["line21"][0]["captions"]), ElementsAre("CC1 30-45 In H.265"));
}

TEST_F(InspectCommand, CountsParityErrorsAndGaps) {
    CaptionedStreamOptions options;
    options.schedule = pop_on({cue(1000, 1500, "Parity")}, 0);
    const std::string path = write(options);
    std::string bytes = read_file(path);
    // "Pa" with odd parity is D0 61: another bit of it makes a parity error, and the block of another picture
    // under a foreign identifier makes a gap.
    const size_t pair = bytes.find("\xFC\xD0\x61");
    ASSERT_NE(pair, bytes.npos);
    bytes[pair + 2] = '\x60';
    size_t block = 0;
    for (int n = 0; n < 40; n++) block = bytes.find("GA94", block + 1);
    bytes[block] = 'X';
    write_bytes(path, bytes);
    const json a53 = inspect(path)["line21"][0];
    EXPECT_EQ(a53["parity_errors"], 1);
    EXPECT_EQ(a53["control_pairs_ignored"], 0);
    EXPECT_EQ(a53["characters_replaced"], 1);
    EXPECT_THAT(run({"inspect", path}).out,
                HasSubstr("1 parity error (no control pairs ignored, 1 character shown as blocks)"));
    EXPECT_EQ(a53["gaps"], 2) << "that one, and the drained pictures before the last one shown";
}

TEST_F(InspectCommand, SaysThatThereAreNoCaptions) {
    CaptionedStreamOptions options;
    options.settings = {{"enable cea-708", "0"}};
    options.pictures = 30;
    const std::string path = write(options);
    EXPECT_TRUE(inspect(path)["line21"].empty());
    EXPECT_THAT(run({"inspect", path}).out, HasSubstr("captions  none\n"));
    const std::string scc = directory / "none.scc";
    EXPECT_EQ(run({"inspect", path, "--scc", scc}).status, 0);
    EXPECT_EQ(read_file(scc), "Scenarist_SCC V1.0\n");
}

TEST_F(InspectCommand, EncodesDamagedPairsAsReceiversTakeThem) {
    // The first of the two "display now" pairs, 94 2F, and the first letter of the text lose a bit.
    CaptionedStreamOptions options;
    options.schedule = pop_on({cue(1000, 1500, "Parity")}, 0);
    const std::string path = write(options), out = directory / "out.m2v";
    std::string bytes = read_file(path);
    const size_t command = bytes.find("\xFC\x94\x2F"), letter = bytes.find("\xFC\xD0\x61");
    ASSERT_NE(command, bytes.npos);
    ASSERT_NE(letter, bytes.npos);
    bytes[command + 2] = '\x2E';
    bytes[letter + 1] = '\x50';
    write_bytes(path, bytes);

    const ProgramResult result = run({"encode", path, out, "--report", "json"});
    ASSERT_EQ(result.status, 0) << result.err;
    const json parity = json::parse(result.out)["captions"]["parity"];
    EXPECT_EQ(parity["control_pairs_dropped"], 1);
    EXPECT_EQ(parity["characters_replaced"], 1);
    EXPECT_THAT(
        run({"encode", path, out, "-y"}).out,
        HasSubstr("  parity    1 control pairs of the input dropped, 1 characters shown as blocks\n"));
    const json before = inspect(path)["line21"][0], after = inspect(out)["line21"][0];
    EXPECT_EQ(before["parity_errors"], 2);
    EXPECT_EQ(after["parity_errors"], 0);
    EXPECT_EQ(lines_of(after["captions"]), lines_of(before["captions"]))
        << "a receiver sees what it saw before";
    EXPECT_THAT(lines_of(after["captions"]).at(0), HasSubstr("\u2588arity"));
}

TEST_F(InspectCommand, OverwritesAnSccFileOnlyOnRequest) {
    const std::string path = write({}), scc = directory / "old.scc";
    std::ofstream(scc) << "old";
    const ProgramResult refused = run({"inspect", path, "--scc", scc});
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.err, HasSubstr(scc + " exists: give -y to overwrite it"));
    EXPECT_EQ(read_file(scc), "old");
    EXPECT_EQ(run({"inspect", path, "--scc", scc, "-y"}).status, 0);
    EXPECT_TRUE(read_file(scc).starts_with("Scenarist_SCC V1.0\n"));
}

/// Pictures that the decoder leaves out without an error. That of FFmpeg 9 does so with an H.265 picture
/// whose references are missing; older ones show it, and complain.
int left_out(const char* codec, const std::string& bytes, int shown) {
    if (LIBAVCODEC_VERSION_MAJOR < 62 || codec != std::string("h.265")) return 0;
    const std::string start_code("\0\0\1", 3);
    int coded = 0;
    for (size_t at = 0; (at = bytes.find(start_code, at)) != bytes.npos && at + 5 < bytes.size(); at += 3) {
        const bool slice = static_cast<uint8_t>(bytes[at + 3]) < 32 << 1;
        coded += slice && (bytes[at + 5] & 0x80);  // first_slice_segment_in_pic_flag
    }
    return coded - shown;
}

TEST_F(InspectCommand, ReportsDamagedPicturesOrFailsInOneLine) {
    for (const char* codec : {"mpeg-2", "h.264", "h.265"}) {
        CaptionedStreamOptions options;
        options.codec = codec;
        options.schedule = pop_on({cue(1000, 1500, "Damaged")}, 0);
        const std::string path = write(options);
        const std::string whole = read_file(path);
        unsigned seed = 1;
        for (int round = 0; round < 6; round++) {
            SCOPED_TRACE(std::string(codec) + " round " + std::to_string(round));
            std::string bytes = whole;
            for (int hit = 0; hit < 10 << round; hit++) {
                seed = seed * 1103515245u + 12345u;
                bytes[(seed >> 4) % bytes.size()] = static_cast<char>(seed >> 20);
            }
            if (round % 2) bytes.erase(0, bytes.size() / 5);
            write_bytes(path, bytes);
            const ProgramResult result = run({"inspect", path, "--json"});
            if (result.status == 0) {
                EXPECT_EQ(result.err, "");
                const json pictures = json::parse(result.out)["pictures"];
                // A few wrong bytes may decode to wrong pictures without a fault of syntax.
                if (round >= 2) {
                    EXPECT_GT(pictures["damaged"].get<int>() + pictures["lost"].get<int>() +
                                  left_out(codec, bytes, pictures["total"].get<int>()),
                              0);
                }
            } else {
                EXPECT_EQ(result.status, 1);
                EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
            }
        }
    }
}

TEST_F(InspectCommand, RefusesWhatIsNoVideo) {
    const std::string text = directory / "notes.txt";
    write_bytes(text, "These are notes, not pictures.\n");
    const std::string empty = directory / "empty.m2v";
    write_bytes(empty, "");
    // A second of silence: RIFF with 16-bit samples at 8 kHz.
    const std::string sound = directory / "sound.wav";
    Bytes wav = from_hex(
        "52494646 A43E0000 57415645 666D7420 10000000 0100 0100 401F0000 803E0000 0200 1000"
        "64617461 803E0000");
    wav.resize(wav.size() + 16000);
    write_bytes(sound, std::string(wav.begin(), wav.end()));
    for (const std::string& path : {text, empty, sound, directory / "missing.ts"}) {
        SCOPED_TRACE(path);
        const ProgramResult result = run({"inspect", path});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, testing::StartsWith("gsve: "));
        EXPECT_THAT(result.err, HasSubstr(path));
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
    EXPECT_THAT(run({"inspect", sound}).err, HasSubstr("has no video stream"));
}

TEST_F(InspectCommand, ChecksTheDecodersBuffer) {
    // 400 000 bits/s: pictures of 2000 bytes, each 80 ms before its time; then one with 10000 more.
    Bytes stream = mpeg2_sequence({});
    for (int n = 0; n < 10; n++) stream = stream + mpeg2_picture(2000);
    const std::string sound = directory / "sound.m2v", late = directory / "late.m2v";
    const std::string bytes(stream.begin(), stream.end());
    write_bytes(sound, bytes);
    write_bytes(late,
                bytes.substr(0, 22 + 4 * 2000) + std::string(10'000, '\0') + bytes.substr(22 + 4 * 2000));

    EXPECT_THAT(
        run({"inspect", sound, "--buffer"}).out,
        HasSubstr("\n  buffer    VBV by vbv_delay, 400000 bits/s into 81920 bits: 10 pictures, 0.080 s "
                  "initial delay, 16032 to 32208 bits; holds\n            VBV at the constant rate, "));
    EXPECT_THAT(run({"inspect", sound}).out, Not(HasSubstr("buffer")));
    EXPECT_FALSE(inspect(sound).contains("buffer"));
    EXPECT_EQ(inspect(sound, {"--buffer"})["buffer"]["holds"], true);

    const ProgramResult result = run({"inspect", late, "--buffer"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out,
                HasSubstr("1 picture arrives above the rate: unit 3 at 00:00:00.120, by 79996 bits\n"));
    EXPECT_THAT(result.out,
                HasSubstr("7 pictures arrive too late, by up to 63968 bits; the first is unit 3 at "
                          "00:00:00.120, by 63968 bits\n"));
    const json report = inspect(late, {"--buffer", "--pictures"})["buffer"];
    EXPECT_EQ(report["holds"], false);
    EXPECT_EQ(report["accounts"][1]["findings"][0]["unit"], 3);
    EXPECT_EQ(report["accounts"][1]["course"].size(), 10u);

    const std::string free = write({.codec = "h.264", .pictures = 30});
    EXPECT_THAT(run({"inspect", free, "--buffer"}).out, HasSubstr("\n  buffer    none declared\n"));
}

TEST_F(InspectCommand, RefusesWrongUsage) {
    const std::string path = directory / "x.m2v";
    write_bytes(path, "x");
    const std::vector<std::vector<std::string>> wrong = {{"inspect"},
                                                         {"inspect", path, "--field", "1"},
                                                         {"inspect", path, "--scc", "a.scc", "--field", "3"},
                                                         {"inspect", path, "--scc", path},
                                                         {"inspect", path, "--nonsense"}};
    for (const std::vector<std::string>& arguments : wrong) {
        const ProgramResult result = run(arguments);
        EXPECT_EQ(result.status, 2) << testing::PrintToString(arguments);
        EXPECT_EQ(result.out, "");
    }
    EXPECT_EQ(read_file(path), "x");
}

}  // namespace
}  // namespace gsve::test
