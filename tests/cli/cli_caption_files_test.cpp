// gsve encode with caption files as they occur, the caption forms that it chooses, and spliced time codes.

#include <bitset>
#include <fstream>
#include <utility>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "captions/timecode.h"
#include "support/clip.h"
#include "support/program.h"

namespace gsve::test {
namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr AVRational k25 = {25, 1}, k29_97 = {30000, 1001}, k50 = {50, 1};

class CaptionFileCommand : public testing::Test {
protected:
    std::string y4m(AVRational rate, unsigned pictures) {
        const std::string path = directory / fmt::format("in{}.y4m", pictures);
        write_y4m(path, {.width = 64, .height = 48, .rate = rate}, pictures);
        return path;
    }

    std::string file(const std::string& name, const std::string& text) {
        const std::string path = directory / name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }

    /// Runs gsve encode; it must succeed. Gives its account of the captions.
    json encode(const std::string& in, const std::string& out, std::vector<std::string> more = {}) {
        more.insert(more.begin(), {"encode", in, out, "-y", "--report", "json"});
        const ProgramResult result = run(more);
        EXPECT_EQ(result.status, 0) << result.err;
        diagnostics = result.err;
        return result.status == 0 ? json::parse(result.out)["captions"] : json();
    }

    static json inspect(const std::string& path) {
        const ProgramResult result = run({"inspect", path, "--json"});
        EXPECT_EQ(result.status, 0) << result.err;
        return result.status == 0 ? json::parse(result.out) : json();
    }

    /// "CC1 one/two" for each caption of a stream's preferred carriage.
    static std::vector<std::string> captions_of(const std::string& path) {
        std::vector<std::string> captions;
        const json line21 = inspect(path)["line21"];
        if (line21.empty()) return captions;
        for (const json& caption : line21[0]["captions"]) {
            std::string text = caption["service"];
            char separator = ' ';
            for (const std::string row : caption["rows"]) {
                text += std::exchange(separator, '/') + row;
            }
            captions.push_back(text);
        }
        return captions;
    }

    static std::vector<std::string> carriages_of(const std::string& path) {
        std::vector<std::string> carriages;
        const json report = inspect(path);
        for (const json& carriage : report["line21"]) carriages.push_back(carriage["carriage"]);
        return carriages;
    }

