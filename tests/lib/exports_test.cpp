// The shared object's face to the linker: what it exports, what it leaves to the host, what it needs.

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace gsve::test {
namespace {

using Names = std::set<std::string>;

std::vector<std::string> lines_of(const std::string& command) {
    std::vector<std::string> lines;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) {
        ADD_FAILURE() << "cannot run " << command;
        return lines;
    }
    std::string line;
    for (int c; (c = fgetc(pipe)) != EOF;) {
        if (c != '\n') {
            line += static_cast<char>(c);
        } else {
            lines.push_back(line);
            line.clear();
        }
    }
    EXPECT_EQ(pclose(pipe), 0) << command;
    return lines;
}

std::string last_word(const std::string& line) { return line.substr(line.rfind(' ') + 1); }

std::string library() { return "'" GSVE_LIBRARY "'"; }

Names exported() {
    Names names;
    for (const std::string& line : lines_of("nm -D --defined-only " + library()))
        names.insert(last_word(line));
    return names;
}

Names without(const Names& from, const Names& what) {
    Names rest;
    std::set_difference(from.begin(), from.end(), what.begin(), what.end(), std::inserter(rest, rest.end()));
    return rest;
}

const Names kHostFunctions = {
    "comm_socket_v4_packet_write_nv_pair",
    "comm_socket_v4_packet_write_nv_pairf",
    "h264_nal_write",
    "how_many_cpus",
    "monotonic_clock_us",
    "mpeg2_get_frame_type",
    "mpeg2_get_frame_type_and_gop",
    "sliding_window_v4_create_buffer",
    "sliding_window_v4_destroy",
    "sliding_window_v4_is_sane",
};

TEST(Exports, AreTheClassItsRecordAndTheNameTable) {
    std::ifstream list(GSVE_SOURCE_DIR "/tests/lib/data/exported_symbols.txt");
    ASSERT_TRUE(list);
    const Names expected{std::istream_iterator<std::string>(list), {}};
    ASSERT_EQ(expected.size(), 50u);
    const Names got = exported();
    EXPECT_EQ(without(expected, got), Names{}) << "missing";
    EXPECT_EQ(without(got, expected), Names{}) << "not meant to be seen";
}

TEST(Exports, LeaveTheHostFunctionsToTheHost) {
    // A library's functions carry the version of the library that has them; the host's are bound at load time
    // by whichever host is there, and carry none.
    Names unversioned;
    for (const std::string& line : lines_of("nm -D --undefined-only " + library())) {
        const std::string name = last_word(line);
        if (line.find(" U ") != std::string::npos && name.find('@') == std::string::npos)
            unversioned.insert(name);
    }
    EXPECT_EQ(without(kHostFunctions, unversioned), Names{}) << "defined, or not used";
#if !defined(GSVE_SANITIZED)
    // A sanitizer's own functions come without version too.
    EXPECT_EQ(without(unversioned, kHostFunctions), Names{}) << "nobody's";
#endif
}

std::vector<std::string> dynamic_entries(const std::string& tag) {
    std::vector<std::string> values;
    for (const std::string& line : lines_of("LC_ALL=C readelf -d " + library())) {
        if (line.find("(" + tag + ")") == std::string::npos) continue;
        const size_t open = line.find('['), close = line.find(']');
        values.push_back(open == std::string::npos ? "" : line.substr(open + 1, close - open - 1));
    }
    return values;
}

TEST(Exports, NeedFFmpegAndTheRuntimeAlone) {
    std::vector<std::string> allowed = {"libavcodec.so.",      "libavutil.so.", "libstdc++.so.6",
                                        "libgcc_s.so.1",       "libm.so.6",     "libc.so.6",
                                        "ld-linux-x86-64.so.2"};
#if defined(GSVE_SANITIZED)
    allowed.insert(allowed.end(), {"libasan.so.", "libubsan.so.", "libtsan.so."});
#endif
    const std::vector<std::string> needed = dynamic_entries("NEEDED");
    for (const std::string& name : needed)
        EXPECT_TRUE(std::any_of(allowed.begin(), allowed.end(), [&](const std::string& start) {
            return name.rfind(start, 0) == 0;
        })) << name;
    for (const char* start : {"libavcodec.so.", "libavutil.so."})
        EXPECT_EQ(std::count_if(needed.begin(), needed.end(),
                                [&](const std::string& name) { return name.rfind(start, 0) == 0; }),
                  1)
            << start;
}

TEST(Exports, CarryASoname) {
    const std::vector<std::string> sonames = dynamic_entries("SONAME");
    ASSERT_EQ(sonames.size(), 1u);
    EXPECT_EQ(sonames[0].rfind("liborb_utils_v4_general_video_streaming_encoder.so", 0), 0u) << sonames[0];
}

TEST(Exports, FindsEncodersByIdOnly) {
    for (const std::string& line : lines_of("nm -D --undefined-only " + library()))
        EXPECT_EQ(line.find("avcodec_find_encoder_by_name"), std::string::npos);
}

}  // namespace
}  // namespace gsve::test
