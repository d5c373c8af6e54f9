// The element in real pipelines: with sources, decoders, combiners, muxers and payloaders around it, and with
// whatever an application may do to them while they run.

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/bytes.h"
#include "support/film_clip.h"
#include "support/scratch.h"
#include "unit_captions.h"

namespace gsve::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

constexpr GstClockTime kLongWait = 20 * GST_SECOND;

struct UnrefObject {
    void operator()(void* object) const { gst_object_unref(object); }
};

struct Unit {
    Bytes bytes;
    GstClockTime pts, dts;
};

class Pipeline {
public:
    explicit Pipeline(const std::string& description) {
        GError* error = nullptr;
        pipeline_.reset(gst_parse_launch(description.c_str(), &error));
        if (error) {
            ADD_FAILURE() << description << ": " << error->message;
            g_error_free(error);
        }
        bus_.reset(gst_element_get_bus(pipeline_.get()));
    }
    ~Pipeline() { gst_element_set_state(pipeline_.get(), GST_STATE_NULL); }
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    GstElement* get() const { return pipeline_.get(); }

    std::unique_ptr<GstElement, UnrefObject> named(const char* name) const {
        return std::unique_ptr<GstElement, UnrefObject>(gst_bin_get_by_name(GST_BIN(pipeline_.get()), name));
    }

    void play() { gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING); }

    /// Waits for the end. The text of the error, or nothing.
    std::string wait() {
        GstMessage* const message = gst_bus_timed_pop_filtered(
            bus_.get(), kLongWait, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
        return told_by(message);
    }

    std::string run() {
        play();
        return wait();
    }

    /// An error that has come; empty: none.
    std::string error() {
        GstMessage* const message = gst_bus_pop_filtered(bus_.get(), GST_MESSAGE_ERROR);
        return message ? told_by(message) : "";
    }

    /// What an appsink of that name got.
    std::vector<Unit> units(const char* sink_name) const {
        std::vector<Unit> units;
        const auto sink = named(sink_name);
        while (GstSample* const sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink.get()), 0)) {
            GstBuffer* const buffer = gst_sample_get_buffer(sample);
            GstMapInfo map;
            gst_buffer_map(buffer, &map, GST_MAP_READ);
            units.push_back(
                {Bytes(map.data, map.data + map.size), GST_BUFFER_PTS(buffer), GST_BUFFER_DTS(buffer)});
            gst_buffer_unmap(buffer, &map);
            gst_sample_unref(sample);
        }
        return units;
    }

private:
    static std::string told_by(GstMessage* message) {
        if (!message) return "it took too long";
        std::string text;
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
            GError* error = nullptr;
            gchar* details = nullptr;
            gst_message_parse_error(message, &error, &details);
            text = std::string(error->message) + " (" + (details ? details : "") + ")";
            g_error_free(error);
            g_free(details);
        }
        gst_message_unref(message);
        return text;
    }

    std::unique_ptr<GstElement, UnrefObject> pipeline_;
    std::unique_ptr<GstBus, UnrefObject> bus_;
};

std::string source(int pictures, const std::string& more = "") {
    return "videotestsrc num-buffers=" + std::to_string(pictures) +
           " ! video/x-raw,format=I420,width=128,height=96,framerate=30000/1001" + more + " ! ";
}

const std::string kSink = " ! appsink name=sink sync=false wait-on-eos=false";
const std::string kQuick = "gsveenc bitrate=1000000 h-264-preset=ultrafast ";