    ScratchDirectory directory;
    std::string diagnostics;
};

TEST_F(CaptionFileCommand, ShowsEveryGoodCueOfADamagedFileAndNamesTheOthers) {
    const std::string srt = file("wild.srt",
                                 "1\n00:00:01,000 --> 00:00:01,800\nFirst\n\nparagraph two\n\n"
                                 "2\n00:00:02,000 --> 00:00:02,000\nNever seen\n\n"
                                 "3\n00:00:02,0 --> 00:00:02,500\nBad clock\n\n"
                                 "4\n00:00:03,000 --> 00:00:03,500\nLast\n");
    const std::string out = directory / "out.ts";
    const json account = encode(y4m(k25, 100), out, {"--captions", srt});
    EXPECT_THAT(captions_of(out), ElementsAre("CC1 First/paragraph two", "CC1 Last"));
    EXPECT_EQ(account["warnings"], json({{"dropped_cues", 2}}));
    EXPECT_THAT(diagnostics, HasSubstr("wild.srt:8: "));
    EXPECT_THAT(diagnostics, HasSubstr("the cue \"Never seen\" is left out"));
    EXPECT_THAT(diagnostics, HasSubstr("wild.srt:12: "));
    EXPECT_THAT(diagnostics, HasSubstr("the cue \"Bad clock\" is left out"));
}

TEST_F(CaptionFileCommand, ReportsAFileWithoutCaptions) {
    for (const auto& [name, text] : {std::pair("a.srt", ""), std::pair("a.vtt", "WEBVTT\n"),
                                     std::pair("a.scc", "Scenarist_SCC V1.0\n")}) {
        const std::string path = file(name, text);
        const json account = encode(y4m(k25, 5), directory / "out.ts", {"--captions", path});
        EXPECT_EQ(account["warnings"], json({{"no_captions", 1}}));
        EXPECT_THAT(diagnostics, HasSubstr(path + ": the file has no captions\n"));
    }
}

TEST_F(CaptionFileCommand, SaysWhatIsWrongWithFilesAndStarts) {
    const std::string in = y4m(k25, 5), out = directory / "out.m2v";
    const std::string scc = file("a.scc", "Scenarist_SCC V1.0\n\n00:00:01;00\t9420\n");
    const std::string non_drop = file("n.scc", "Scenarist_SCC V1.0\n\n00:00:01:00\t9420\n");
    struct {
        std::vector<std::string> arguments;
        int status;
        const char* text;
    } const refused[] = {
        {{"--captions", scc, "--captions-start", "00:01:00;00"},
         2,
         "gsve: --captions-start: drop-frame counting leaves out"},
        {{"--captions", scc, "--captions-start", "00:01:00:01"}, 2, "begins with frame 02"},
        {{"--captions", non_drop, "--captions-start", "00:01:00;00"}, 2, "begins with frame 02"},
        {{"--captions", non_drop, "--captions-start", "00:00:00:30"}, 2, "frames to 29"},
        {{"--captions", file("bad.srt", "Not a subtitle file\n")}, 1, "bad.srt:1: expected a time line"},
        {{"--captions", file("bad.vtt", "WEBVTT\n\n00:02.000 --> 00:01.000\nx\n")},
         1,
         "no cue of the file can be shown"},
    };
    for (const auto& [arguments, status, text] : refused) {
        std::vector<std::string> all = {"encode", in, out};
        all.insert(all.end(), arguments.begin(), arguments.end());
        const ProgramResult result = run(all);
        EXPECT_EQ(result.status, status) << text;
        EXPECT_THAT(result.err, HasSubstr(text));
        // The encoder says how it was set up; the program itself has one thing to say.
        EXPECT_EQ(result.err.find("gsve: "), result.err.rfind("gsve: ")) << result.err;
        EXPECT_FALSE(std::filesystem::exists(out)) << text;
    }
}

TEST_F(CaptionFileCommand, TranslatesTheControlCodesOfAFileForTheOtherField) {
    // "Hi" as a pop-on caption in CC1, as transmitted in field 1.
    const std::string text = "Scenarist_SCC V1.0\n\n00:00:01:00\t9420 9420 9470 9470 c8e9 942f 942f\n";
    const std::string scc = file("cc1.scc", text), out = directory / "out.ts";
    const std::string second = directory / "field2.scc", again = directory / "again.ts";

    const json account = encode(y4m(k29_97, 60), out, {"--captions", scc, "--captions-field", "2"});
    EXPECT_THAT(captions_of(out), ElementsAre("CC3 Hi"));
    EXPECT_EQ(account["warnings"], json({{"other_field", 1}}));
    EXPECT_THAT(diagnostics, HasSubstr("cc1.scc: 4 control codes of field 1: sent as field 2's"));

    // What inspection writes are the codes as transmitted, which go back into field 2 as they are.
    EXPECT_EQ(run({"inspect", out, "--scc", second, "--field", "2"}).status, 0);
    EXPECT_THAT(read_file(second), HasSubstr("1520 1520 9470 9470 c8e9 152f 152f"));
    EXPECT_EQ(encode(y4m(k29_97, 60), again, {"--captions", second, "--captions-field", "2"})["warnings"],
              json::object());
    EXPECT_EQ(captions_of(again), captions_of(out));

    encode(y4m(k29_97, 60), out, {"--captions", scc, "--captions", scc});
    EXPECT_THAT(captions_of(out), testing::UnorderedElementsAre("CC1 Hi", "CC3 Hi"));
    EXPECT_THAT(diagnostics, HasSubstr("control codes of field 1: sent as field 2's"));
}

TEST_F(CaptionFileCommand, SaysThatRowsAreWrappedAndHowToKeepThem) {
    const std::string srt = file("rows.srt", "1\n00:00:01,000 --> 00:00:02,000\nA\nB\nC\n");
    const std::string out = directory / "out.ts";
    EXPECT_EQ(encode(y4m(k25, 60), out, {"--captions", srt})["warnings"], json({{"rewrapped_cues", 1}}));
    EXPECT_THAT(captions_of(out), ElementsAre("CC1 A B C"));
    EXPECT_THAT(diagnostics, HasSubstr("--caption-rows 3 keeps"));
    EXPECT_EQ(encode(y4m(k25, 60), out, {"--captions", srt, "--caption-rows", "3"})["warnings"],
              json::object());
    EXPECT_THAT(captions_of(out), ElementsAre("CC1 A/B/C"));
}

TEST_F(CaptionFileCommand, ShowsEveryGoodLineOfADamagedSccFileAndNamesTheOthers) {
    const std::string scc = file("wild.scc",
                                 "Scenarist_SCC V1.0\n\n00:00:02:00\t9420 9420 9470 9470 c232 942f 942f\n\n"
                                 "00:00:01:00\t9420 9420 9470 9470 c131 942f 942f\n\n"
                                 "00:00:03:31\t942c 942c\n\n00:00:03:00\t94zz 942c 942c\n");
    const std::string out = directory / "out.ts";
    const json account = encode(y4m(k29_97, 100), out, {"--captions", scc});
    EXPECT_THAT(captions_of(out), ElementsAre("CC1 A1", "CC1 B2"));
    EXPECT_EQ(account["warnings"], json({{"faulty_lines", 2}, {"time_codes", 1}}));
    EXPECT_THAT(diagnostics, HasSubstr("wild.scc:5: 1 line with an earlier time code"));
    EXPECT_THAT(diagnostics, HasSubstr("wild.scc:7: time code \"00:00:03:31\" is out of range"));
    EXPECT_THAT(diagnostics, HasSubstr("wild.scc:9: \"94zz\" is not a byte pair"));
}

TEST_F(CaptionFileCommand, StartsAnyFileAtTheTimeAsked) {
    const std::string in = y4m(k29_97, 100), out = directory / "out.ts";
    const std::string srt = file("hour.srt", "1\n01:00:01,000 --> 01:00:02,000\nHi\n");
    const std::string scc = file("midnight.scc",
                                 "Scenarist_SCC V1.0\n\n23:59:59;20\t9420 9420 9470 9470 c8e9 942f 942f\n\n"
                                 "00:00:00;10\t942c 942c\n");
    for (const auto& [path, start] :
         {std::pair(srt, "01:00:00"), std::pair(srt, "01:00:00.250"), std::pair(srt, "00:59:59;15"),
          std::pair(scc, "23:59:58;00"), std::pair(scc, "23:59:59:15")}) {
        EXPECT_EQ(encode(in, out, {"--captions", path, "--captions-start", start})["warnings"],
                  json::object());
        EXPECT_THAT(captions_of(out), ElementsAre("CC1 Hi")) << start;
    }
    EXPECT_EQ(encode(in, out, {"--captions", srt, "--captions-start", "01:00:02:00"})["warnings"],
              json({{"before_start", 1}}));
    EXPECT_THAT(diagnostics, HasSubstr("hour.srt: left out: 1 cue before the start of the video"));
}

TEST_F(CaptionFileCommand, RefusesRowsForFilesThatHaveTheirOwn) {
    const std::string in = y4m(k25, 5), out = directory / "out.ts";
    const std::string scc = file("a.scc", "Scenarist_SCC V1.0\n\n00:00:01:00\t9420\n");
    const std::string srt = file("a.srt", "1\n00:00:01,000 --> 00:00:02,000\nHi\n");
    const ProgramResult result = run({"encode", in, out, "--captions", scc, "--caption-rows", "2"});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, HasSubstr("--caption-rows is for SRT and WebVTT files"));
    EXPECT_FALSE(std::filesystem::exists(out));
    encode(in, out, {"--captions", scc, "--captions", srt, "--caption-rows", "2"});
}

