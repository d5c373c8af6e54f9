// gsveenc beside GStreamer's other encoders with the same settings: processor time and wall time for the same
// pictures, the delay from a picture's arrival to its unit's departure, and how many 1080i channels the
// machine holds in real time. The pairs take turns, so that whatever else the machine does meets both; ratios
// are taken round by round, and their medians printed. usage: gstreamer_bench [ROUNDS [PICTURES]]

#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include <time.h>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "support/test_picture.h"

namespace {

constexpr int kWidth = 1920, kHeight = 1080;
constexpr double kRate = 30000 / 1001.0;
constexpr int kDifferent = 12;  ///< pictures; they are shown over and over

const std::string kCaps =
    "video/x-raw,format=I420,width=1920,height=1080,framerate=30000/1001,interlace-mode=interleaved,"
    "field-order=top-field-first,colorimetry=bt709";

struct Pair {
    const char* name;
    const char* ours;
    std::vector<std::string> others;  ///< the first that works here is the peer
};

/// The same rate, groups, B-pictures, threads and presets. What the other element cannot be told is as it is.
const std::vector<Pair> kPairs = {
    {"MPEG-2",
     "gsveenc codec=mpeg-2 adapt=false bitrate=15000000 min-bitrate=0 gop-size=15 b-frames=2 "
     "maximum-threads=2",
     {"avenc_mpeg2video bitrate=15000000 maxrate=15000000 bufsize=1835008 gop-size=15 max-bframes=2 "
      "threads=auto "
      "flags=ildct mbd=bits noise-reduction=5 me-range=16 dia-size=-2 pre-dia-size=-2 mepre=0 "
      "scplx-mask=0.02 "
      "tcplx-mask=0.005 p-mask=0.8"}},
    {"H.264",
     "gsveenc codec=h.264 bitrate=8000000 gop-size=15 b-frames=2 maximum-threads=2 h-264-preset=superfast "
     "h-264-profile=high",
     {"x264enc bitrate=8000 key-int-max=15 bframes=2 b-adapt=false threads=2 speed-preset=superfast "
      "interlaced=true vbv-buf-capacity=250 byte-stream=true"}},
};

std::vector<GstBuffer*> make_pictures() {
    std::vector<GstBuffer*> pictures;
    for (unsigned n = 0; n < kDifferent; n++) {
        const gsve::test::TestPicture look(kWidth, kHeight, 1, 1, 5 * n);
        GstBuffer* const buffer = gst_buffer_new_allocate(nullptr, kWidth * kHeight * 3 / 2, nullptr);
        GstMapInfo map;
        gst_buffer_map(buffer, &map, GST_MAP_WRITE);
        std::memcpy(map.data, look.y.data(), look.y.size());
        // Grain, as cameras have it.
        uint32_t state = n + 1;
        for (size_t at = 0; at < look.y.size(); at++) {
            state = state * 1664525 + 1013904223;
            map.data[at] = static_cast<uint8_t>(map.data[at] + (state >> 30));
        }
        std::memcpy(map.data + look.y.size(), look.u.data(), look.u.size());
        std::memcpy(map.data + look.y.size() + look.u.size(), look.v.data(), look.v.size());
        gst_buffer_unmap(buffer, &map);
        pictures.push_back(buffer);
    }
    return pictures;
}

double process_seconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double wall_seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

class Channel {
public:
    Channel(const std::string& encoder, const std::vector<GstBuffer*>& pictures, int count) {
        GError* error = nullptr;
        const std::string text = "appsrc name=source format=time max-bytes=0 caps=\"" + kCaps + "\" ! " +
                                 encoder + " name=encoder ! fakesink sync=false";
        pipeline_ = gst_parse_launch(text.c_str(), &error);
        if (error) {
            std::fprintf(stderr, "%s: %s\n", text.c_str(), error->message);
            std::exit(1);
        }
        GstElement* const source = gst_bin_get_by_name(GST_BIN(pipeline_), "source");
        for (int n = 0; n < count; n++) {
            GstBuffer* const picture = gst_buffer_copy(pictures[static_cast<size_t>(n) % pictures.size()]);
            GST_BUFFER_PTS(picture) =
                gst_util_uint64_scale(static_cast<guint64>(n), 1001 * GST_SECOND, 30000);
            GST_BUFFER_DURATION(picture) = gst_util_uint64_scale(1, 1001 * GST_SECOND, 30000);
            GST_BUFFER_FLAG_SET(picture, GST_VIDEO_BUFFER_FLAG_INTERLACED | GST_VIDEO_BUFFER_FLAG_TFF);
            gst_app_src_push_buffer(GST_APP_SRC(source), picture);
        }
        gst_app_src_end_of_stream(GST_APP_SRC(source));
        gst_object_unref(source);
    }
    ~Channel() {
        gst_element_set_state(pipeline_, GST_STATE_NULL);
        gst_object_unref(pipeline_);
    }
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    void start() { gst_element_set_state(pipeline_, GST_STATE_PLAYING); }

