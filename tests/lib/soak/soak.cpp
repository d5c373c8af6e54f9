// Endurance: what an encoder that stays on air for a year would need to leak or to grow.
//
//     soak [--minutes N] [--openings N] [--seed N]
//
// First each codec is opened and closed again and again, by the library and by bare libavcodec with the same
// settings, and the heap bytes per opening of the two are told apart: libx265 keeps some of its own. Then,
// codec by codec, encoders live through random host operations, and are closed for each sample: heap and
// descriptors have to be flat after the warm-up, maps and queues within their bounds all along.
//
// Ends with 0 where they are.

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
}

#include <gsve.h>
#include <orb_utils_v4/comm.h>
#include <orb_utils_v4/reference/comm_packet.h>

#include "support/test_picture.h"

namespace {

using gsve::test::TestPicture;

// ---- What is measured ---------------------------------------------------------------------------------

struct Footprint {
    double heap;      ///< bytes that malloc has given out
    double resident;  ///< bytes
    double descriptors;
};

Footprint footprint() {
    malloc_trim(0);
    const struct mallinfo2 heap = mallinfo2();
    size_t total = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    const auto open = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    return {static_cast<double>(heap.uordblks + heap.hblkhd),
            static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)),
            static_cast<double>(open)};
}

/// The slope of the line through (x, y) with the least squares.
double slope(const std::vector<double>& x, const std::vector<double>& y) {
    const auto n = static_cast<double>(x.size());
    double sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (size_t i = 0; i < x.size(); i++) {
        sx += x[i];
        sy += y[i];
        sxx += x[i] * x[i];
        sxy += x[i] * y[i];
    }
    const double spread = n * sxx - sx * sx;
    return spread == 0 ? 0 : (n * sxy - sx * sy) / spread;
}

// ---- The encoders -------------------------------------------------------------------------------------

constexpr int kWidth = 96, kHeight = 64;

struct Codec {
    const char* name;     ///< of the setting "encoder"
    const char* library;  ///< libavcodec's name
};

constexpr Codec kCodecs[] = {{"mpeg-2", "mpeg2video"}, {"h.264", "libx264"}, {"h.265", "libx265"}};

class Channel : public GeneralStreamingVideoEncoder {
public:
    explicit Channel(const Codec& codec) {
        input_width = kWidth;
        input_height = kHeight;
        frame_rate_num = 30000;
        frame_rate_den = 1001;
        for (const auto& [key, value] :
             std::initializer_list<std::pair<const char*, const char*>>{{"encoder", codec.name},
                                                                        {"bitrate", "600000"},
                                                                        {"h.264 preset", "ultrafast"},
                                                                        {"h.264 profile", "main"},
                                                                        {"maximum threads", "1"},
                                                                        {"enable", "1"}}) {
            on_set(key, value, false);
        }
    }
    ~Channel() override {
        while (refcount > 0) client_unref();
    }

    void host_emit_data_out(const uint8_t*, size_t length, AVPacket*) override {
        units++;
        bytes += length;
    }

    bool write(const TestPicture& picture) {
        return write_video(picture.y.data(), static_cast<size_t>(picture.width), picture.u.data(),
                           static_cast<size_t>(picture.chroma_width), picture.v.data(),
                           static_cast<size_t>(picture.chroma_width), 0, timestamp++);
    }

    uint64_t timestamp = 0;
    uint64_t units = 0;
    uint64_t bytes = 0;
};

// ---- Openings -----------------------------------------------------------------------------------------

void open_and_close(const Codec& codec, const TestPicture& picture) {
    Channel channel(codec);
    if (!channel.client_addref()) throw std::runtime_error(channel.last_error);
    channel.write(picture);
    channel.client_unref();
}