struct FormCase {
    const char* name;
    std::vector<std::string> options;
    std::vector<std::string> carriages;
};

class CaptionForm : public CaptionFileCommand, public testing::WithParamInterface<FormCase> {};

TEST_P(CaptionForm, IsA53AloneUnlessAskedForOtherwise) {
    const std::string srt = file("a.srt", "1\n00:00:01,000 --> 00:00:01,500\nHi\n");
    const std::string captioned = directory / "captioned.m2v", out = directory / "out.m2v";
    encode(y4m(k29_97, 60), captioned, {"--captions", srt});
    encode(captioned, out, GetParam().options);
    EXPECT_EQ(carriages_of(out), GetParam().carriages);
    if (!GetParam().carriages.empty()) {
        EXPECT_THAT(captions_of(out), ElementsAre("CC1 Hi"));
    }
}

INSTANTIATE_TEST_SUITE_P(
    StandardDefinition, CaptionForm,
    testing::Values(FormCase{"by_default", {}, {"A/53"}},
                    FormCase{"asked_for_a53", {"--set", "enable cea-708=1"}, {"A/53"}},
                    FormCase{"asked_for_both", {"--set", "enable eia-608=1"}, {"A/53", "CC"}},
                    FormCase{"asked_for_automatic", {"--set", "enable eia-608=-1"}, {"A/53", "CC"}},
                    FormCase{
                        "asked_for_cc", {"--set", "enable cea-708=0", "--set", "enable eia-608=1"}, {"CC"}},
                    FormCase{"left_with_cc", {"--set", "enable cea-708=0"}, {"CC"}},
                    FormCase{"no_captions", {"--no-captions"}, {}}),
    [](const auto& info) { return info.param.name; });