    /// False where the pipeline failed.
    bool wait() {
        GstBus* const bus = gst_element_get_bus(pipeline_);
        GstMessage* const message = gst_bus_timed_pop_filtered(
            bus, 600 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
        const bool ended = message && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS;
        if (message) gst_message_unref(message);
        gst_object_unref(bus);
        return ended;
    }

private:
    GstElement* pipeline_;
};

struct Cost {
    double processor, wall;  ///< seconds a picture
};

Cost cost_of(const std::string& encoder, const std::vector<GstBuffer*>& pictures, int count) {
    Channel channel(encoder, pictures, count);
    const double processor = process_seconds(), wall = wall_seconds();
    channel.start();
    channel.wait();
    return {(process_seconds() - processor) / count, (wall_seconds() - wall) / count};
}

/// Some releases' elements refuse every rate that broadcast has.
std::string peer_of(const Pair& pair, const std::vector<GstBuffer*>& pictures) {
    for (const std::string& other : pair.others) {
        Channel trial(other, pictures, 8);
        trial.start();
        if (trial.wait()) return other;
        std::printf("%-7s %s does not open here\n", pair.name, other.substr(0, other.find(' ')).c_str());
    }
    return "";
}

double median(std::vector<double> values) {
    std::ranges::sort(values);
    return values[values.size() / 2];
}

void compare_costs(const Pair& pair, const std::string& peer, const std::vector<GstBuffer*>& pictures,
                   int rounds, int count) {
    std::vector<double> ours[2], others[2], ratios[2];
    for (int round = 0; round < rounds; round++) {
        Cost own{}, other{};
        const auto run_ours = [&] { own = cost_of(pair.ours, pictures, count); };
        const auto run_other = [&] { other = cost_of(peer, pictures, count); };
        if (round % 2 == 0) run_ours();
        run_other();
        if (round % 2 == 1) run_ours();
        ours[0].push_back(own.processor), ours[1].push_back(own.wall);
        others[0].push_back(other.processor), others[1].push_back(other.wall);
        ratios[0].push_back(own.processor / other.processor), ratios[1].push_back(own.wall / other.wall);
    }
    const char* const what[] = {"processor", "wall"};
    for (int n = 0; n < 2; n++)
        std::printf("%-7s %-9s ours %6.2f ms  other %6.2f ms  ratio %.3f\n", pair.name, what[n],
                    1000 * median(ours[n]), 1000 * median(others[n]), median(ratios[n]));
    std::fflush(stdout);
}

/// Arrivals and departures at an encoder's pads, by picture.
struct Delays {
    std::mutex mutex;
    std::map<GstClockTime, std::pair<double, int>> in;  ///< by time: when, and as which one
    int arrived = 0;
    GstClockTime first = GST_CLOCK_TIME_NONE;
    std::vector<double> seconds, pictures;

