// Damaged and truncated inputs: gsve tells how much is damaged or missing, and where, and tells of nothing
// else.

#include <algorithm>
#include <map>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/clip.h"
#include "support/film_clip.h"
#include "support/media_files.h"
#include "support/program.h"

namespace {

using namespace gsve::test;
using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

constexpr unsigned kPictures = 60;
constexpr double kRate = 25;
constexpr int kVideoPid = 0x100;  // as libavformat's multiplexer numbers the first stream

std::string codec_for(const std::string& extension) {
    return extension == ".m2v" ? "mpeg-2" : extension == ".h265" ? "h.265" : "h.264";
}

/// Where the report places damage of any kind.
struct Range {
    std::string kind;
    double begin, end;
};

std::vector<Range> ranges_of(const json& damage) {
    std::vector<Range> ranges;
    for (const json& range : damage["ranges"])
        ranges.push_back({range["kind"], range["begin"], range["end"]});
    return ranges;
}

/// But for the rounding of times.
void expect_same(const json& inspected, const json& encoded) {
    const std::vector<Range> a = ranges_of(inspected), b = ranges_of(encoded);
    ASSERT_EQ(a.size(), b.size()) << inspected << encoded;
    for (size_t n = 0; n < a.size(); n++) {
        EXPECT_EQ(a[n].kind, b[n].kind);
        EXPECT_NEAR(a[n].begin, b[n].begin, 1e-6);
        EXPECT_NEAR(a[n].end, b[n].end, 1e-6);
    }
    for (const char* count : {"damaged", "missing", "undecodable"})
        EXPECT_EQ(inspected[count], encoded[count]);
    EXPECT_NEAR(inspected["early_end"]["seconds"].get<double>(),
                encoded["early_end"]["seconds"].get<double>(), 1e-6);
}

class DamagedInput : public testing::Test {
protected:
    /// A file of the clip, of pictures that take many packets each, with a key picture every 12. Each is
    /// encoded once for all tests.
    std::string clip(const std::string& name, const std::vector<std::string>& more = {}) {
        static std::map<std::vector<std::string>, std::string> made;
        const std::string extension = std::filesystem::path(name).extension();
        std::vector<std::string> key = more;
        key.push_back(extension);
        std::string& bytes = made[key];
        if (bytes.empty()) {
            const std::string source = directory / "clip.y4m", out = directory / ("made" + extension);
            write_y4m(source, {.width = 256, .height = 192}, kPictures);
            std::vector<std::string> arguments = {"encode", source, out, "-y"};
            for (const char* setting :
                 {"maximum threads=1", "bitrate=1200000", "min bitrate=0", "gop size=12"})
                arguments.insert(arguments.end(), {"--set", setting});
            if (std::find(more.begin(), more.end(), "--codec") == more.end())
                arguments.insert(arguments.end(), {"--codec", codec_for(extension)});
            arguments.insert(arguments.end(), more.begin(), more.end());
            const ProgramResult result = run(arguments);
            EXPECT_EQ(result.status, 0) << result.err;
            bytes = read_file(out);
        }
        return file(name, bytes);
    }

    std::string file(const std::string& name, const std::string& bytes) {
        write_bytes(directory / name, bytes);
        return directory / name;
    }

