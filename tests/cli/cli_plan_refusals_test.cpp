// What a plan, a chunk and a join refuse, and with which advice; and what each leaves as it is.

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "programme/stream_inspection.h"
#include "support/flash_and_click.h"
#include "support/media_files.h"
#include "support/program.h"
#include "support/scratch.h"
#include "support/stderr_capture.h"

namespace {

namespace fs = std::filesystem;
using namespace gsve::test;
using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

using Arguments = std::vector<std::string>;

constexpr int kFailure = 1, kUsage = 2;

class PlannedFilm : public testing::Test {
protected:
    PlannedFilm() {
        ffmpeg(directory / "",
               "-f lavfi -i testsrc2=s=192x108:r=25 -f lavfi -i sine=r=48000 -t 5 -c:v "
               "mpeg2video -q:v 4 -g 12 -bf 2 -c:a mp2 in.ts");
    }

    ProgramResult succeed(const Arguments& arguments) {
        const ProgramResult result = run(arguments);
        EXPECT_EQ(result.status, 0) << testing::PrintToString(arguments) << "\n" << result.err;
        return result;
    }

    /// The one line that says why.
    std::string refusal(const Arguments& arguments, int status = kFailure) {
        const ProgramResult result = run(arguments);
        EXPECT_EQ(result.status, status) << result.err;
        const size_t last = result.err.rfind("gsve: ");
        return last == std::string::npos ? result.err : result.err.substr(last);
    }