/// The same exchange with libavcodec alone.
void open_and_close_bare(const Codec& codec, const TestPicture& picture) {
    AVCodecContext* context = avcodec_alloc_context3(avcodec_find_encoder_by_name(codec.library));
    context->width = kWidth;
    context->height = kHeight;
    context->pix_fmt = AV_PIX_FMT_YUV420P;
    context->time_base = {1001, 30000};
    context->framerate = {30000, 1001};
    context->bit_rate = 600000;
    context->thread_count = 1;
    av_opt_set(context->priv_data, "preset", "ultrafast", 0);
    if (codec.library == std::string("libx265"))
        av_opt_set(context->priv_data, "x265-params", "log-level=1:pools=1", 0);
    if (avcodec_open2(context, context->codec, nullptr) < 0) throw std::runtime_error(codec.library);
    AVFrame* frame = av_frame_alloc();
    frame->format = context->pix_fmt;
    frame->width = kWidth;
    frame->height = kHeight;
    frame->pts = 0;
    av_frame_get_buffer(frame, 0);
    for (int row = 0; row < kHeight; row++) {
        std::copy_n(picture.y.data() + row * kWidth, kWidth, frame->data[0] + row * frame->linesize[0]);
    }
    for (int plane = 1; plane < 3; plane++) {
        const std::vector<uint8_t>& samples = plane == 1 ? picture.u : picture.v;
        for (int row = 0; row < kHeight / 2; row++) {
            std::copy_n(samples.data() + row * kWidth / 2, kWidth / 2,
                        frame->data[plane] + row * frame->linesize[plane]);
        }
    }
    AVPacket* packet = av_packet_alloc();
    avcodec_send_frame(context, frame);
    avcodec_receive_packet(context, packet);
    av_packet_free(&packet);
    av_frame_free(&frame);
    avcodec_free_context(&context);
}

struct Growth {
    double heap;         ///< bytes per opening
    double descriptors;  ///< in all
};

Growth growth_of(int openings, const std::function<void()>& once) {
    const int warm_up = std::max(openings / 10, 3);
    for (int n = 0; n < warm_up; n++) once();
    std::vector<double> at, heap;
    at.reserve(100);  // what is measured must not grow by being measured
    heap.reserve(100);
    const double before = footprint().descriptors;
    for (int n = 0; n < openings; n++) {
        once();
        if (n % std::max(openings / 50, 1) != 0) continue;
        at.push_back(n);
        heap.push_back(footprint().heap);
    }
    return {slope(at, heap), footprint().descriptors - before};
}

/// Bytes per opening by which the library may exceed bare libavcodec: less than any object that it owns.
constexpr double kOpeningTolerance = 48;

/// True where the library keeps no more than libavcodec does.
bool check_openings(int openings) {
    const TestPicture picture(kWidth, kHeight, 1, 1, 0);
    bool flat = true;
    fmt::print("{:<8}{:>10}{:>24}{:>24}{:>14}\n", "codec", "openings", "heap bytes an opening",
               "bare libavcodec", "descriptors");
    for (const Codec& codec : kCodecs) {
        const Growth ours = growth_of(openings, [&] { open_and_close(codec, picture); });
        const Growth bare = growth_of(openings, [&] { open_and_close_bare(codec, picture); });
        const bool good = ours.heap < bare.heap + kOpeningTolerance && ours.descriptors == 0;
        fmt::print("{:<8}{:>10}{:>24.1f}{:>24.1f}{:>+14.0f}{}\n", codec.name, openings, ours.heap, bare.heap,
                   ours.descriptors, good ? "" : "  GROWS");
        std::fflush(stdout);
        flat = flat && good;
    }
    return flat;
}

// ---- Random life --------------------------------------------------------------------------------------

using Random = std::mt19937;

struct Setting {
    const char* key;
    std::vector<const char*> values;
};

const std::vector<Setting>& settings() {
    static const std::vector<Setting> all = {
        {"b frames", {"0", "2", "5"}},
        {"gop size", {"12", "1", "60", "0"}},
        {"bitrate", {"300000", "600000", "2000000"}},
        {"closed gop", {"0", "1"}},
        {"resize", {"", "64x48", "128x96", "96x64"}},
        {"resize deinterlace", {"-1", "0", "2", "3", "4"}},
        {"frame rate limit", {"0", "15", "-1"}},
        {"constant bitrate per frame", {"0", "1"}},
        {"drop frame for bitrate limit", {"0", "1"}},
        {"enable cea-708", {"-1", "0", "1"}},
        {"enable eia-608", {"-1", "0", "1"}},
        {"remove trailing zeros", {"0", "1"}},
        {"name", {"soak", "another name that does not fit into the string itself"}},
        {"no such setting", {"1"}},
        {"maximum threads", {"1", "2"}},
    };
    return all;
}

