// Every failure exit of opening made to happen: result, texts, what was released, and a successful opening
// after it.

#include <fcntl.h>
#include <unistd.h>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <orb_utils_v4/comm.h>

#include "support/interposed_codec.h"
#include "support/subject.h"
#include "support/test_picture.h"

#if defined(GSVE_SANITIZED_ADDRESS) || defined(GSVE_SANITIZED_THREAD)
// The sanitizer owns malloc here: planes are made to fail by their size.
#define GSVE_SANITIZER_OWNS_MALLOC
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=256";
}
extern "C" const char* __tsan_default_options() { return __asan_default_options(); }
#endif

namespace gsve::test {

/// malloc and free, as far as allocations of the sizes under watch are concerned.
struct PlaneListener {
    bool armed = false;
    size_t sizes[2] = {};
    int failing = -1;  ///< which watched allocation fails, counted from 0; -1 none
    std::vector<size_t> requested;
    void* alive[8] = {};

    void arm(size_t luma, size_t chroma, int failing_plane) {
        requested.clear();
        requested.reserve(16);
        for (void*& pointer : alive) pointer = nullptr;
        sizes[0] = luma;
        sizes[1] = chroma;
        failing = failing_plane;
        armed = true;
    }
    int alive_count() const {
        int count = 0;
        for (const void* pointer : alive) count += pointer != nullptr;
        return count;
    }
};
PlaneListener planes;

/// operator new, made to fail on demand.
struct HeapListener {
    bool armed = false;
    int allocations = 0;
    int failing_allocation = -1;
};
HeapListener heap;

}  // namespace gsve::test

#if !defined(GSVE_SANITIZER_OWNS_MALLOC)
extern "C" {

void* __libc_malloc(size_t);
void __libc_free(void*);

void* malloc(size_t size) {
    auto& planes = gsve::test::planes;
    if (!planes.armed || (size != planes.sizes[0] && size != planes.sizes[1])) return __libc_malloc(size);
    const int number = static_cast<int>(planes.requested.size());
    planes.requested.push_back(size);
    if (number == planes.failing) return nullptr;
    void* memory = __libc_malloc(size);
    if (number < 8) planes.alive[number] = memory;
    return memory;
}

void free(void* memory) {
    auto& planes = gsve::test::planes;
    if (planes.armed && memory)
        for (void*& pointer : planes.alive)
            if (pointer == memory) pointer = nullptr;
    __libc_free(memory);
}

}  // extern "C"
#endif