TEST(Pipelines, BringEachPictureThroughMuxersAndPayloaders) {
    const std::string ways[] = {
        kQuick + "codec=mpeg-2 ! mpegtsmux ! tsdemux ! mpegvideoparse",
        kQuick +
            "codec=h.264 ! mpegtsmux ! tsdemux ! h264parse ! "
            "video/x-h264,stream-format=byte-stream,alignment=au",
        kQuick + "codec=h.265 ! mpegtsmux ! tsdemux ! h265parse ! video/x-h265,alignment=au",
        kQuick +
            "codec=h.264 ! h264parse ! mp4mux ! qtdemux ! h264parse ! "
            "video/x-h264,stream-format=byte-stream,alignment=au",
        kQuick +
            "codec=h.265 ! h265parse ! matroskamux ! matroskademux ! h265parse ! video/x-h265,alignment=au",
        kQuick +
            "! rtph264pay ! rtph264depay ! h264parse ! video/x-h264,stream-format=byte-stream,alignment=au",
        kQuick + "! mpegvideoparse ! rtpmpvpay ! rtpmpvdepay ! mpegvideoparse",
    };
    for (const std::string& way : ways) {
        SCOPED_TRACE(way);
        Pipeline pipeline(source(50) + way + kSink);
        ASSERT_EQ(pipeline.run(), "");
        EXPECT_EQ(pipeline.units("sink").size(), 50u);
    }
}

TEST(Pipelines, AreWrittenAsSegmentsThatBeginWithKeyPictures) {
    const ScratchDirectory scratch;
    // Six seconds, of which a segment has two: it is hlssink2 that asks for the key pictures.
    Pipeline pipeline(source(180) + kQuick +
                      "gop-size=1000 closed-gop=true codec=h.264 ! h264parse ! hlssink2 " +
                      "target-duration=2 location=" + (scratch / "%d.ts") +
                      " playlist-location=" + (scratch / "list.m3u8"));
    ASSERT_EQ(pipeline.run(), "");
    EXPECT_GE(std::ranges::count_if(std::filesystem::directory_iterator(scratch / ""),
                                    [](const auto& entry) { return entry.path().extension() == ".ts"; }),
              3);
    for (const char* name : {"0.ts", "1.ts", "2.ts"}) {
        Pipeline segment("filesrc location=" + (scratch / name) +
                         " ! tsdemux ! h264parse ! video/x-h264,stream-format=byte-stream,alignment=au" +
                         kSink);
        ASSERT_EQ(segment.run(), "") << name;
        const std::vector<Unit> units = segment.units("sink");
        ASSERT_FALSE(units.empty()) << name;
        const auto nals = encoding::nal_units(units[0].bytes);
        EXPECT_TRUE(std::ranges::any_of(nals, [](const auto& nal) { return (nal.bytes[0] & 0x1F) == 5; }))
            << name;
    }
}

TEST(Pipelines, EncodeWhatADecoderGives) {
    ASSERT_TRUE(std::filesystem::exists(film_clip_path())) << "./dev test fetches it";
    Pipeline pipeline("filesrc location=" + film_clip_path() +
                      " ! decodebin ! videoconvert ! videoscale ! "
                      "video/x-raw,format=I420,width=320,height=180 ! tee name=t "
                      "t. ! queue ! " +
                      kQuick + "codec=h.264 ! appsink name=sink sync=false wait-on-eos=false " +
                      "t. ! queue ! " + kQuick +
                      "codec=mpeg-2 ! appsink name=other sync=false wait-on-eos=false");
    ASSERT_EQ(pipeline.run(), "");
    const size_t pictures = pipeline.units("sink").size();
    EXPECT_NEAR(static_cast<double>(pictures), 190, 3) << "two encoders in one pipeline";
    EXPECT_EQ(pipeline.units("other").size(), pictures);
}

TEST(Pipelines, GiveAnEncoderBehindEachBranchItsOwnSettings) {
    Pipeline pipeline(source(60) + "tee name=t t. ! queue ! " + kQuick +
                      "codec=h.264 b-frames=0 ! appsink name=sink sync=false wait-on-eos=false " +
                      "t. ! queue ! " + kQuick +
                      "codec=h.265 resize=64x48 ! appsink name=other sync=false wait-on-eos=false");
    ASSERT_EQ(pipeline.run(), "");
    const std::vector<Unit> first = pipeline.units("sink"), second = pipeline.units("other");
    ASSERT_EQ(first.size(), 60u);
    ASSERT_EQ(second.size(), 60u);
    for (size_t n = 1; n < 60; n++) {
        EXPECT_LT(first[n - 1].pts, first[n].pts) << "without B-pictures";
        EXPECT_LT(second[n - 1].dts, second[n].dts);
    }
}