struct Life {
    uint64_t pictures = 0, refused = 0, openings = 0;
    size_t most_records = 0, most_times = 0, most_words = 0, most_constructs = 0;
};

void set_something(Channel& channel, Random& random) {
    const Setting& setting = settings()[random() % settings().size()];
    channel.on_set(setting.key, setting.values[random() % setting.values.size()], random() % 2 == 0);
}

void write_captions(Channel& channel, Random& random) {
    for (unsigned n = random() % 40; n > 0; n--) {
        channel.write_eia608(static_cast<uint8_t>(random() % 2), static_cast<uint16_t>(random()));
    }
    std::vector<zeph_cea708_word> words(random() % 30);
    for (zeph_cea708_word& word : words) word = {0xfe, static_cast<uint16_t>(random())};
    channel.write_cea708(static_cast<unsigned>(words.size()), words.data());
    uint8_t block[200];
    std::generate(std::begin(block), std::end(block), [&] { return static_cast<uint8_t>(random()); });
    channel.write_scte20(block, random() % sizeof(block));
}

void write_timecode(Channel& channel, Random& random) {
    mpeg2_gop_timecode_t code{};
    code.valid = 1;
    code.minutes = random() % 60;
    code.text = "a text that does not fit into the string itself";
    channel.write_mpeg2_gop_timecode(code);
}

void report(Channel& channel) {
    comm_socket_v4_packet packet;
    common_pkt_parsing parsing{0};
    channel.on_report(&packet, "soak", "", &parsing);
}

/// One step of a channel's life. All that is asked of the host's manual holds: nothing else may matter.
void live(Channel& channel, const std::vector<TestPicture>& pictures, Random& random, Life& life) {
    const uint64_t openings = channel.open_count;
    switch (random() % 16) {
        case 0: set_something(channel, random); break;
        case 1: report(channel); break;
        case 2: write_timecode(channel, random); break;
        case 3:
            if (channel.refcount < 3) channel.client_addref();
            break;
        case 4:
            if (channel.refcount > 0 && random() % 8 == 0) channel.client_unref();
            break;
        case 5:
            if (random() % 16 == 0) {
                while (channel.flush_delayed_video()) {
                }
            }
            break;
        case 6: channel.requested_picture_type = random() % 4 == 0 ? 'I' : -1; break;
        case 7:
            if (random() % 64 == 0) channel.timestamp += random() % 1000;  // a gap on air
            break;
        default:
            write_captions(channel, random);
            channel.host_frame_tag = random();
            life.refused += !channel.write(pictures[random() % pictures.size()]);
            life.pictures++;
    }
    life.openings += channel.open_count - openings;
    life.most_records = std::max(life.most_records, channel.aux_data_map.size());
    life.most_times = std::max(life.most_times, channel.pts_map.size());
    life.most_words =
        std::max({life.most_words, channel.eia608_field1_queue.size(), channel.eia608_field2_queue.size()});
    life.most_constructs = std::max(life.most_constructs, channel.cea708_queue.size());
}

/// Two channels, from one rest to the next.
void live_together(const Codec& codec, const std::vector<TestPicture>& pictures, Random& random, Life& life) {
    Channel channels[] = {Channel(codec), Channel(codec)};
    for (int step = 0; step < 500; step++) live(channels[random() % 2], pictures, random, life);
}

/// 60 pictures and the newest; timestamps before the first picture's, with five B-pictures; what the queues
/// keep when more comes in, and that.
constexpr size_t kMostRecords = 61, kMostTimes = 61 + 6, kMostWords = 33, kMostConstructs = 192 + 256;

struct Series {
    std::vector<double> seconds, heap, resident, descriptors;

    Series() {
        constexpr size_t kMostSamples = 1 << 20;  // days; what is measured must not grow by being measured
        for (std::vector<double>* values : {&seconds, &heap, &resident, &descriptors}) {
            values->reserve(kMostSamples);
        }
    }

