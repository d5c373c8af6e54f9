// Containers whose samples are single NAL units: a picture is a picture all the same.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/captioned_stream.h"
#include "support/clip.h"
#include "support/cues.h"
#include "support/media_files.h"
#include "support/program.h"

namespace gsve::test {
namespace {

using nlohmann::json;

json inspect(const std::string& file) {
    const ProgramResult result = run({"inspect", file, "--json", "--pictures"});
    EXPECT_EQ(result.status, 0) << result.err;
    return json::parse(result.out);
}

/// An H.265 access unit delimiter, with its length.
void put_delimiter_in_front(AVPacket& packet) {
    const Bytes delimiter = from_hex("00000003 460150");
    const int size = packet.size, more = static_cast<int>(delimiter.size());
    ASSERT_EQ(av_grow_packet(&packet, more), 0);
    std::memmove(packet.data + more, packet.data, static_cast<size_t>(size));
    std::copy(delimiter.begin(), delimiter.end(), packet.data);
}

class NalByNal : public testing::TestWithParam<std::tuple<const char*, const char*>> {
protected:
    /// A captioned clip, and the same with a sample for every NAL unit.
    void make() {
        const auto& [codec, extension] = GetParam();
        write_y4m(directory / "clip.y4m", {.rate = {30000, 1001}}, kPictures);
        whole = directory / (std::string("whole") + extension);
        std::vector<std::string> arguments = {"encode", directory / "clip.y4m", whole, "--codec", codec};
        write_bytes(directory / "captions.srt", "1\n00:00:00,600 --> 00:00:01,400\nOne caption\n");
        arguments.insert(arguments.end(), {"--captions", directory / "captions.srt"});
        const ProgramResult result = run(arguments);
        ASSERT_EQ(result.status, 0) << result.err;
        single = directory / (std::string("single") + extension);
        size_t samples = 0;
        remultiplex(whole, single, nullptr, [&](AVFormatContext& output, AVPacket& packet) {
            const bool h265 = output.streams[0]->codecpar->codec_id == AV_CODEC_ID_HEVC;
            if (h265)
                put_delimiter_in_front(packet);  // else there would be nothing but slices, one a picture
            samples += write_nal_by_nal(output, packet);
        });
        ASSERT_GT(samples, kPictures * 5 / 4) << "nothing was taken apart";
    }

    static constexpr size_t kPictures = 80;
    ScratchDirectory directory;
    std::string whole, single;
};

TEST_P(NalByNal, IsInspectedAsTheSamePictures) {
    make();
    json expected = inspect(whole), found = inspect(single);
    EXPECT_EQ(found["pictures"]["total"], kPictures);
    for (const char* same : {"pictures", "damage", "gops", "cea708", "frame_rate", "field_order"})
        EXPECT_EQ(found[same], expected[same]) << same;
    ASSERT_EQ(found["line21"].size(), expected["line21"].size());
    for (size_t n = 0; n < expected["line21"].size(); n++)
        for (const char* same : {"pictures", "byte_pairs", "services", "gaps"})
            EXPECT_EQ(found["line21"][n][same], expected["line21"][n][same]) << same;
    ASSERT_EQ(found["picture_list"].size(), expected["picture_list"].size());
    for (size_t n = 0; n < kPictures; n++)
        for (const char* same : {"type", "unit"})
            EXPECT_EQ(found["picture_list"][n][same], expected["picture_list"][n][same])
                << same << " of " << n;
}

TEST_P(NalByNal, IsEncodedWithAllPicturesAndCaptions) {
    make();
    json reports[2];
    std::string streams[2];
    int n = 0;
    for (const std::string& in : {whole, single}) {
        const std::string out = directory / "out.m2v";
        const ProgramResult result = run({"encode", in, out, "-y", "--strict", "--report", "json"});
        ASSERT_EQ(result.status, 0) << result.err;
        reports[n] = json::parse(result.out);
        streams[n++] = read_file(out);
    }
    EXPECT_EQ(reports[1]["pictures"], reports[0]["pictures"]);
    EXPECT_EQ(reports[1]["pictures"]["decoded"], kPictures);
    EXPECT_EQ(reports[1]["captions"]["carried"], reports[0]["captions"]["carried"]);
    EXPECT_EQ(reports[1]["damage"], reports[0]["damage"]);
    EXPECT_TRUE(streams[1] == streams[0]) << "the streams differ";
    if (std::get<0>(GetParam()) == std::string("h.264")) {
        EXPECT_GT(reports[1]["captions"]["carried"]["eia608_pairs"], 10);
    }
}

INSTANTIATE_TEST_SUITE_P(Grid, NalByNal,
                         testing::Combine(testing::Values("h.264", "h.265"),
                                          testing::Values(".mp4", ".mkv")));

}  // namespace
}  // namespace gsve::test
