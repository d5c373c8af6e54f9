// Queues between threads: order, ends, failures; and whole programmes, whose bytes do not depend on them.

#include "programme/ahead.h"

#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "encoding/error.h"
#include "programme/encode_programme.h"
#include "support/clip.h"
#include "support/failure_of.h"
#include "support/flash_and_click.h"
#include "support/scratch.h"
#include "support/stderr_capture.h"

namespace {

using namespace gsve::programme;
using namespace gsve::test;
using testing::ElementsAre;

/// As long as it lives, every step of every queue may come late.
class RandomDelays {
public:
    explicit RandomDelays(unsigned seed) {
        next_seed = seed;
        disturb_queues = [] {
            thread_local std::mt19937 random(next_seed++);
            if (random() % 4 == 0) std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
        };
    }
    ~RandomDelays() { disturb_queues = nullptr; }
    RandomDelays(const RandomDelays&) = delete;
    RandomDelays& operator=(const RandomDelays&) = delete;

private:
    static inline std::atomic<unsigned> next_seed = 0;
};

/// 0, 1, ... up to `count`, and then what `at_end` does.
template <class AtEnd>
auto counting(int count, AtEnd at_end) {
    return [=, n = 0]() mutable -> std::optional<int> {
        if (n < count) return n++;
        at_end();
        return std::nullopt;
    };
}

void nothing() {}

std::vector<int> all_of(Ahead<int>& ahead) {
    std::vector<int> values;
    while (const std::optional<int> value = ahead.next()) values.push_back(*value);
    return values;
}

TEST(Ahead, GivesAllValuesInOrder) {
    const RandomDelays delays(1);
    for (const size_t depth : {1, 2, 16}) {
        Ahead<int> ahead(depth, counting(50, nothing));
        const std::vector<int> values = all_of(ahead);
        ASSERT_EQ(values.size(), 50u);
        for (int n = 0; n < 50; n++) EXPECT_EQ(values[static_cast<size_t>(n)], n);
        EXPECT_FALSE(ahead.next()) << "the end stays the end";
    }
}

TEST(Ahead, ThrowsWhatTheWorkThrewOnceTheValuesBeforeAreTaken) {
    Ahead<int> ahead(8, counting(3, [] { throw std::runtime_error("broken"); }));
    for (int n = 0; n < 3; n++) EXPECT_EQ(ahead.next(), n);
    for (int again = 0; again < 2; again++)
        EXPECT_THROW(
            {
                try {
                    ahead.next();
                } catch (const std::runtime_error& error) {
                    EXPECT_STREQ(error.what(), "broken");
                    throw;
                }
            },
            std::runtime_error);
}

TEST(Ahead, EndsTheWorkWhereNobodyTakesItsValues) {
    std::atomic<int> made = 0;
    {
        Ahead<int> ahead(2, [&]() -> std::optional<int> { return made++; });
        EXPECT_EQ(ahead.next(), 0);
    }
    const int then = made;
    EXPECT_GE(then, 1);
    EXPECT_LE(then, 5) << "it does not run further ahead than the queue is deep";
}

TEST(Behind, UsesAllValuesInOrderBeforeItFinishes) {
    const RandomDelays delays(2);
    std::vector<int> used;
    Behind<int> behind(
        3, [&](int value) { used.push_back(value); }, nothing);
    for (int n = 0; n < 20; n++) behind.put(n);
    behind.finish();
    ASSERT_EQ(used.size(), 20u);
    for (int n = 0; n < 20; n++) EXPECT_EQ(used[static_cast<size_t>(n)], n);
}

TEST(Behind, ThrowsTheFirstFailureToWhoGivesValues) {
    std::atomic<int> failures = 0, used = 0;
    Behind<int> behind(
        2,
        [&](int value) {
            used++;
            if (value == 4) throw std::runtime_error("disk full");
        },
        [&] { failures++; });
    std::string told;
    try {
        for (int n = 0; n < 1000; n++) behind.put(n);
        behind.finish();
    } catch (const std::runtime_error& error) {
        told = error.what();
    }
    EXPECT_EQ(told, "disk full");
    EXPECT_EQ(failures, 1);
    EXPECT_EQ(used, 5) << "what comes after the failure is not used";
}

TEST(Behind, ThrowsAFailureOfTheLastValueAsItFinishes) {
    Behind<int> behind(
        2, [](int) { throw std::runtime_error("disk full"); }, nothing);
    behind.put(0);
    EXPECT_THROW(behind.finish(), std::runtime_error);
}

class ProgrammeInThreads : public testing::Test {
protected:
    /// A film with captions in its pictures, and sound.
    ProgrammeInThreads() {
        std::string captions = "1\n00:00:00,200 --> 00:00:01,400\nHello there\n";
        std::ofstream(directory / "in.srt") << captions;
        write_y4m(directory / "in.y4m", {.width = 128, .height = 96}, 75);
        EncodeJob job = this->job("h.264", "in.y4m", "pictures.ts");
        job.captions.files = {directory / "in.srt"};
        encode(job);
        ffmpeg(directory / "",
               "-i pictures.ts -f lavfi -i sine=f=440:d=3 -map 0:v -map 1:a -c:v copy -c:a mp2 -t 3 film.ts");
    }