/// cc_data of one picture, with text that tells it.
Bytes triples_of(uint64_t n) {
    Bytes triples;
    for (const int field : {0, 1}) {
        const captions::Word pair = captions::with_parity(
            captions::make_word(0x20 + static_cast<unsigned>(n % 90), 0x30 + static_cast<unsigned>(field)));
        triples.insert(triples.end(), {static_cast<uint8_t>(0xFC | field), static_cast<uint8_t>(pair >> 8),
                                       static_cast<uint8_t>(pair & 0xFF)});
    }
    return triples;
}

std::vector<captions::Word> pairs_in(const std::string& codec, std::vector<Unit> units, int field) {
    std::ranges::sort(units, {}, &Unit::pts);
    std::vector<captions::Word> pairs;
    for (const Unit& unit : units) {
        const auto found = unit_captions(codec, unit.bytes).fields[field];
        pairs.insert(pairs.end(), found.begin(), found.end());
    }
    return pairs;
}

TEST(Pipelines, CarryCaptionsFromACombinerByteForByteAsAnotherEncoderDoes) {
    Pipeline pipeline(
        "videotestsrc num-buffers=90 ! video/x-raw,format=I420,width=128,height=96,framerate=30/1 ! c.sink "
        "appsrc name=captions format=time caps=closedcaption/x-cea-708,format=cc_data,framerate=30/1 ! "
        "c.caption "
        "cccombiner name=c schedule=false ! tee name=t "
        "t. ! queue ! " +
        kQuick +
        "codec=mpeg-2 ! appsink name=mpeg2 sync=false wait-on-eos=false "
        "t. ! queue ! " +
        kQuick +
        "codec=h.264 ! appsink name=h264 sync=false wait-on-eos=false "
        "t. ! queue ! " +
        kQuick +
        "codec=h.265 ! appsink name=h265 sync=false wait-on-eos=false "
        "t. ! queue ! x264enc tune=zerolatency byte-stream=true ! "
        "video/x-h264,stream-format=byte-stream,alignment=au ! appsink "
        "name=other sync=false wait-on-eos=false");
    const auto captions = pipeline.named("captions");
    for (uint64_t n = 0; n < 90; n++) {
        const Bytes triples = triples_of(n);
        GstBuffer* const buffer = gst_buffer_new_memdup(triples.data(), triples.size());
        GST_BUFFER_PTS(buffer) = gst_util_uint64_scale(n, GST_SECOND, 30);
        GST_BUFFER_DURATION(buffer) = GST_SECOND / 30;
        gst_app_src_push_buffer(GST_APP_SRC(captions.get()), buffer);
    }
    gst_app_src_end_of_stream(GST_APP_SRC(captions.get()));
    ASSERT_EQ(pipeline.run(), "");
    const std::vector<Unit> other = pipeline.units("other");
    ASSERT_EQ(other.size(), 90u);
    const std::pair<const char*, const char*> ours[] = {
        {"mpeg-2", "mpeg2"}, {"h.264", "h264"}, {"h.265", "h265"}};
    for (const auto& [codec, sink] : ours) {
        const std::vector<Unit> units = pipeline.units(sink);
        ASSERT_EQ(units.size(), 90u) << codec;
        for (const int field : {0, 1}) {
            std::vector<captions::Word> sent;
            for (uint64_t n = 0; n < 90; n++)
                sent.push_back(captions::parse_cc_data(triples_of(n)).captions.fields[field].front());
            EXPECT_EQ(pairs_in(codec, units, field), sent) << codec;
            EXPECT_EQ(pairs_in("h.264", other, field), sent) << "the other encoder";
        }
    }
}

struct Launched {
    std::string said;
    int status;
};

Launched launch(const std::string& environment, const std::string& description) {
    Launched run;
    FILE* const pipe =
        popen((environment + " timeout 60 gst-launch-1.0 -q " + description + " 2>&1").c_str(), "r");
    std::array<char, 4096> part{};
    for (size_t size; (size = std::fread(part.data(), 1, part.size(), pipe)) > 0;)
        run.said.append(part.data(), size);
    run.status = pclose(pipe);
    return run;
}

