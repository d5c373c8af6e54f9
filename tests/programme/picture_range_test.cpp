// Beginning in the middle of an input: the pictures are those that reading it from its start gives, however
// the stream is coded.

#include <cstdint>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "encoding/error.h"
#include "programme/input.h"
#include "programme/key_index.h"
#include "support/failure_of.h"
#include "support/flash_and_click.h"
#include "support/scratch.h"
#include "support/stderr_capture.h"

namespace {

using namespace gsve::programme;
using namespace gsve::test;

uint64_t hash_of(const Picture& picture) {
    uint64_t hash = 1469598103934665603U;
    const gsve::encoding::PictureView view = picture.view();
    for (int plane = 0; plane < 3; plane++)
        for (int row = 0; row < (plane ? picture.frame->height / 2 : picture.frame->height); row++)
            for (int column = 0; column < (plane ? picture.frame->width / 2 : picture.frame->width); column++)
                hash = (hash ^ view.planes[plane][static_cast<size_t>(row) * view.strides[plane] +
                                                  static_cast<size_t>(column)]) *
                       1099511628211U;
    return hash;
}

struct Source {
    const char* name;
    const char* file;
    const char* make;  ///< arguments of ffmpeg
    bool has_keys = true;
};

class PictureRange : public testing::TestWithParam<Source> {
protected:
    ScratchDirectory directory;
};

TEST_P(PictureRange, HasThePicturesOfTheWhole) {
    const Source& source = GetParam();
    ffmpeg(directory / "", std::string(source.make) + " " + source.file);
    const std::string path = directory / source.file;
    std::vector<uint64_t> whole;
    stderr_of([&] {
        Input input(path, {});
        while (const std::optional<Picture> picture = input.next()) {
            EXPECT_EQ(picture->number, whole.size());
            whole.push_back(hash_of(*picture));
        }
    });
    ASSERT_GT(whole.size(), 100u);
    const KeyIndex index = index_keys(path, {}, kLongestRepeat);
    EXPECT_EQ(!index.keys.empty(), source.has_keys) << index.why_none;
    EXPECT_EQ(index.why_none.empty(), source.has_keys);
    for (const size_t begin : {size_t{0}, size_t{1}, size_t{13}, size_t{14}, size_t{15}, size_t{47},
                               size_t{48}, size_t{60}, size_t{99}, whole.size() - 1}) {
        SCOPED_TRACE(begin);
        for (const bool in_threads : {false, true}) {
            std::vector<uint64_t> part;
            stderr_of([&] {
                const auto input = open_input_at(path, {}, {}, begin, index);
                if (in_threads) input->work_in_threads();
                while (const std::optional<Picture> picture = input->next()) {
                    EXPECT_EQ(picture->number, begin + part.size());
                    part.push_back(hash_of(*picture));
                }
                EXPECT_EQ(input->problem(), "");
            });
            EXPECT_TRUE(part ==
                        std::vector<uint64_t>(whole.begin() + static_cast<ptrdiff_t>(begin), whole.end()))
                << part.size() << " pictures of " << whole.size() - begin;
        }
    }
    EXPECT_EQ(failure_of([&] { Input(path, {}).begin_at(100'000, {}); }), "the input has no picture 100000");
}

INSTANTIATE_TEST_SUITE_P(
    Sources, PictureRange,
    testing::Values(Source{"OpenGopsOfMpeg2", "in.ts",
                           "-f lavfi -i testsrc2=s=96x64:r=25:d=6 -c:v mpeg2video -g 12 -bf 2 -b:v 2M"},
                    Source{"OpenGopsOfMpeg2InAProgramStream", "in.mpg",
                           "-f lavfi -i testsrc2=s=96x64:r=25:d=6 -c:v mpeg2video -g 12 -bf 2 -b:v 2M"},
                    Source{"OpenGopsOfH264", "in.mp4",
                           "-f lavfi -i testsrc2=s=96x64:r=25:d=6 -c:v libx264 -g 14 -bf 3 -x264-params "
                           "open-gop=1:scenecut=0"},
                    Source{"OpenGopsOfH264InATransportStream", "in.ts",
                           "-f lavfi -i testsrc2=s=96x64:r=25:d=6 -c:v libx264 -g 14 -bf 3 -x264-params "
                           "open-gop=1:scenecut=0"},
                    Source{"H265", "in.mkv",
                           "-f lavfi -i testsrc2=s=96x64:r=25:d=6 -c:v libx265 -x265-params "
                           "keyint=14:open-gop=1:log-level=none"},
                    Source{"AVariableRate", "in.mkv",
                           "-f lavfi -i testsrc2=s=96x64:r=25:d=6 -vf \"select='mod(n*n,7)-3'\" -vsync vfr "
                           "-c:v libx264 -g 14"},
                    Source{"ALateBeginning", "in.ts",
                           "-f lavfi -i testsrc2=s=96x64:r=25:d=6 -output_ts_offset 1000 -c:v mpeg2video -g "
                           "12 -bf 2 -b:v 2M"},
                    Source{"AnElementaryStream", "in.m2v",
                           "-f lavfi -i testsrc2=s=96x64:r=25:d=6 -c:v mpeg2video -g 12 -bf 2 -b:v 2M",
                           false}),
    [](const auto& source) { return source.param.name; });

}  // namespace