    static GstPadProbeReturn arrive(GstPad*, GstPadProbeInfo* info, gpointer data) {
        auto& delays = *static_cast<Delays*>(data);
        const std::lock_guard lock(delays.mutex);
        delays.in[GST_BUFFER_PTS(GST_PAD_PROBE_INFO_BUFFER(info))] = {wall_seconds(), delays.arrived++};
        return GST_PAD_PROBE_OK;
    }
    static GstPadProbeReturn leave(GstPad*, GstPadProbeInfo* info, gpointer data) {
        auto& delays = *static_cast<Delays*>(data);
        const std::lock_guard lock(delays.mutex);
        const GstClockTime pts = GST_BUFFER_PTS(GST_PAD_PROBE_INFO_BUFFER(info));
        if (!GST_CLOCK_TIME_IS_VALID(delays.first)) delays.first = pts - delays.in.begin()->first;
        const auto found = delays.in.find(pts - delays.first);
        if (found == delays.in.end()) return GST_PAD_PROBE_OK;
        delays.seconds.push_back(wall_seconds() - found->second.first);
        delays.pictures.push_back(delays.arrived - 1 - found->second.second);
        return GST_PAD_PROBE_OK;
    }
};

/// In real time, from a live source.
void measure_delay(const char* name, const std::string& encoder) {
    const std::string text = "videotestsrc is-live=true num-buffers=90 pattern=ball ! " + kCaps + " ! " +
                             encoder + " name=encoder ! fakesink sync=false";
    GstElement* const pipeline = gst_parse_launch(text.c_str(), nullptr);
    GstElement* const element = gst_bin_get_by_name(GST_BIN(pipeline), "encoder");
    Delays delays;
    for (const char* pad_name : {"sink", "src"}) {
        GstPad* const pad = gst_element_get_static_pad(element, pad_name);
        gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER,
                          *pad_name == 's' && pad_name[1] == 'i' ? Delays::arrive : Delays::leave, &delays,
                          nullptr);
        gst_object_unref(pad);
    }
    gst_object_unref(element);
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstBus* const bus = gst_element_get_bus(pipeline);
    GstMessage* const message = gst_bus_timed_pop_filtered(
        bus, 60 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    if (message) gst_message_unref(message);
    gst_object_unref(bus);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
    if (delays.seconds.empty()) return;
    std::printf("%-24s delay: median %4.0f ms, most %2.0f pictures\n", name, 1000 * median(delays.seconds),
                *std::ranges::max_element(delays.pictures));
}

/// Channels side by side, as many as each keep up with real time.
int channels_of(const std::string& encoder, const std::vector<GstBuffer*>& pictures, int count) {
    for (int channels = 1;; channels++) {
        std::vector<std::unique_ptr<Channel>> running;
        for (int n = 0; n < channels; n++)
            running.push_back(std::make_unique<Channel>(encoder, pictures, count));
        const double begin = wall_seconds();
        for (auto& channel : running) channel->start();
        for (auto& channel : running) channel->wait();
        if (count / (wall_seconds() - begin) < kRate) return channels - 1;
    }
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 9;
    const int count = argc > 2 ? std::atoi(argv[2]) : 60;
    if (rounds < 1 || count < 1) {
        std::fprintf(stderr, "usage: gstreamer_bench [ROUNDS [PICTURES]]\n");
        return 2;
    }
    setenv("GST_PLUGIN_PATH", GSVE_PLUGIN_DIRECTORY, 1);
    gst_init(nullptr, nullptr);
    const std::vector<GstBuffer*> pictures = make_pictures();
    std::printf("1920x1080i, 29.97 pictures/s, %u processors, %d rounds of %d pictures\n",
                g_get_num_processors(), rounds, count);
    for (const Pair& pair : kPairs) {
        const std::string peer = peer_of(pair, pictures);
        const std::string peer_name = peer.substr(0, peer.find(' '));
        std::printf("%-7s gsveenc %s\n", pair.name, peer.empty() ? "alone" : ("beside " + peer_name).c_str());
        if (peer.empty()) {
            const Cost own = cost_of(pair.ours, pictures, count);
            std::printf("%-7s processor %.2f ms, wall %.2f ms\n", pair.name, 1000 * own.processor,
                        1000 * own.wall);
        } else {
            compare_costs(pair, peer, pictures, rounds, count);
        }
        for (const auto& [name, encoder] :
             {std::pair<std::string, std::string>{"gsveenc", pair.ours}, {peer_name, peer}}) {
            if (encoder.empty()) continue;
            measure_delay(name.c_str(), encoder);
            std::printf("%-24s channels in real time: %d\n", name.c_str(),
                        channels_of(encoder, pictures, count));
            std::fflush(stdout);
        }
    }
    for (GstBuffer* picture : pictures) gst_buffer_unref(picture);
    return 0;
}