TEST_F(CaptionFileCommand, SendsNoIdleCaptionsOnRequest) {
    for (const char* name : {"out.m2v", "out.h264"}) {
        const std::string out = directory / name, in = y4m(k29_97, 10);
        encode(in, out, {"--no-captions"});
        EXPECT_THAT(carriages_of(out), ElementsAre()) << name;
        encode(in, out, {"--no-captions", "--set", "enable cea-708=1"});
        EXPECT_THAT(carriages_of(out), ElementsAre("A/53")) << name;
    }
}

/// A recording and its place among others that follow each other.
struct Part {
    unsigned pictures;
    const char* timecode;
};

class SplicedTimecodes : public CaptionFileCommand, public testing::WithParamInterface<int> {
protected:
    std::string spliced(AVRational rate, const std::vector<Part>& parts) {
        std::string bytes;
        for (const Part& part : parts) {
            const std::string path = directory / "part.m2v";
            encode(y4m(rate, part.pictures), path,
                   {"--timecode", part.timecode, "--set", "gop size=6", "--set",
                    fmt::format("b frames={}", GetParam())});
            bytes += read_file(path);
        }
        return file("spliced.m2v", bytes);
    }

    /// Encodes on with the input's time codes. "picture time code" of the picture that each GOP begins with.
    std::vector<std::string> carried(const std::string& in, std::vector<std::string> options) {
        const std::string out = directory / "out.m2v";
        options.insert(options.end(), {"--timecode", "source", "--set", "gop size=5", "--set", "b frames=0"});
        encode(in, out, options);
        const json report = inspect(out);
        std::vector<std::string> timecodes;
        for (const json& gop : report["gops"])
            timecodes.push_back(
                fmt::format("{} {}", gop["picture"].get<int>(), gop["timecode"].get<std::string>()));
        return timecodes;
    }
};

// The cut makes the encoder begin a GOP.
TEST_P(SplicedTimecodes, AreCarriedAcrossTheSplice) {
    const std::string in = spliced(k29_97, {{31, "00:00:59;20"}, {34, "10:00:00;05"}, {20, "09:00:00:07"}});
    const std::vector<std::string> timecodes = carried(in, {});
    std::vector<std::string> expected;
    for (const std::string& timecode : timecodes) {
        const int picture = std::stoi(timecode);
        const auto code = [picture](const char* first, int begin) {
            const captions::Timecode timecode = captions::parse_timecode(first, captions::kRate29_97);
            const captions::TimecodeCounter counter(timecode, captions::kRate29_97);
            return fmt::format("{} {}", picture, captions::format_timecode(counter.at(picture - begin)));
        };
        expected.push_back(picture < 31   ? code("00:00:59;20", 0)
                           : picture < 65 ? code("10:00:00;05", 31)
                                          : code("09:00:00:07", 65));
    }
    EXPECT_EQ(timecodes, expected);
    EXPECT_THAT(timecodes, testing::Contains("31 10:00:00;05"));
    EXPECT_GE(timecodes.size(), 17U);
}

TEST_P(SplicedTimecodes, AreCarriedToHalfTheRate) {
    const std::string in = spliced(k50, {{31, "10:00:00:40"}, {33, "20:00:00:01"}});
    // Encoded picture 20 is picture 40 of the input, the tenth one after the splice: 20:00:00:10 at 50.
    const std::vector<std::string> timecodes = carried(in, {"--set", "frame rate limit=25"});
    EXPECT_THAT(timecodes, testing::IsSupersetOf({"0 10:00:00:20", "5 10:00:01:00", "10 10:00:01:05",
                                                  "15 10:00:01:10", "20 20:00:00:05", "25 20:00:00:10"}));
}

