// Programmes for which the memory is too small: one failure, and nothing under the output's name.

#include <climits>
#include <filesystem>
#include <new>
#include <string>

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
#include <libavutil/mem.h>
}

#include "encoding/error.h"
#include "programme/encode_programme.h"
#include "programme/stream_inspection.h"
#include "support/clip.h"
#include "support/media_files.h"
#include "support/scratch.h"
#include "support/stderr_capture.h"

namespace {

using namespace gsve::programme;
using namespace gsve::test;

/// Lets FFmpeg have no block of memory of `bytes` or more.
class LargestBlock {
public:
    explicit LargestBlock(size_t bytes) { av_max_alloc(bytes); }
    ~LargestBlock() { av_max_alloc(INT_MAX); }
    LargestBlock(const LargestBlock&) = delete;
    LargestBlock& operator=(const LargestBlock&) = delete;
};

class OutOfMemory : public testing::Test {
protected:
    OutOfMemory() { av_log_set_level(AV_LOG_QUIET); }

    /// Does the work with larger and larger blocks until it succeeds. `failed` looks at what is left each
    /// time.
    template <class Work, class Failed>
    void expect_failures_until_success(Work work, Failed failed) {
        int failures = 0;
        for (size_t block = 24; block < 100'000'000; block += block / 5) {
            bool done = false;
            stderr_of([&] {
                const LargestBlock limit(block);
                try {
                    work();
                    done = true;
                } catch (const std::bad_alloc&) {
                } catch (const gsve::Failure& failure) {
                    EXPECT_STRNE(failure.what(), "");
                }
            });
            if (done) {
                EXPECT_GT(failures, 10);
                return;
            }
            failures++;
            failed(block);
        }
        FAIL() << "never succeeded";
    }

    ScratchDirectory directory;
};

TEST_F(OutOfMemory, EncodingFailsAndLeavesNothing) {
    EncodeJob job;
    job.input = directory / "in.y4m";
    job.settings = {{"encoder", "mpeg-2"}, {"enable", "1"}, {"bitrate", "1000000"}};
    job.threads = 1;
    write_y4m(job.input, {.width = 64, .height = 48}, 3);
    for (const char* name : {"out.m2v", "out.mp4", "out.ts"}) {
        job.output = directory / name;
        bool whole = false;
        expect_failures_until_success(
            [&] {
                Observer observer;
                const EncodeResult result = encode_programme(job, observer);
                whole = result.problem.empty() && result.tally.units == 3;
                if (!whole) throw gsve::Failure("ended early: " + result.problem);
            },
            [&](size_t) { std::filesystem::remove(job.output); });
        EXPECT_TRUE(whole);
        EXPECT_TRUE(std::filesystem::exists(job.output));
    }
    for (const auto& entry : std::filesystem::directory_iterator(directory / ""))
        EXPECT_NE(entry.path().extension(), ".part") << entry.path();
}

TEST_F(OutOfMemory, InspectionFails) {
    const std::string path = directory / "in.mkv";
    write_mkv(path, {.width = 64, .height = 48}, {0, 40, 80});
    size_t pictures = 0;
    expect_failures_until_success(
        [&] {
            pictures = read_stream(path).pictures.size();
            if (pictures < 3) throw gsve::Failure("pictures are missing");
        },
        [](size_t) {});
    EXPECT_EQ(pictures, 3u);
}

}  // namespace