// Inlined, they would look to the compiler like a new that is given to free.
[[gnu::noinline]] void* operator new(size_t size) {
    auto& heap = gsve::test::heap;
    if (heap.armed && gsve::test::codec_listener.depth == 0 && heap.allocations++ == heap.failing_allocation)
        throw std::bad_alloc();
    if (void* memory = std::malloc(size ? size : 1)) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new[](size_t size) { return operator new(size); }
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete[](void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete[](void* memory, size_t) noexcept { std::free(memory); }

namespace gsve::test {
namespace {

class InitFailures : public testing::Test {
protected:
    void SetUp() override { codec_listener.reset(); }
    void TearDown() override { EXPECT_EQ(codec_listener.alive(), 0u) << "codec objects left"; }
};

void expect_closed(const GeneralStreamingVideoEncoder& host) {
    EXPECT_FALSE(host.encoder_open);
    EXPECT_EQ(host.mpeg_codec, nullptr);
    EXPECT_EQ(host.mpeg_context, nullptr);
    EXPECT_EQ(host.mpeg_frame, nullptr);
    EXPECT_EQ(host.mpeg_packet, nullptr);
    EXPECT_EQ(host.output_window, nullptr);
    for (int plane = 0; plane < 4; plane++) {
        EXPECT_EQ(host.resize_buffer[plane], nullptr) << plane;
        EXPECT_EQ(host.resize_buffer_stride[plane], 0u) << plane;
    }
    EXPECT_EQ(codec_listener.alive(), 0u) << "codec objects left";
}

/// Opens with the real codec, encodes, drains and closes.
void expect_opens_and_encodes(Subject& host) {
    codec_listener.reset();
    if (host.refcount == 0) host.refcount = 1;
    host.units.clear();
    stderr_of([&] {
        ASSERT_TRUE(host.init_encoder()) << host.last_error;
        EXPECT_EQ(host.last_error, "");
        EXPECT_TRUE(host.encoder_open);
        for (unsigned n = 0; n < 3; n++) {
            const TestPicture p(host.input_width, host.input_height, 1, 1, n);
            EXPECT_TRUE(host.write_video(p.y.data(), p.width, p.u.data(), p.chroma_width, p.v.data(),
                                         p.chroma_width, -1, n));
        }
        while (host.flush_delayed_video()) {
        }
    });
    EXPECT_EQ(host.units.size(), 3u);
    host.free_encoder();
    expect_closed(host);
}

const std::string kRate = "Source frame rate 25.000000 (25/1) encoder frame rate 25.000000 (25/1)\n";
const std::string kNote = "Encoding to pixel format 4:2:0\n";

struct FailureCase {
    const char* name;
    std::function<void(Subject&)> cause;
    std::function<void(Subject&)> remedy;
    std::string printed;
    std::string last_error;
    std::string last_notes;
    int frees;
};

void none(Subject&) {}

FailureCase failing_call(const char* name, Call call, const char* printed, const char* last_error) {
    return {name, [call](Subject&) { codec_listener.failing = call; }, none, printed, last_error, kNote, 1};
}

std::vector<FailureCase> failure_cases(int codec) {
    const std::string story = codec == kMpeg2 ? kRate : kRate + "H.264 profile default: main\nH.264 CBR\n";
    std::vector<FailureCase> cases = {
        {"no client", [](Subject& h) { h.refcount = 0; }, none, "", "earlier", "earlier notes", 0},
        {"no codec", [](Subject& h) { h.codec_id = 0; }, [codec](Subject& h) { h.codec_id = codec; }, "",
         "earlier", "earlier notes", 0},
        {"bit rate", [](Subject& h) { h.bitrate = 9999; }, [](Subject& h) { h.bitrate = 10000000; }, "",
         "Bitrate out of range", "", 0},
        {"unknown codec", [](Subject& h) { h.codec_id = 5; }, [codec](Subject& h) { h.codec_id = codec; }, "",
         "Codec unknown", "", 0},
        {"input chroma", [](Subject& h) { h.input_chroma_shift_x = 0; },
         [](Subject& h) { h.input_chroma_shift_x = 1; }, "Unrecognized chroma x/y 0/1\n",
         "Unsupported chroma format", "", 0},
        failing_call("no encoder", Call::kFindEncoder, "Unable to find any MPEG-2 encoder\n",
                     "Unable to find encoder"),
        failing_call("context", Call::kAllocContext, "Unable to allocate FFMPEG context\n",
                     "Unable to allocate encoder"),
        failing_call("frame", Call::kAllocFrame, "Unable to allocate FFMPEG AVFrame\n",
                     "Unable to allocate encoder frame"),
        failing_call("packet", Call::kAllocPacket, "Unable to allocate FFMPEG AVPacket\n",
                     "Unable to allocate encoder packet"),
    };
    for (int refusal : {AVERROR(EINVAL), AVERROR(ENOMEM), AVERROR_UNKNOWN, 1})
        cases.push_back({"opening",
                         [refusal](Subject&) {
                             codec_listener.opening = Opening::kRefuse;
                             codec_listener.refusal = refusal;
                         },
                         none, story + "Unable to open encoder\n", "Unable to open encoder", kNote, 1});
    return cases;
}

TEST_F(InitFailures, ReportReleaseAndLeaveTheEncoderUsable) {
    for (int codec : kAllCodecs)
        for (const FailureCase& c : failure_cases(codec)) {
            SCOPED_TRACE("codec " + std::to_string(codec) + ": " + c.name);
            codec_listener.reset();
            Subject host(codec);
            host.refcount = 1;
            host.last_error = "earlier";
            host.last_notes = "earlier notes";
            c.cause(host);
            bool result = true;
            EXPECT_EQ(stderr_of([&] { result = host.init_encoder(); }), c.printed);
            EXPECT_FALSE(result);
            EXPECT_EQ(host.last_error, c.last_error);
            EXPECT_EQ(host.last_notes, c.last_notes);
            EXPECT_EQ(host.free_calls, c.frees);
            expect_closed(host);
            c.remedy(host);
            expect_opens_and_encodes(host);
        }
}

TEST_F(InitFailures, MakeNothingAfterTheFailingCall) {
    struct StepCase {
        Call failing;
        std::vector<std::string> calls;
    };
    const std::vector<std::string> all = {"avcodec_find_encoder", "avcodec_alloc_context3", "av_frame_alloc",
                                          "av_packet_alloc"};
    const Call steps[] = {Call::kFindEncoder, Call::kAllocContext, Call::kAllocFrame, Call::kAllocPacket};
    for (size_t step = 0; step < std::size(steps); step++) {
        codec_listener.reset();
        codec_listener.failing = steps[step];
        Subject host(kMpeg2);
        stderr_of([&] { EXPECT_FALSE(host.client_addref()); });
        EXPECT_EQ(codec_listener.calls, std::vector<std::string>(all.begin(), all.begin() + step + 1));
        EXPECT_EQ(codec_listener.option_calls, Options{});
    }
}

TEST_F(InitFailures, RefusedOpeningFreesTheOptionsOnce) {
    codec_listener.opening = Opening::kRefuse;
    Subject host(kH264);
    stderr_of([&] { EXPECT_FALSE(host.client_addref()); });
    EXPECT_EQ(std::count(codec_listener.calls.begin(), codec_listener.calls.end(), "av_dict_free"), 1);
    EXPECT_EQ(codec_listener.calls.back(), "av_dict_free");
    EXPECT_FALSE(codec_listener.option_calls.empty());
    EXPECT_TRUE(codec_listener.dictionaries.empty());
}

TEST_F(InitFailures, OptionsThatCannotBeSetAreNoFailure) {
    for (int codec : kAllCodecs) {
        codec_listener.reset();
        codec_listener.failing = Call::kDictSet;
        codec_listener.opening = Opening::kPretend;
        Subject host(codec);
        stderr_of([&] { EXPECT_TRUE(host.client_addref()); });
        EXPECT_TRUE(host.encoder_open);
        EXPECT_TRUE(codec_listener.opened.at(0).dictionary.empty());
    }
}

TEST_F(InitFailures, ARefusalByTheRealCodec) {
    struct RefusalCase {
        const char* what;
        int codec;
        std::function<void(Subject&)> cause, remedy;
    };
    for (const RefusalCase& c : {
             RefusalCase{"no picture size", kMpeg2, [](Subject& h) { h.input_width = h.input_height = 0; },
                         [](Subject& h) { h.input_width = 320, h.input_height = 240; }},
             {"no picture size", kH264, [](Subject& h) { h.input_width = h.input_height = 0; },
              [](Subject& h) { h.input_width = 320, h.input_height = 240; }},
             {"profile", kH264, [](Subject& h) { h.h264_profile = "nonsense"; },
              [](Subject& h) { h.h264_profile = ""; }},
             {"preset", kH264, [](Subject& h) { h.h264_preset = "nonsense"; },
              [](Subject& h) { h.h264_preset = ""; }},
             {"profile", kH265, [](Subject& h) { h.h264_profile = "nonsense"; },
              [](Subject& h) { h.h264_profile = ""; }},
             {"preset", kH265, [](Subject& h) { h.h264_preset = "nonsense"; },
              [](Subject& h) { h.h264_preset = ""; }},
         }) {
        SCOPED_TRACE("codec " + std::to_string(c.codec) + ": " + c.what);
        codec_listener.reset();
        Subject host(c.codec);
        c.cause(host);
        bool result = true;
        const std::string printed = stderr_of([&] { result = host.client_addref(); });
        EXPECT_FALSE(result);
        EXPECT_TRUE(printed.ends_with("Unable to open encoder\n")) << printed;
        EXPECT_EQ(host.last_error, "Unable to open encoder");
        EXPECT_EQ(host.free_calls, 1);
        expect_closed(host);
        c.remedy(host);
        expect_opens_and_encodes(host);
    }
}

TEST_F(InitFailures, AfterARestartingSettingLeaveTheEncoderClosedWithItsClients) {
    Subject host(kMpeg2);
    stderr_of([&] { ASSERT_TRUE(host.client_addref()); });
    stderr_of([&] { host.on_set("bitrate", "9999", true); });
    EXPECT_EQ(host.last_error, "Bitrate out of range");
    EXPECT_EQ(host.refcount, 1);
    expect_closed(host);
    stderr_of([&] { host.on_set("bitrate", "8000000", true); });
    EXPECT_EQ(host.last_error, "");
    EXPECT_TRUE(host.encoder_open);
}

// Working planes

struct PlaneFailure {
    bool result = true;
    std::string printed;
    int dump_fd = -1;
};

/// Opens with an open dump file, so that its release is seen too.
PlaneFailure open_with_dump(Subject& host) {
    codec_listener.opening = Opening::kPretend;
    PlaneFailure failure;
    host.debug_file = true;
    failure.dump_fd = host.debug_fd = open("/dev/null", O_WRONLY);
    failure.printed = stderr_of([&] { failure.result = host.client_addref(); });
    return failure;
}

void expect_plane_failure(const Subject& host, const PlaneFailure& failure, int plane) {
    EXPECT_FALSE(failure.result);
    const std::string expected =
        "Init error: unable to malloc resize buffer plane " + std::to_string(plane) + "/3\n";
    EXPECT_TRUE(failure.printed.ends_with(expected)) << failure.printed;
    EXPECT_EQ(occurrences(failure.printed, "Allocating resize buffer\n"), 1);
    EXPECT_EQ(occurrences(failure.printed, "MPEG video init\n"), 0);
    EXPECT_EQ(host.last_error, "Unable to allocate resizing frame");
    EXPECT_EQ(host.last_notes, "Encoding to pixel format 4:2:0\n");
    EXPECT_EQ(host.free_calls, 1);
    EXPECT_EQ(host.debug_fd, -1);
    EXPECT_EQ(fcntl(failure.dump_fd, F_GETFD), -1) << "the dump file is closed";
    expect_closed(host);
}

#if defined(GSVE_SANITIZER_OWNS_MALLOC)

TEST_F(InitFailures, AWorkingPlaneThatCannotBeAllocated) {
    for (int codec : kAllCodecs) {
        codec_listener.reset();
        Subject host(codec);
        host.resize_width = host.resize_height = 20000;  // 400 MB, beyond what the allocator gives
        const PlaneFailure failure = open_with_dump(host);
        expect_plane_failure(host, failure, 1);
        host.resize_width = host.resize_height = -1;
        host.debug_file = false;
        expect_opens_and_encodes(host);
    }
}

#else

// 200 by 104 samples in 4:2:0: strides 208 and 112, 104 + 16 rows.
constexpr size_t kLumaPlane = 208 * 120;
constexpr size_t kChromaPlane = 112 * 120;

TEST_F(InitFailures, AWorkingPlaneThatCannotBeAllocated) {
    for (int codec : kAllCodecs)
        for (int plane = 0; plane < 3; plane++) {
            SCOPED_TRACE("codec " + std::to_string(codec) + " plane " + std::to_string(plane));
            codec_listener.reset();
            Subject host(codec);
            host.resize_width = 200;
            host.resize_height = 104;
            planes.arm(kLumaPlane, kChromaPlane, plane);
            const PlaneFailure failure = open_with_dump(host);
            planes.armed = false;
            EXPECT_EQ(planes.requested.size(), plane + 1u);
            EXPECT_EQ(planes.alive_count(), 0) << "planes left";
            expect_plane_failure(host, failure, plane + 1);
            host.debug_file = false;
            expect_opens_and_encodes(host);
        }
}

TEST_F(InitFailures, WorkingPlanesAreMallocsOfTheirExactSize) {
    codec_listener.opening = Opening::kPretend;
    Subject host(kMpeg2);
    host.resize_width = 200;
    host.resize_height = 104;
    planes.arm(kLumaPlane, kChromaPlane, -1);
    stderr_of([&] { EXPECT_TRUE(host.client_addref()); });
    EXPECT_EQ(planes.requested, (std::vector<size_t>{kLumaPlane, kChromaPlane, kChromaPlane}));
    for (int plane = 0; plane < 3; plane++)
        EXPECT_EQ(planes.alive[plane], host.resize_buffer[plane]) << plane;
    host.client_unref();
    EXPECT_EQ(planes.alive_count(), 0);
    planes.armed = false;
}

#endif

// Memory that runs out

/// Runs `operation` once for every allocation that it makes through operator new, failing that one, until it
/// makes no further one. Returns how many it made.
int sweep_allocations(const std::function<void()>& prepare, const std::function<void()>& operation,
                      const std::function<void()>& inspect) {
    for (int failing = 0; failing < 200; failing++) {
        SCOPED_TRACE("failing allocation " + std::to_string(failing));
        prepare();
        bool threw = false;
        stderr_of([&] {
            heap.allocations = 0;
            heap.failing_allocation = failing;
            heap.armed = true;
            try {
                operation();
            } catch (...) {
                threw = true;
            }
            heap.armed = false;
        });
        EXPECT_FALSE(threw) << "an exception reached the host";
        if (heap.allocations <= failing) return failing;
        inspect();
    }
    ADD_FAILURE() << "allocations without end";
    return 200;
}

TEST_F(InitFailures, OpeningWithoutMemoryFailsCleanly) {
    std::unique_ptr<Subject> host;
    bool result = false;
    const auto prepare = [&] {
        codec_listener.reset();
        codec_listener.opening = Opening::kPretend;
        codec_listener.calls.reserve(64);
        codec_listener.option_calls.reserve(64);
        host = std::make_unique<Subject>(kMpeg2, 720, 480, 30000, 1001);
        host->refcount = 1;
        host->resize_width = 320;
        host->resize_height = 240;
    };
    const auto inspect = [&] {
        EXPECT_EQ(result, host->encoder_open);
        if (!result) expect_closed(*host);
        host->free_encoder();
        EXPECT_EQ(codec_listener.alive(), 0u);
        expect_opens_and_encodes(*host);
    };
    const int allocations = sweep_allocations(
        prepare, [&] { result = host->init_encoder(); }, inspect);
    host.reset();
    EXPECT_GT(allocations, 0) << "the notes outgrow a short string";
}

TEST_F(InitFailures, SettingsWithoutMemoryLeaveTheEncoderAsItWas) {
    const std::string value(500, 'v');
    for (const char* key : {"h.264 level", "h.264 profile", "h.264 preset", "name", "chroma format"}) {
        std::unique_ptr<Subject> host;
        const auto inspect = [&] {
            EXPECT_EQ(host->h264_level, "");
            EXPECT_EQ(host->h264_profile, "");
            EXPECT_EQ(host->h264_preset, "");
            EXPECT_EQ(host->encoder_name, "");
            EXPECT_EQ(host->chroma_format, "");
            host->on_set(key, "short", false);
            EXPECT_EQ(host->h264_level + host->h264_profile + host->h264_preset + host->encoder_name +
                          host->chroma_format,
                      "short");
        };
        const int allocations = sweep_allocations([&] { host = std::make_unique<Subject>(kMpeg2); },
                                                  [&] { host->on_set(key, value.c_str(), false); }, inspect);
        EXPECT_GT(allocations, 0) << key;
    }
}

}  // namespace
}  // namespace gsve::test