// No rate but 29.97 and 59.94 has drop-frame counting: the codes are the input's all the same.
TEST_P(SplicedTimecodes, AreTheInputsAtARateWithoutDropFrameCounting) {
    const std::string in = spliced(k29_97, {{40, "00:00:59;10"}, {40, "00:01:59;10"}});
    const std::vector<std::string> timecodes = carried(in, {"--set", "frame rate limit=15"});
    // Picture 20 of the input is 00:01:00;02, and picture 60 is 00:02:00;02.
    EXPECT_THAT(timecodes, testing::IsSupersetOf({"0 00:00:59:05", "5 00:00:59:10", "10 00:01:00:01",
                                                  "15 00:01:00:06", "20 00:01:59:05", "25 00:01:59:10",
                                                  "30 00:02:00:01", "35 00:02:00:06"}));
}

INSTANTIATE_TEST_SUITE_P(BFrames, SplicedTimecodes, testing::Values(0, 2));

/// A picture timing message (ISO/IEC 14496-10, D.1.3) of an interlaced picture without HRD delays: a full
/// clock time stamp for its first field, none for the second.
std::string picture_timing_nal(const captions::Timecode& timecode) {
    std::string bits =
        "0011"
        "1"
        "00"
        "0"
        "00000"
        "1"
        "0"
        "0";  // top field first; counting type 0
    bits += std::bitset<8>(timecode.frames).to_string() + std::bitset<6>(timecode.seconds).to_string() +
            std::bitset<6>(timecode.minutes).to_string() + std::bitset<5>(timecode.hours).to_string() +
            std::string(24, '0') +
            "0"
            "1";
    bits.append((8 - bits.size() % 8) % 8, '0');
    std::string message = {1, static_cast<char>(bits.size() / 8)};
    for (size_t at = 0; at < bits.size(); at += 8)
        message += static_cast<char>(std::bitset<8>(bits, at, 8).to_ulong());
    message += '\x80';
    std::string nal = {0, 0, 1, 6};
    int zeros = 0;
    for (const char byte : message) {
        if (zeros == 2 && byte >= 0 && byte <= 3) nal += '\3', zeros = 0;
        zeros = byte == 0 ? zeros + 1 : 0;
        nal += byte;
    }
    return nal;
}

TEST_F(CaptionFileCommand, CarriesTheTimecodesOfH264PicturesAcrossASplice) {
    const std::string in = directory / "in.y4m", h264 = directory / "in.h264", out = directory / "out.m2v";
    write_y4m(in, {.width = 64, .height = 64, .rate = k25, .interlacing = 't'}, 30);
    encode(in, h264, {"--set", "b frames=0"});
    const auto code = [](int picture) {
        const captions::Timecode first =
            picture < 13 ? captions::Timecode{10, 0, 0, 20, false} : captions::Timecode{20, 1, 2, 3, false};
        return captions::TimecodeCounter(first, captions::kRate25).at(picture < 13 ? picture : picture - 13);
    };
    // Each access unit begins with a delimiter (NAL type 9); the message goes before its first slice.
    const std::string bytes = read_file(h264);
    std::string timed;
    int picture = -1;
    bool in_slices = false;
    for (size_t at = 0; at < bytes.size(); at++) {
        if (bytes.compare(at, 3, std::string{0, 0, 1}) == 0) {
            const int type = bytes.at(at + 3) & 0x1F;
            picture += type == 9;
            if (type == 9) in_slices = false;
            if ((type == 1 || type == 5) && !std::exchange(in_slices, true))
                timed += picture_timing_nal(code(picture));
        }
        timed += bytes[at];
    }
    ASSERT_EQ(picture, 29);
    encode(file("timed.h264", timed), out,
           {"--rate", "25", "--timecode", "source", "--set", "gop size=5", "--set", "b frames=0"});
    const json report = inspect(out);
    std::vector<std::string> timecodes, expected;
    for (const json& gop : report["gops"]) {
        timecodes.push_back(gop["timecode"]);
        expected.push_back(captions::format_timecode(code(gop["picture"])));
    }
    EXPECT_EQ(timecodes, expected);
    EXPECT_GE(timecodes.size(), 6U);
}

}  // namespace
}  // namespace gsve::test