TEST(Pipelines, OfOneLineWorkAndSayNothing) {
    const ScratchDirectory scratch;
    for (const char* codec : {"default", "mpeg-2", "h.264", "h.265"}) {
        const Launched run =
            launch("", "videotestsrc num-buffers=100 ! gsveenc bitrate=4000000 codec=" + std::string(codec) +
                           " ! mpegtsmux ! filesink location=" + (scratch / "film.ts"));
        EXPECT_EQ(run.status, 0) << codec;
        EXPECT_EQ(run.said, "") << codec;
        EXPECT_GT(std::filesystem::file_size(scratch / "film.ts"), 100'000u) << codec;
    }
}

/// Of the tracer's lines, one for each object that is left.
std::string left_objects(const std::string& said) {
    constexpr std::string_view kLine = "object-alive, type-name=(string)";
    std::string left;
    EXPECT_THAT(said, HasSubstr("object-alive.class")) << "the tracer is not at work";
    for (size_t at = 0; (at = said.find(kLine, at)) != said.npos; at += kLine.size())
        if (said[at + kLine.size()] != '%') left += said.substr(at, said.find('\n', at) - at) + "\n";
    return left;
}

TEST(Pipelines, LeaveNoObjectBehind) {
    for (const char* codec : {"mpeg-2", "h.264", "h.265"}) {
        const std::string description =
            "videotestsrc num-buffers=40 ! video/x-raw,format=I420 ! gsveenc bitrate=1000000 "
            "frame-rate-limit=15 codec=" +
            std::string(codec) + " ! fakesink";
        const Launched run =
            launch("GST_TRACERS=leaks GST_DEBUG=GST_TRACER:7 GST_DEBUG_NO_COLOR=1", description);
        EXPECT_EQ(run.status, 0) << run.said;
        EXPECT_EQ(left_objects(run.said), "") << codec;
    }
    // Stopped in the middle, by an error.
    const Launched failed =
        launch("GST_TRACERS=leaks GST_DEBUG=GST_TRACER:7 GST_DEBUG_NO_COLOR=1",
               "videotestsrc ! gsveenc bitrate=1000000 ! identity error-after=20 ! fakesink");
    EXPECT_EQ(left_objects(failed.said), "");
}

// An application

/// Looks at what leaves the encoder: between flushes decoding times rise.
struct Watch {
    std::atomic<uint64_t> units = 0;
    std::atomic<bool> went_back = false;
    GstClockTime latest = GST_CLOCK_TIME_NONE;

    static GstPadProbeReturn look(GstPad*, GstPadProbeInfo* info, gpointer data) {
        auto& watch = *static_cast<Watch*>(data);
        if (info->type & GST_PAD_PROBE_TYPE_BUFFER) {
            const GstClockTime dts = GST_BUFFER_DTS(GST_PAD_PROBE_INFO_BUFFER(info));
            if (GST_CLOCK_TIME_IS_VALID(watch.latest) && dts < watch.latest) watch.went_back = true;
            watch.latest = dts;
            watch.units++;
        } else if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_FLUSH_STOP ||
                   GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_STREAM_START ||
                   GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_SEGMENT) {
            watch.latest = GST_CLOCK_TIME_NONE;
        }
        return GST_PAD_PROBE_OK;
    }
};

class Application {
public:
    Application(const std::string& codec, unsigned seed)
        : random_(seed),
          pipeline_("videotestsrc ! video/x-raw,format=I420,width=128,height=96,framerate=60/1 ! " + kQuick +
                    "name=encoder h-264-profile=main codec=" + codec + " ! fakesink name=sink sync=false"),
          encoder_(pipeline_.named("encoder")) {
        const auto sink = pipeline_.named("sink");
        GstPad* const pad = gst_element_get_static_pad(sink.get(), "sink");
        constexpr auto kLooked = static_cast<GstPadProbeType>(
            GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM | GST_PAD_PROBE_TYPE_EVENT_FLUSH);
        gst_pad_add_probe(pad, kLooked, Watch::look, &watch_, nullptr);
        gst_object_unref(pad);
        enter(GST_STATE_PLAYING);
    }