    Arguments plan_arguments(const Arguments& more = {}, const std::string& out = "out.ts") {
        Arguments arguments = {"plan",
                               directory / "in.ts",
                               directory / out,
                               "--chunks",
                               "1s",
                               "-o",
                               plan,
                               "-y",
                               "--codec",
                               "mpeg-2",
                               "--set",
                               "bitrate=1500000"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return arguments;
    }

    void make_plan(const Arguments& more = {}) { succeed(plan_arguments(more)); }

    void make_all() {
        for (size_t n = 0; n < chunks(); n++) succeed({"chunk", plan, std::to_string(n), "-q"});
        succeed({"chunk", plan, "sound", "-q"});
    }

    json read_plan() { return json::parse(read_file(plan)); }
    size_t chunks() { return read_plan().at("chunks").size(); }
    void write_plan(const json& changed) { std::ofstream(plan) << changed.dump(); }

    ScratchDirectory directory;
    const std::string plan = directory / "film.plan.json";
    const std::string work = directory / "film.plan";
};

TEST_F(PlannedFilm, IsRefusedWhereAPartWouldNeedWhatCameBefore) {
    const struct {
        Arguments options;
        const char* why;
    } kCases[] = {
        {{"--set", "drop frame for bitrate limit=on"}, "depends on all pictures before"},
        {{"--set", "enable eia-608=1"}, "gathers the byte pairs of earlier pictures"},
        {{"--timecode", "source"}, "all of which would have to be decoded first"},
        {{"--codec", "h.264", "--set", "maximum threads=2"}, "gives other bytes each time"},
        {{"--set", "debug file=1"}, "\"debug file\""},
    };
    for (const auto& [options, why] : kCases) {
        SCOPED_TRACE(why);
        std::ofstream(directory / "none.scc") << "Scenarist_SCC V1.0\n\n00:00:01:00\t9420 9420\n";
        Arguments arguments = {"plan", directory / "in.ts", directory / "out.ts", "-o", plan};
        if (options[0] != "--codec") arguments.insert(arguments.end(), {"--codec", "mpeg-2"});
        arguments.insert(arguments.end(), options.begin(), options.end());
        arguments.insert(arguments.end(), {"--captions", directory / "none.scc"});
        EXPECT_THAT(refusal(arguments, kUsage), HasSubstr(why));
        EXPECT_FALSE(fs::exists(plan));
    }
    EXPECT_THAT(refusal({"plan", "-", directory / "out.ts", "-o", plan}, kUsage),
                HasSubstr("read many times"));
    EXPECT_THAT(refusal({"plan", directory / "in.ts", "-", "--format", "ts", "-o", plan}, kUsage),
                HasSubstr("give OUTPUT a name"));
    EXPECT_THAT(refusal({"plan", directory / "none.ts", directory / "out.ts", "-o", plan}),
                HasSubstr("none.ts"));
}

TEST_F(PlannedFilm, IsNotOverwrittenUnasked) {
    make_plan();
    Arguments again = plan_arguments();
    std::erase(again, "-y");
    EXPECT_THAT(refusal(again, kUsage), HasSubstr("give -y"));
}

TEST_F(PlannedFilm, TakesAnyOrderAnyNumberOfTimesAndAnotherPlace) {
    make_plan();
    make_all();
    succeed({"join", plan});
    const std::string one = read_file(directory / "out.ts");
    const std::string data = read_file(work + "/chunk-00001.m2v"),
                      manifest = read_file(work + "/chunk-00001.json");
    succeed({"chunk", plan, "1"});
    EXPECT_TRUE(read_file(work + "/chunk-00001.m2v") == data);
    EXPECT_EQ(read_file(work + "/chunk-00001.json"), manifest);
    for (const auto& entry : fs::directory_iterator(work))
        EXPECT_THAT(entry.path().filename().string(),
                    testing::AnyOf(StartsWith("chunk-"), StartsWith("sound.")));

    // What lies together can be moved together.
    const std::string home = directory / "elsewhere";
    fs::create_directory(home);
    for (const char* name : {"in.ts", "film.plan.json"}) fs::rename(directory / name, home + "/" + name);
    const std::string chunks_at = directory / "chunks";
    for (size_t n = 0; n < json::parse(read_file(home + "/film.plan.json")).at("chunks").size(); n++)
        succeed({"chunk", home + "/film.plan.json", std::to_string(n), "-q", "--directory", chunks_at});
    succeed({"chunk", home + "/film.plan.json", "sound", "-q", "--directory", chunks_at});
    EXPECT_FALSE(fs::exists(home + "/film.plan"));
    succeed({"join", home + "/film.plan.json", "--directory", chunks_at});
    EXPECT_TRUE(read_file(home + "/out.ts") == one);
}

TEST_F(PlannedFilm, NamesTheChunkThatIsMissingOrChangedAndTheCommandThatMendsIt) {
    make_plan();
    make_all();
    const auto expect_refused = [&](const std::string& task, const std::string& why) {
        EXPECT_THAT(refusal({"join", plan}),
                    AllOf(HasSubstr((task == "sound" ? "the sound " : "chunk " + task + " ") + why),
                          HasSubstr("gsve chunk " + plan + " " + task)));
        EXPECT_FALSE(fs::exists(directory / "out.ts"));
        succeed({"chunk", plan, task, "-q"});
    };
    fs::remove(work + "/chunk-00002.json");
    expect_refused("2", "is missing");
    fs::remove(work + "/sound.json");
    expect_refused("sound", "is missing");
    fs::remove(work + "/chunk-00001.m2v");
    expect_refused("1", "has lost its data");
    std::string data = read_file(work + "/chunk-00001.m2v");
    data[data.size() / 2] = static_cast<char>(data[data.size() / 2] ^ 1);
    write_bytes(work + "/chunk-00001.m2v", data);
    expect_refused("1", "has other data");
    data = read_file(work + "/sound.packets");
    write_bytes(work + "/sound.packets", data.substr(0, data.size() - 1));
    expect_refused("sound", "has other data");
    fs::copy_file(work + "/chunk-00001.json", work + "/chunk-00002.json",
                  fs::copy_options::overwrite_existing);
    expect_refused("2", "has the manifest of task");
    write_bytes(work + "/chunk-00000.json", "{\"gsve_task\": 1}");
    expect_refused("0", "cannot be used");
    // Another plan by the same name.
    make_plan({"--set", "gop size=10"});
    EXPECT_THAT(refusal({"join", plan}), HasSubstr("chunk 0 was made by another plan"));
}

TEST_F(PlannedFilm, IsRefusedWhereItsSourceHasChanged) {
    make_plan();
    // A copy has another time, and the same pictures.
    const std::string bytes = read_file(directory / "in.ts");
    fs::remove(directory / "in.ts");
    write_bytes(directory / "in.ts", bytes);
    succeed({"chunk", plan, "0", "-q"});
    std::string changed = bytes;
    for (size_t at = changed.size() / 2; at < changed.size() / 2 + 40'000; at++) changed[at] = 0x55;
    write_bytes(directory / "in.ts", changed);
    EXPECT_THAT(refusal({"chunk", plan, "1", "-q"}),
                HasSubstr("is not the file that the plan was made from"));
    write_bytes(directory / "in.ts", bytes.substr(0, bytes.size() - 188 * 10));
    EXPECT_THAT(refusal({"chunk", plan, "1", "-q"}), HasSubstr("plan again"));
    EXPECT_FALSE(fs::exists(work + "/chunk-00001.json"));
}

TEST_F(PlannedFilm, OfAnotherVersionOrProgramIsRefusedWithOneLine) {
    make_plan();
    const json good = read_plan();
    json other = good;
    other["gsve_plan"] = 2;
    write_plan(other);
    EXPECT_THAT(refusal({"chunk", plan, "0"}, kUsage), HasSubstr("is of version 2, and this gsve knows 1"));
    other = good;
    other["software"] = "gsve 3.9.9 (libavcodec 1.2.3)";
    write_plan(other);
    EXPECT_THAT(refusal({"chunk", plan, "0"}), HasSubstr("gsve 3.9.9 (libavcodec 1.2.3)"));
    for (const char* text : {"", "[]", "{", "{\"gsve_plan\": \"1\"}"}) {
        write_bytes(plan, text);
        EXPECT_THAT(refusal({"chunk", plan, "0"}, kUsage), HasSubstr("the plan")) << text;
        EXPECT_THAT(refusal({"join", plan}, kUsage), HasSubstr("the plan")) << text;
    }
    write_plan(good);
    for (const char* task : {"99", "-1", "x", "1x", ""})
        EXPECT_THAT(refusal({"chunk", plan, "--", task}, kUsage), HasSubstr("the plan has chunks 0 to"));
}

/// A plan may come from somebody else.
TEST_F(PlannedFilm, WritesNowhereButBesideItself) {
    make_plan();
    const json good = read_plan();
    json other = good;
    other["job"]["output"] = "../out.ts";
    write_plan(other);
    make_all();
    EXPECT_THAT(refusal({"join", plan}, kUsage), HasSubstr("give OUTPUT"));
    succeed({"join", plan, directory / "named.ts"});
    EXPECT_TRUE(fs::exists(directory / "named.ts"));

    other = good;
    other["chunks"][0]["output"] = directory / "taken.m2v";
    write_plan(other);
    succeed({"chunk", plan, "0", "-q"});
    EXPECT_FALSE(fs::exists(directory / "taken.m2v"));

    fs::remove_all(work);
    fs::create_directory(directory / "home");
    const std::string outside = directory / "outside";
    fs::create_directory(outside);
    const std::string inner = directory / "home/film.plan.json";
    json moved = good;
    moved["job"]["input"] = directory / "in.ts";
    std::ofstream(inner) << moved.dump();
    fs::create_directory_symlink(outside, directory / "home/film.plan");
    EXPECT_THAT(refusal({"chunk", inner, "0"}, kUsage), HasSubstr("leads out of the plan's own directory"));
    EXPECT_TRUE(fs::is_empty(outside));

    other = good;
    other["chunks"][0]["settings"].push_back({"debug file", "1"});
    write_plan(other);
    EXPECT_THAT(refusal({"chunk", plan, "0"}, kUsage), HasSubstr("\"debug file\""));
    other = good;
    other["chunks"][0]["captions"]["files"].push_back("/etc/passwd");
    write_plan(other);
    EXPECT_THAT(refusal({"chunk", plan, "0"}, kUsage), HasSubstr("names files"));
}

TEST_F(PlannedFilm, MayHaveAnyName) {
    const std::string odd = "-a film's \"cut\"\n of \xC3\xA9t\xC3\xA9 $(true) %d";
    fs::rename(directory / "in.ts", directory / (odd + ".ts"));
    const std::string name = directory / (odd + ".plan.json");
    succeed({"plan", directory / (odd + ".ts"), directory / (odd + ".out.ts"), "--chunks", "2s", "-o", name,
             "--codec", "mpeg-2", "--set", "bitrate=1500000", "-q"});
    const size_t count = json::parse(read_file(name)).at("chunks").size();
    for (size_t n = 0; n < count; n++) succeed({"chunk", name, std::to_string(n), "-q"});
    // The command that mends is one for a shell.
    const std::string advice = refusal({"join", name});
    const size_t command = advice.find("gsve chunk ");
    ASSERT_NE(command, std::string::npos) << advice;
    const std::string shell =
        "gsve() { for word; do printf '%s|' \"$word\"; done; }; " + advice.substr(command);
    std::FILE* pipe = popen(shell.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string words;
    for (int letter = std::fgetc(pipe); letter != EOF; letter = std::fgetc(pipe))
        words += static_cast<char>(letter);
    pclose(pipe);
    EXPECT_EQ(words, "chunk|" + name + "|sound|");
    succeed({"chunk", name, "sound", "-q"});
    succeed({"join", name});
    EXPECT_TRUE(fs::exists(directory / (odd + ".out.ts")));
}

/// Bits that the decoder's buffer lacks at a join are saved before it.
TEST_F(PlannedFilm, SavesBitsAtTheEndOfAChunk) {
    for (const char* codec : {"mpeg-2", "h.264"}) {
        SCOPED_TRACE(codec);
        const std::string extension = std::string(codec) == "mpeg-2" ? ".m2v" : ".h264";
        succeed({"plan", directory / "in.ts", directory / "out.ts", "--chunks", "2.4s", "-o", plan, "-y",
                 "-q", "--codec", codec, "--set", "bitrate=600000", "--set", "enable h.264 nal hrd=1"});
        for (size_t n = 0; n < chunks(); n++) succeed({"chunk", plan, std::to_string(n), "-q"});
        succeed({"chunk", plan, "sound", "-q"});
        constexpr size_t kSaved = 60'000;
        const auto bits = [&] { return 8 * fs::file_size(work + "/chunk-00000" + extension); };
        const size_t before = bits();
        succeed({"chunk", plan, "0", "-q", "--save", std::to_string(kSaved)});
        EXPECT_LT(bits() + kSaved / 2, before);
        EXPECT_EQ(json::parse(read_file(work + "/chunk-00000.json")).at("saved"), kSaved);
        for (const auto& entry : fs::directory_iterator(work))
            EXPECT_THAT(entry.path().string(), testing::Not(HasSubstr(".last")));
        EXPECT_THAT(succeed({"join", plan, "-y"}).out, HasSubstr("holds"));
        gsve::programme::InspectedStream stream;
        stderr_of([&] { stream = gsve::programme::read_stream(directory / "out.ts", true); });
        EXPECT_EQ(stream.pictures.size(), 125u);
        EXPECT_FALSE(stream.damage.any());
        EXPECT_TRUE(stream.buffer->holds());
        EXPECT_THAT(refusal({"chunk", plan, "0", "-q", "--save", "100000000"}, kUsage),
                    HasSubstr("more than the chunk's last GOPs can save"));
        fs::remove_all(work);
        fs::remove(directory / "out.ts");
    }
}

}  // namespace