    void add(double now, const Footprint& sample) {
        seconds.push_back(now);
        heap.push_back(sample.heap);
        resident.push_back(sample.resident);
        descriptors.push_back(sample.descriptors);
    }
    double growth(const std::vector<double>& values) const {
        return slope(seconds, values) * (seconds.back() - seconds.front());
    }
};

/// True where a codec's channels neither grow nor leave anything behind. libx265 keeps memory of its own with
/// every opening, differently with each configuration, so that the heap of H.265 is shown and not judged.
bool check_endurance(const Codec& codec, double minutes, unsigned seed) {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    const auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
    std::vector<TestPicture> pictures;
    for (unsigned n = 0; n < 8; n++) pictures.emplace_back(kWidth, kHeight, 1, 1, n * 5);
    Random random(seed);
    Life life;
    uint64_t warm_pictures = 0, warm_openings = 0;
    Series series;
    while (elapsed() < minutes * 60 || series.seconds.size() < 5) {
        live_together(codec, pictures, random, life);
        if (elapsed() < minutes * 60 / 4) continue;
        if (series.seconds.empty()) {
            warm_pictures = life.pictures;
            warm_openings = life.openings;
        }
        series.add(elapsed(), footprint());
    }
    const double hours = (series.seconds.back() - series.seconds.front()) / 3600;
    const double grown = series.growth(series.heap);
    const double per_opening = grown / static_cast<double>(life.openings - warm_openings);
    const double per_picture = grown / static_cast<double>(life.pictures - warm_pictures);
    const bool judged = codec.library != std::string("libx265");
    const bool flat = !judged || grown < 16 * 1024;
    const bool bounded = life.most_records <= kMostRecords && life.most_times <= kMostTimes &&
                         life.most_words <= kMostWords && life.most_constructs <= kMostConstructs;
    const bool closed = series.descriptors.front() == series.descriptors.back();
    fmt::print(
        "{:<8}{:>9} pictures {:>7} openings {:>5} samples: heap {:+.0f} KiB/h, {:+.1f} bytes an opening, "
        "{:+.2f} a picture{}; resident {:+.0f} KiB/h at {:.0f} MiB; descriptors {:+.0f}{}; at most {} "
        "records, {} timestamps, {} words, {} constructs{}\n",
        codec.name, life.pictures, life.openings, series.seconds.size(), grown / 1024 / hours, per_opening,
        per_picture, flat ? (judged ? "" : " (libx265's)") : " GROWS",
        series.growth(series.resident) / 1024 / hours, series.resident.back() / 1048576,
        series.descriptors.back() - series.descriptors.front(), closed ? "" : " GROW", life.most_records,
        life.most_times, life.most_words, life.most_constructs, bounded ? "" : " BEYOND THEIR BOUNDS");
    std::fflush(stdout);
    return flat && bounded && closed;
}

}  // namespace

int main(int argc, char** argv) {
    // malloc counts what a thread holds back for itself as given out.
    constexpr const char* kTunables = "GLIBC_TUNABLES";
    if (!getenv(kTunables)) {
        setenv(kTunables, "glibc.malloc.tcache_count=0", 1);
        execv("/proc/self/exe", argv);
    }
    CLI::App app{"Endurance of the encoder: openings, then random host operations on six objects"};
    double minutes = 10;
    int openings = 2000;
    unsigned seed = 1;
    app.add_option("--minutes", minutes, "of random operations")->check(CLI::PositiveNumber);
    app.add_option("--openings", openings, "of each codec; 0 leaves this part out")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--seed", seed, "of the random operations");
    CLI11_PARSE(app, argc, argv);

    av_log_set_level(AV_LOG_QUIET);
    if (!std::freopen("/dev/null", "w", stderr)) return 1;  // the encoders' diagnostics
    bool flat = openings == 0 || check_openings(openings);
    for (const Codec& codec : kCodecs) flat = check_endurance(codec, minutes / 3, seed) && flat;
    fmt::print("{}\n", flat ? "flat" : "NOT FLAT");
    return flat ? 0 : 1;
}