    /// One operation, and its name.
    std::string act() {
        switch (random_() % 8) {
            case 0: return enter(GST_STATE_PAUSED), "paused";
            case 1: return enter(GST_STATE_PLAYING), "playing";
            case 2: return enter(GST_STATE_READY), enter(GST_STATE_PLAYING), "ready and playing";
            case 3: return enter(GST_STATE_NULL), enter(GST_STATE_PAUSED), "null and paused";
            case 4: return seek(), "seek";
            case 5: return set(), "property";
            case 6: return force_key(), "key unit";
            default: return let_run(), "runs";
        }
    }

    /// What is wrong; empty: nothing.
    std::string complaint() {
        if (watch_.went_back) return "decoding times went back";
        if (stuck_) return "a state was not reached";
        return pipeline_.error();
    }

    uint64_t units() const { return watch_.units; }

    /// Some units more, which come where the pipeline still works.
    void let_run() {
        enter(GST_STATE_PLAYING);
        const uint64_t wanted = watch_.units + 5;
        for (int tries = 0; tries < 10'000 && watch_.units < wanted; tries++) g_usleep(1000);
        stuck_ |= watch_.units < wanted;
    }

private:
    void enter(GstState state) {
        if (gst_element_set_state(pipeline_.get(), state) == GST_STATE_CHANGE_FAILURE) stuck_ = true;
        if (gst_element_get_state(pipeline_.get(), nullptr, nullptr, kLongWait) == GST_STATE_CHANGE_ASYNC)
            stuck_ = true;
    }

    void seek() {
        const auto flags =
            static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | (random_() % 2 ? GST_SEEK_FLAG_ACCURATE : 0));
        gst_element_seek_simple(pipeline_.get(), GST_FORMAT_TIME, flags,
                                static_cast<gint64>(random_() % 100 * GST_SECOND));
        enter(GST_STATE_PAUSED);
    }

    void set() {
        constexpr std::pair<const char*, const char*> kValues[] = {{"bitrate", "500000"},
                                                                   {"bitrate", "900000"},
                                                                   {"b-frames", "0"},
                                                                   {"b-frames", "3"},
                                                                   {"gop-size", "7"},
                                                                   {"gop-size", "-1"},
                                                                   {"remove-trailing-zeros", "true"},
                                                                   {"adapt", "false"},
                                                                   {"adapt", "true"},
                                                                   {"frame-rate-limit", "30"},
                                                                   {"frame-rate-limit", "0"},
                                                                   {"resize", "96x64"},
                                                                   {"resize", ""}};
        const auto& [name, value] = kValues[random_() % std::size(kValues)];
        gst_util_set_object_arg(G_OBJECT(encoder_.get()), name, value);
        GstStructure* status = nullptr;
        g_object_get(encoder_.get(), "status", &status, nullptr);
        gst_structure_free(status);
    }

    void force_key() {
        gst_element_send_event(encoder_.get(),
                               gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 0));
    }

    std::mt19937 random_;
    Watch watch_;
    Pipeline pipeline_;
    std::unique_ptr<GstElement, UnrefObject> encoder_;
    bool stuck_ = false;
};

unsigned number_from(const char* variable, unsigned otherwise) {
    const char* const text = std::getenv(variable);
    return text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

TEST(Pipelines, LiveThroughSeeksStatesAndPropertiesInAnyOrder) {
    const unsigned operations = number_from("GSVE_CAMPAIGN_OPERATIONS", 50);
    const unsigned seed = number_from("GSVE_CAMPAIGN_SEED", 1);
    uint64_t units = 0;
    for (const char* codec : {"mpeg-2", "h.264", "h.265"}) {
        Application application(codec, seed);
        std::string history;
        for (unsigned n = 0; n < operations / 3 + 1; n++) {
            history += application.act() + "; ";
            const std::string complaint = application.complaint();
            ASSERT_EQ(complaint, "") << codec << ", seed " << seed << ": " << history;
        }
        application.let_run();
        EXPECT_EQ(application.complaint(), "") << codec << ", seed " << seed << ": " << history;
        units += application.units();
    }
    std::printf("%u operations, %llu units\n", operations, static_cast<unsigned long long>(units));
}

}  // namespace
}  // namespace gsve::test