    /// A cheap encoding of a file, with the report.
    ProgramResult encode(const std::string& in, const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments = {"encode",       in,      directory / "out.m2v", "-y", "--set",
                                              "resize=64x48", "--set", "min bitrate=0"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return run(arguments);
    }

    json damage_of(const std::string& in) {
        const ProgramResult result = encode(in, {"--report", "json"});
        EXPECT_EQ(result.status, 0) << result.err;
        const json damage = json::parse(result.out)["damage"];
        const ProgramResult inspection = run({"inspect", in, "--json"});
        EXPECT_EQ(inspection.status, 0) << inspection.err;
        const json inspected = json::parse(inspection.out);
        EXPECT_EQ(inspected["pictures"]["damaged"], inspected["damage"]["damaged"]);
        EXPECT_EQ(inspected["pictures"]["lost"], inspected["damage"]["undecodable"]);
        return damage;
    }

    void expect_no_damage(const std::string& in) {
        SCOPED_TRACE(in);
        const ProgramResult summary = encode(in, {"--strict"});
        EXPECT_EQ(summary.status, 0) << summary.err;
        EXPECT_THAT(summary.out, Not(HasSubstr("damage")));
        EXPECT_THAT(summary.err, Not(HasSubstr("damage")));
        EXPECT_EQ(damage_of(in), json::parse(R"({"damaged": 0, "missing": 0, "undecodable": 0, "ranges": [],
                                                 "early_end": null})"));
        const ProgramResult inspection = run({"inspect", in});
        EXPECT_THAT(inspection.out, HasSubstr(" 0 damaged, 0 lost\n"));
        EXPECT_THAT(inspection.out, Not(HasSubstr("  damage ")));
    }

    ScratchDirectory directory;
};

// No false alarms

class WholeInput : public DamagedInput, public testing::WithParamInterface<const char*> {};

TEST_P(WholeInput, IsNotCalledDamaged) { expect_no_damage(clip(GetParam())); }

INSTANTIATE_TEST_SUITE_P(Formats, WholeInput,
                         testing::Values("in.m2v", "in.h264", "in.h265", "in.ts", "in.mp4", "in.mkv"));

TEST_F(DamagedInput, IsNotSeenInEveryCodecsTransportStream) {
    for (const char* codec : {"mpeg-2", "h.264", "h.265"})
        expect_no_damage(clip("in.ts", {"--codec", codec}));
}

TEST_F(DamagedInput, IsNotSeenWhereAStreamBeginsBetweenKeyPictures) {
    for (const char* name : {"in.m2v", "in.h264", "in.h265", "in.ts"})
        for (const char* closed : {"0", "1"})
            for (const double part : {0.21, 0.33}) {
                const std::string whole =
                    read_file(clip(name, {"--set", std::string("closed gop=") + closed}));
                const size_t from = static_cast<size_t>(static_cast<double>(whole.size()) * part);
                const std::string in = file(std::string("mid-") + name, whole.substr(from));
                if (codec_for(std::filesystem::path(name).extension()) != "h.265") {
                    expect_no_damage(in);
                    continue;
                }
                // The decoder shows what comes before the first key picture, of references that it makes up.
                const json damage = damage_of(in);
                EXPECT_TRUE(damage["early_end"].is_null());
                for (const Range& range : ranges_of(damage)) EXPECT_LT(range.begin, 12 / kRate) << damage;
            }
}

TEST_F(DamagedInput, IsNotSeenWhereRecordingsWereJoined) {
    for (const char* codec : {"mpeg-2", "h.264", "h.265"}) {
        const std::string part = read_file(clip("part.ts", {"--codec", codec}));
        expect_no_damage(file("joined.ts", part + part));
    }
}

TEST_F(DamagedInput, IsNotSeenInVariableFrameRates) {
    std::vector<int64_t> times = {0};
    for (int n = 1; n < 60; n++) times.push_back(times.back() + (n % 10 == 4 ? 200 : n % 3 == 1 ? 80 : 40));
    write_mkv(directory / "in.mkv", {}, times);
    expect_no_damage(directory / "in.mkv");
}

TEST_F(DamagedInput, IsNotSeenWherePicturesWereDroppedForTheBitRate) {
    const std::string in = clip("in.ts", {"--codec", "mpeg-2", "--set", "drop frame for bitrate limit=on",
                                          "--set", "bitrate=60000", "--set", "min bitrate=0"});
    ASSERT_LT(decode_clip(in).pictures.size(), kPictures);
    expect_no_damage(in);
}

TEST_F(DamagedInput, IsNotSeenInRepeatedFields) {
    std::string bytes = read_file(clip("in.m2v"));
    // repeat_first_field in every other picture coding extension (ISO/IEC 13818-2, 6.2.3.1)
    size_t repeated = 0, number = 0;
    for (size_t at = 0; (at = bytes.find(std::string("\0\0\1\xB5", 4), at)) != bytes.npos; at += 4)
        if ((static_cast<uint8_t>(bytes[at + 4]) & 0xF0) == 0x80 && number++ % 2) {
            bytes[at + 7] = static_cast<char>(bytes[at + 7] | 0x02);
            repeated++;
        }
    ASSERT_EQ(repeated, kPictures / 2);
    expect_no_damage(file("repeated.m2v", bytes));
}

TEST_F(DamagedInput, IsNotSeenInTheFilm) {
    ASSERT_TRUE(std::filesystem::exists(film_clip_path()));
    expect_no_damage(film_clip_path());
}

TEST_F(DamagedInput, IsNotSeenWhereSoundIsLongerThanThePictures) {
    std::vector<int64_t> times;
    for (int n = 0; n < 10; n++) times.push_back(n * 40);
    write_mkv(directory / "in.mkv", {}, times, AV_PIX_FMT_YUV420P, true);
    expect_no_damage(directory / "in.mkv");
}

// Truncated files

struct Truncation {
    const char* name;
    bool tells_duration;  ///< the container says how long it was to be
};

class TruncatedInput : public DamagedInput, public testing::WithParamInterface<Truncation> {
protected:
    std::string truncated(double part) {
        std::string whole = clip(GetParam().name);
        if (whole.ends_with(".mp4")) {  // whose index would be lost with the end
            remultiplex(whole, directory / "fast.mp4", "faststart");
            whole = directory / "fast.mp4";
        }
        const std::string bytes = read_file(whole);
        size_t size = static_cast<size_t>(static_cast<double>(bytes.size()) * part);
        // Within a slice: an elementary stream that is cut between pictures, or in front of one, looks whole.
        constexpr size_t kWell = 100;
        while (bytes.substr(size - kWell, 2 * kWell).find(std::string("\0\0\1", 3)) != bytes.npos)
            size += kWell;
        return file(std::string("cut-") + GetParam().name, bytes.substr(0, size));
    }
};

TEST_P(TruncatedInput, EndsEarly) {
    for (const double part : {0.3, 0.531, 0.95}) {
        SCOPED_TRACE(part);
        const std::string in = truncated(part);
        const json damage = damage_of(in);
        ASSERT_FALSE(damage["early_end"].is_null()) << damage;
        const double seconds = damage["early_end"]["seconds"];
        const json inspected = json::parse(run({"inspect", in, "--json"}).out);
        EXPECT_NEAR(seconds, inspected["pictures"]["total"].get<int>() / kRate, 0.081);
        EXPECT_NEAR(seconds, kPictures / kRate * part, 0.4);
        if (GetParam().tells_duration) {
            EXPECT_NEAR(damage["early_end"]["expected"].get<double>(), kPictures / kRate, 0.041);
        } else {
            EXPECT_TRUE(damage["early_end"]["expected"].is_null());
        }
        for (const Range& range : ranges_of(damage)) EXPECT_GT(range.begin, seconds - 0.3) << range.kind;
        expect_same(inspected["damage"], damage);
    }
}

TEST_P(TruncatedInput, IsNamedAndFailsOnlyWhenStrict) {
    const std::string in = truncated(0.531);
    const ProgramResult lenient = encode(in);
    EXPECT_EQ(lenient.status, 0) << lenient.err;
    EXPECT_THAT(lenient.out, HasSubstr("\n  damage    "));
    EXPECT_THAT(lenient.out, HasSubstr("the input ends "));
    EXPECT_THAT(lenient.err, HasSubstr("gsve: the input is damaged: "));
    EXPECT_THAT(lenient.err, HasSubstr("; --strict makes this a failure\n"));
    const std::string output = read_file(directory / "out.m2v");

    const ProgramResult strict = encode(in, {"--strict", "--quiet"});
    EXPECT_EQ(strict.status, 1);
    EXPECT_THAT(strict.err, HasSubstr("gsve: the input is damaged: "));
    EXPECT_THAT(strict.err, Not(HasSubstr("--strict")));
    EXPECT_TRUE(read_file(directory / "out.m2v") == output) << "the output is another";
    EXPECT_THAT(run({"inspect", in}).out, HasSubstr("\n  damage    "));
}

INSTANTIATE_TEST_SUITE_P(Formats, TruncatedInput,
                         testing::Values(Truncation{"in.ts", false}, Truncation{"in.mp4", true},
                                         Truncation{"in.mkv", true}, Truncation{"in.m2v", false},
                                         Truncation{"in.h264", false}));

// Lost packets

struct Loss {
    const char* codec;
    double share;
    unsigned seed;
};

class LossyInput : public DamagedInput, public testing::WithParamInterface<Loss> {};

TEST_P(LossyInput, HasItsDamageWherePacketsWereLost) {
    const Loss& loss = GetParam();
    const std::string whole = read_file(clip("in.ts", {"--codec", loss.codec}));
    std::mt19937 random(loss.seed);
    std::vector<bool> lost(whole.size() / kTransportPacket);
    // The tables at the begin are spared: without them there is no programme.
    for (size_t n = 8; n < lost.size(); n++) lost[n] = random() < loss.share * 4294967296.0;
    const Lossy lossy = lose_packets(whole, kVideoPid, [&](size_t place) { return lost[place]; });
    ASSERT_GT(lossy.times.size(), 2u);
    const json damage = damage_of(file("lossy.ts", lossy.bytes));
    const std::vector<Range> ranges = ranges_of(damage);
    const int total = damage["damaged"].get<int>() + damage["missing"].get<int>();
    EXPECT_GT(total, 0);
    EXPECT_EQ(encode(directory / "lossy.ts", {"--strict"}).status, 1);

    // A loss may be told of with the picture before or after it, in the order of coding.
    constexpr double kAround = 5 / kRate;
    const auto near = [](double time, const Range& range) {
        return time > range.begin - kAround && time < range.end + kAround;
    };
    for (const double time : lossy.times)
        EXPECT_TRUE(
            std::any_of(ranges.begin(), ranges.end(), [&](const Range& r) { return near(time, r); }) ||
            !damage["early_end"].is_null())
            << "nothing is said of a loss at " << time << " s: " << damage;
    for (const Range& range : ranges)
        EXPECT_TRUE(std::any_of(lossy.times.begin(), lossy.times.end(),
                                [&](double time) { return near(time, range); }))
            << range.kind << " from " << range.begin << " to " << range.end << " s, where nothing was lost";
}

INSTANTIATE_TEST_SUITE_P(Random, LossyInput,
                         testing::Values(Loss{"mpeg-2", 0.01, 1}, Loss{"mpeg-2", 0.01, 2},
                                         Loss{"mpeg-2", 0.2, 3}, Loss{"h.264", 0.01, 4},
                                         Loss{"h.264", 0.01, 5}, Loss{"h.264", 0.2, 6},
                                         Loss{"h.265", 0.01, 7}, Loss{"h.265", 0.2, 8}));

TEST_F(DamagedInput, IsMissingWhereWholePicturesWereLost) {
    const std::string whole = read_file(clip("in.ts", {"--codec", "mpeg-2"}));
    const size_t packets = whole.size() / kTransportPacket;
    const Lossy lossy = lose_packets(
        whole, kVideoPid, [&](size_t place) { return place > packets * 2 / 5 && place < packets * 3 / 5; });
    const json damage = damage_of(file("lossy.ts", lossy.bytes));
    EXPECT_NEAR(damage["missing"].get<int>(), kPictures / 5, 4) << damage;
    const auto [first, last] = std::minmax_element(lossy.times.begin(), lossy.times.end());
    bool found = false;
    for (const Range& range : ranges_of(damage)) {
        EXPECT_GT(range.begin, *first - 0.5) << range.kind;
        EXPECT_LT(range.end, *last + 0.5) << range.kind;
        found |= range.kind == "missing" && range.end - range.begin > 0.3;
    }
    EXPECT_TRUE(found) << damage;
}

// Wrong bits

class WrongBits : public DamagedInput, public testing::WithParamInterface<const char*> {};

TEST_P(WrongBits, DamageThePicturesThatTheyAreIn) {
    std::string bytes = read_file(clip(GetParam()));
    std::mt19937 random(5);
    const size_t third = bytes.size() / 3;
    for (int hit = 0; hit < 40; hit++)
        bytes[third + random() % third] ^= static_cast<char>(1 << random() % 8);
    // H.265 has next to nothing that a wrong bit would break: what its decoder sees for certain is wrong in
    // the slice headers, behind the start code and the header of the NAL unit.
    const bool is_h265 = codec_for(std::filesystem::path(GetParam()).extension()) == "h.265";
    constexpr std::string_view kStartCode("\0\0\1", 3);
    constexpr size_t kHeaders = 5;
    int slices = 0;
    for (size_t at = bytes.find(kStartCode, third); is_h265 && at < 2 * third;
         at = bytes.find(kStartCode, at + 3))
        if (slices++ % 8 == 0) bytes[at + kHeaders] ^= '\xFF';
    const json damage = damage_of(file(std::string("bad-") + GetParam(), bytes));
    const int at_least = is_h265 ? 1 : 6;
    EXPECT_GE(damage["damaged"].get<int>() + damage["undecodable"].get<int>(), at_least) << damage;
    EXPECT_TRUE(damage["early_end"].is_null()) << damage;
    const double seconds = kPictures / kRate;
    for (const Range& range : ranges_of(damage)) {
        EXPECT_GT(range.begin, seconds / 3 - 0.5) << range.kind;
        EXPECT_LT(range.end, seconds * 2 / 3 + 0.7) << range.kind;
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, WrongBits, testing::Values("in.m2v", "in.h264", "in.h265", "in.mkv"));

}  // namespace
