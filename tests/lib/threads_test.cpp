// Encoders in threads: any number of objects side by side, each in its own thread, and one object that goes
// from thread to thread. What comes out is what one thread alone gets.

#include <array>
#include <barrier>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <orb_utils_v4/comm.h>
#include <orb_utils_v4/reference/comm_packet.h>

#include "support/frozen_clock.h"
#include "support/subject.h"
#include "support/test_picture.h"

namespace gsve::test {
namespace {

constexpr int kWidth = 176, kHeight = 144;
constexpr unsigned kPictures = 12;

/// One channel of a host: its codec, and how its pictures are scaled.
struct Channel {
    int codec;
    int resize_deinterlace;
    int codec_threads;
};

constexpr Channel kChannels[] = {{kMpeg2, 4, 2}, {kH264, -1, 2}, {kH265, 2, 1},  {kMpeg2, -1, 1},
                                 {kH264, 3, 1},  {kH265, 4, 2},  {kMpeg2, 0, 3}, {kH264, 4, 3}};

/// libx264 and libx265 do not give the same bytes every time where they have threads of their own.
bool repeats_itself(const Channel& channel) { return channel.codec == kMpeg2 || channel.codec_threads == 1; }

std::unique_ptr<Subject> make_host(const Channel& channel) {
    auto host = std::make_unique<Subject>(channel.codec, kWidth, kHeight, 30000, 1001);
    host->resize_width = 128;
    host->resize_height = 96;
    host->resize_deinterlace = channel.resize_deinterlace;
    host->maximum_threads = channel.codec_threads;
    host->bitrate = 1000000;
    return host;
}

/// The source's pictures, shared by all threads.
const std::vector<TestPicture>& pictures() {
    static const std::vector<TestPicture> made = [] {
        std::vector<TestPicture> list;
        for (unsigned n = 0; n < kPictures; n++) list.emplace_back(kWidth, kHeight, 1, 1, n);
        return list;
    }();
    return made;
}

/// Gives the encoder picture `n` with captions, a time code and a tag.
bool write_captioned(Subject& host, unsigned n) {
    zeph_cea708_word words[3] = {{0xFF, 0x0200}, {0xFE, static_cast<uint16_t>(0x4100 + n)}, {0xFE, 0x4242}};
    host.write_cea708(3, words);
    host.write_eia608(0, static_cast<uint16_t>(0x4120 + n));
    host.write_eia608(1, 0x4344);
    uint8_t scte20[4] = {1, 2, 3, static_cast<uint8_t>(n)};
    host.write_scte20(scte20, sizeof(scte20));
    mpeg2_gop_timecode_t timecode;
    timecode.valid = 1;
    timecode.seconds = static_cast<uint8_t>(n);
    timecode.text = "a text that does not fit into the string itself";
    host.write_mpeg2_gop_timecode(timecode);
    host.host_frame_tag = n;
    const TestPicture& p = pictures()[n];
    return host.write_video(p.y.data(), p.width, p.u.data(), p.chroma_width, p.v.data(), p.chroma_width, 0,
                            n);
}

bool report(Subject& host) {
    comm_socket_v4_packet packet;
    common_pkt_parsing parsing;
    return host.on_report(&packet, "channel", nullptr, &parsing) && packet.pairs.size() == 4;
}

using Stream = std::vector<std::vector<uint8_t>>;

Stream stream_of(const Subject& host) {
    Stream stream;
    for (const Unit& unit : host.units) stream.push_back(unit.bytes);
    return stream;
}

/// Encodes everything three times: opened by a client, reopened by a setting, opened by a client again. Empty
/// when an operation fails.
Stream encode_with_reopening(const Channel& channel) {
    const auto host = make_host(channel);
    bool good = host->client_addref();
    for (int run = 0; run < 3; run++) {
        if (run == 1) host->on_set("bitrate", "900000", true);
        if (run == 2) {
            host->client_unref();
            good &= host->client_addref();
        }
        good &= host->encoder_open;
        for (unsigned n = 0; n < kPictures; n++) good &= write_captioned(*host, n);
        good &= report(*host);
        while (host->flush_delayed_video()) {
        }
    }
    host->client_unref();
    return good ? stream_of(*host) : Stream{};
}

TEST(Threads, EightEncodersInEightThreadsEncodeAsOneAlone) {
    constexpr size_t kThreads = std::size(kChannels);
    std::array<Stream, kThreads> together, alone;
    const std::string printed = stderr_of([&] {
        pictures();
        std::barrier start(static_cast<std::ptrdiff_t>(kThreads));
        std::vector<std::thread> threads;
        for (size_t i = 0; i < kThreads; i++)
            threads.emplace_back([&, i] {
                start.arrive_and_wait();
                together[i] = encode_with_reopening(kChannels[i]);
            });
        for (std::thread& thread : threads) thread.join();
        for (size_t i = 0; i < kThreads; i++) alone[i] = encode_with_reopening(kChannels[i]);
    });
    EXPECT_EQ(occurrences(printed, "ThreadSanitizer"), 0) << printed;
    for (size_t i = 0; i < kThreads; i++) {
        EXPECT_EQ(alone[i].size(), 3 * kPictures) << "channel " << i;
        EXPECT_EQ(together[i].size(), 3 * kPictures) << "channel " << i;
        if (repeats_itself(kChannels[i])) {
            EXPECT_TRUE(together[i] == alone[i]) << "channel " << i;
        }
    }
}

/// Lets threads work in turns, each finding what the one before it left.
class Turns {
public:
    /// Waits until `turn` has come, works, and passes on.
    template <typename Work>
    void take(unsigned turn, const Work& work) {
        std::unique_lock lock(mutex_);
        passed_on_.wait(lock, [&] { return turn_ == turn; });
        work();
        turn_++;
        passed_on_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable passed_on_;
    unsigned turn_ = 0;
};

TEST(Threads, OneEncoderGoesFromThreadToThread) {
    constexpr unsigned kThreads = 4;
    for (const Channel& channel : kChannels) {
        SCOPED_TRACE("codec " + std::to_string(channel.codec));
        Stream alone, handed_over;
        const std::string printed = stderr_of([&] {
            const auto host = make_host(channel);
            host->client_addref();
            for (unsigned n = 0; n < kPictures; n++) write_captioned(*host, n);
            while (host->flush_delayed_video()) {
            }
            host->client_unref();
            alone = stream_of(*host);
        });
        EXPECT_EQ(alone.size(), size_t{kPictures});

        const std::string printed_by_four = stderr_of([&] {
            std::unique_ptr<Subject> host;
            Turns turns;
            std::vector<std::thread> threads;
            for (unsigned thread = 0; thread < kThreads; thread++)
                threads.emplace_back([&, thread] {
                    if (thread == 0)
                        turns.take(0, [&] {
                            host = make_host(channel);
                            host->client_addref();
                        });
                    for (unsigned n = thread; n < kPictures; n += kThreads)
                        turns.take(1 + n, [&] { write_captioned(*host, n); });
                    if (thread == 1)
                        turns.take(1 + kPictures, [&] {
                            report(*host);
                            while (host->flush_delayed_video()) {
                            }
                        });
                    if (thread == 2)
                        turns.take(2 + kPictures, [&] {
                            host->client_unref();
                            handed_over = stream_of(*host);
                            host.reset();
                        });
                });
            for (std::thread& thread : threads) thread.join();
        });
        EXPECT_EQ(handed_over.size(), size_t{kPictures});
        if (repeats_itself(channel)) {
            EXPECT_TRUE(handed_over == alone);
        }
        // libx265 prints how fast it was.
        if (channel.codec != kH265) {
            EXPECT_EQ(printed_by_four, printed);
        }
    }
}

}  // namespace
}  // namespace gsve::test
