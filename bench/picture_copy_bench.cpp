// What handing pictures to libx264 and libx265 in place saves: the processor time of a film encoded as it is,
// beside that with libavcodec copying each picture first. The two take turns, film by film, and what their
// threads do counts; medians for one picture and their ratio are printed. usage: picture_copy_bench [ROUNDS]

#include <time.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "support/recording_host.h"
#include "support/test_picture.h"

namespace {

using gsve::test::TestPicture;

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;

using Film = std::vector<TestPicture>;

double processor_microseconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

/// Processor time for one picture of the film, in microseconds.
double encode(const Film& film, const char* codec, bool copies) {
    GeneralStreamingVideoEncoder encoder;
    gsve::test::describe_source(encoder, kWidth, kHeight, 25, 1);
    gsve::test::configure(encoder, {{"encoder", codec}, {"bitrate", "12000000"}, {"enable", "1"}});
    if (!encoder.client_addref()) std::exit(1);
    if (copies) av_buffer_unref(&encoder.mpeg_frame->buf[0]);  // nothing claims the planes: libavcodec copies

    const double begin = processor_microseconds();
    uint64_t number = 0;
    for (const TestPicture& p : film)
        encoder.write_video(p.y.data(), kWidth, p.u.data(), kWidth / 2, p.v.data(), kWidth / 2, -1, number++);
    while (encoder.flush_delayed_video()) {
    }
    const double elapsed = processor_microseconds() - begin;
    encoder.client_unref();
    return elapsed / static_cast<double>(film.size());
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 9;
    Film film;
    for (unsigned number = 0; number < 40; number++) film.emplace_back(kWidth, kHeight, 1, 1, number);

    std::printf("%-8s %12s %12s %8s\n", "codec", "copied, us", "in place, us", "ratio");
    for (const char* codec : {"h.264", "h.265"}) {
        std::vector<double> copied, in_place;
        for (int round = 0; round < rounds; round++) {
            copied.push_back(encode(film, codec, true));
            in_place.push_back(encode(film, codec, false));
        }
        std::printf("%-8s %12.0f %12.0f %8.3f\n", codec, median(copied), median(in_place),
                    median(in_place) / median(copied));
    }
}