    EncodeJob job(const std::string& codec, const std::string& input, const std::string& output) const {
        EncodeJob job;
        job.input = directory / input;
        job.output = directory / output;
        job.settings = {{"encoder", codec},
                        {"enable", "1"},
                        {"bitrate", "1000000"},
                        {"min bitrate", "0"},
                        {"h.264 preset", "ultrafast"}};
        job.threads = 1;
        return job;
    }

    static EncodeResult encode(const EncodeJob& job) {
        std::optional<EncodeResult> result;
        stderr_of([&] {
            Observer nobody;
            result = encode_programme(job, nobody);
        });
        return *result;
    }

    /// Every file that the job writes.
    std::map<std::string, std::string> files_of(EncodeJob job, const std::string& name) const {
        const std::string folder = directory / "out";
        std::filesystem::remove_all(folder);
        std::filesystem::create_directory(folder);
        job.output = folder + "/" + name;
        encode(job);
        std::map<std::string, std::string> files;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
            if (entry.is_regular_file()) files[entry.path().string()] = read_file(entry.path());
        return files;
    }

    ScratchDirectory directory;
};

TEST_F(ProgrammeInThreads, GivesTheSameBytesHoweverLateItsThreadsAre) {
    unsigned seed = 100;
    for (const char* name : {"out.ts", "out.mov", "out.m3u8"}) {
        for (const char* codec : {"mpeg-2", "h.264"}) {
            EncodeJob job = this->job(codec, "film.ts", "");
            job.sound.codec = "aac";
            const auto undisturbed = files_of(job, name);
            ASSERT_FALSE(undisturbed.empty());
            for (int run = 0; run < 3; run++) {
                const RandomDelays delays(seed += 50);
                EXPECT_TRUE(files_of(job, name) == undisturbed) << name << ", " << codec << ", run " << run;
            }
        }
    }
}

TEST_F(ProgrammeInThreads, TellsTheFirstCauseWhereTheOutputFails) {
    for (unsigned seed = 1; seed <= 5; seed++) {
        const RandomDelays delays(1000 * seed);
        EncodeJob job = this->job("mpeg-2", "film.ts", "out.ts");
        job.settings.emplace_back("bitrate", "8000000");
        // A file that may not grow.
        const rlimit unlimited = [] {
            rlimit limit = {};
            getrlimit(RLIMIT_FSIZE, &limit);
            return limit;
        }();
        const rlimit small = {20'000, unlimited.rlim_max};
        const auto handler = std::signal(SIGXFSZ, SIG_IGN);
        setrlimit(RLIMIT_FSIZE, &small);
        std::string told;
        stderr_of([&] {
            told = failure_of([&] {
                Observer nobody;
                encode_programme(job, nobody);
            });
        });
        setrlimit(RLIMIT_FSIZE, &unlimited);
        std::signal(SIGXFSZ, handler);
        EXPECT_THAT(told, testing::HasSubstr("cannot write " + job.output + ": File too large"));
        EXPECT_FALSE(std::filesystem::exists(job.output));
    }
}

}  // namespace
