#pragma once

// An encoder that meets one fault after the other in one of its operations, and what must hold after each.

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include <orb_utils_v4/reference/comm_packet.h>

#include "support/fault_injection.h"
#include "support/subject.h"
#include "support/test_picture.h"

namespace gsve::test {

inline constexpr int kPictures = 5;
inline constexpr int kWidth = 64, kHeight = 48;
inline const std::string kLongText(200, 't');

/// A captioned, interlaced source that is scaled and deinterlaced by its motion, dumped to a file, with
/// timestamps that go through the map.
class FaultSubject : public Subject {
public:
    explicit FaultSubject(int codec) : Subject(codec, kWidth, kHeight, 30000, 1001), codec_of_subject(codec) {
        units.reserve(64);
        configure();
    }

    /// Sets all that an operation of a sweep may have changed, and all that it was made with.
    void configure() {
        default_config();
        encoder_name.clear();
        chroma_format.clear();
        h264_level.clear();
        codec_id = codec_of_subject;
        enabled = true;
        input_interlaced = 1;
        resize_width = 48;
        resize_height = 32;
        resize_deinterlace = 4;
        bitrate = 1000000;
        b_frames = codec_id == kH265 ? 0 : 1;
        if (codec_id != kMpeg2) h264_profile = "main";
        maximum_threads = 1;
        constant_bitrate_per_frame = 1;
        debug_file = true;
    }

    bool write(unsigned number) {
        const TestPicture& p = picture(number);
        return write_video(p.y.data(), p.width, p.u.data(), p.chroma_width, p.v.data(), p.chroma_width, 0,
                           number);
    }

    /// Captions of every kind for the next picture.
    void write_captions() {
        zeph_cea708_word words[40];
        for (zeph_cea708_word& word : words) word = {0xFE, 0x4142};
        write_cea708(40, words);
        write_eia608(0, 0x4142);
        write_eia608(1, 0x4344);
        uint8_t block[64] = {1, 2, 3};
        write_scte20(block, sizeof(block));
    }

    void write_timecode(const mpeg2_gop_timecode_t& timecode) { write_mpeg2_gop_timecode(timecode); }

    /// Follows the source's GOPs with the next picture.
    void follow_source(unsigned number) {
        requested_picture_type = number % 2 == 0 ? 'I' : 'P';
        gop_sync_frame_number = static_cast<int32_t>(number);
    }

    void forget_captions() {
        eia608_field1_queue.clear();
        eia608_field2_queue.clear();
        cea708_queue.clear();
        scte20_length = 0;
        pending_gop_timecode.valid = 0;
    }

    size_t drain() {
        size_t drained = 0;
        while (drained < 100 && flush_delayed_video()) drained++;
        return drained;
    }

    const int codec_of_subject;

private:
    static const TestPicture& picture(unsigned number) {
        static const std::vector<TestPicture> pictures = [] {
            std::vector<TestPicture> made;
            for (unsigned n = 0; n < 16; n++) made.emplace_back(kWidth, kHeight, 1, 1, n);
            return made;
        }();
        return pictures[number % 16];
    }
};

inline mpeg2_gop_timecode_t long_timecode() {
    mpeg2_gop_timecode_t timecode;
    timecode.valid = 1;
    timecode.hours = 10;
    timecode.text = kLongText;
    return timecode;
}

inline size_t open_descriptors() {
    size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) count++;
    return count;
}

/// What the encoder makes of a run without faults, and every run after one.
struct CleanRun {
    std::vector<std::vector<uint8_t>> units;
    std::string report;
    bool operator==(const CleanRun&) const = default;
};

inline std::string report_of(GeneralStreamingVideoEncoder& host) {
    comm_socket_v4_packet packet;
    common_pkt_parsing parsing;
    EXPECT_TRUE(host.on_report(&packet, "encoder", nullptr, &parsing));
    std::string text;
    for (const auto& [name, value] : packet.pairs) text += name + "=" + value + "\n";
    return text;
}

/// Opens the closed encoder, encodes, drains and closes it.
inline CleanRun clean_run(FaultSubject& host) {
    CleanRun run;
    host.units.clear();
    host.forget_captions();
    host.configure();
    EXPECT_TRUE(host.refcount == 0 ? host.client_addref() : host.init_encoder()) << host.last_error;
    EXPECT_TRUE(host.encoder_open);
    for (unsigned n = 0; n < kPictures; n++) {
        host.write_captions();
        EXPECT_TRUE(host.write(n)) << "picture " << n;
    }
    host.drain();
    run.report = report_of(host);
    host.forget_captions();
    host.refcount = 1;
    host.client_unref();
    for (Unit& unit : host.units) run.units.push_back(std::move(unit.bytes));
    return run;
}

/// What an operation brought while faults happened.
struct FaultOutcome {
    std::vector<bool> results;
    std::string printed;
};

/// One operation of the encoder's.
struct FaultOperation {
    const char* name;
    std::set<FaultKind> kinds;                                   ///< what it does that can fail
    std::function<void(FaultSubject&)> prepare;                  ///< without faults
    std::function<void(FaultSubject&, std::vector<bool>&)> run;  ///< with faults; notes its results
    std::function<void(FaultSubject&, const FaultOutcome&, const FaultInjector&)>
        inspect;  ///< without faults
};

inline void expect_closed(const GeneralStreamingVideoEncoder& host) {
    EXPECT_FALSE(host.encoder_open);
    EXPECT_EQ(host.mpeg_codec, nullptr);
    EXPECT_EQ(host.mpeg_context, nullptr);
    EXPECT_EQ(host.mpeg_frame, nullptr);
    EXPECT_EQ(host.mpeg_packet, nullptr);
    EXPECT_EQ(host.output_window, nullptr);
    EXPECT_EQ(host.debug_fd, -1);
    for (int plane = 0; plane < 4; plane++) {
        EXPECT_EQ(host.resize_buffer[plane], nullptr) << plane;
        EXPECT_EQ(host.resize_buffer_stride[plane], 0u) << plane;
    }
}

inline void open_for_faults(FaultSubject& host) { ASSERT_TRUE(host.client_addref()) << host.last_error; }

inline void open_and_encode(FaultSubject& host) {
    open_for_faults(host);
    for (unsigned n = 0; n < kPictures; n++) ASSERT_TRUE(host.write(n));
}

/// The text that an opening leaves whose first fault was this one; null where it succeeds.
inline const char* expected_error(const Fault& fault) {
    struct Step {
        std::string_view call;
        const char* error;
    };
    constexpr Step kSteps[] = {
        {"avcodec_find_encoder", "Unable to find encoder"},
        {"avcodec_alloc_context3", "Unable to allocate encoder"},
        {"av_frame_alloc", "Unable to allocate encoder frame"},
        {"av_packet_alloc", "Unable to allocate encoder packet"},
        {"avcodec_open2", "Unable to open encoder"},
    };
    for (const Step& step : kSteps)
        if (step.call == fault.operation || step.call == fault.codec_call) return step.error;
    if (fault.origin != Origin::kLibrary && fault.origin != Origin::kStandardLibrary) return nullptr;
    if (std::string_view(fault.operation) == "malloc") return "Unable to allocate resizing frame";
    if (std::string_view(fault.operation) == "new") return "Out of memory";
    return nullptr;
}

inline void inspect_opening(FaultSubject& host, bool result, const FaultInjector& faults) {
    EXPECT_EQ(result, host.encoder_open);
    EXPECT_EQ(host.refcount, 1);
    const char* const error = expected_error(faults.first);
    if (faults.kind == FaultKind::kFileCall) {
        EXPECT_TRUE(result) << "a dump that cannot be written is no failure";
    }
    if (result) {
        EXPECT_EQ(host.last_error, "");
        // libavcodec does without some of what it wanted to allocate.
        const bool tolerated = !error || *faults.first.codec_call != '\0';
        EXPECT_TRUE(tolerated) << "opened in spite of it";
        return;
    }
    expect_closed(host);
    if (error) {
        EXPECT_EQ(host.last_error, error);
    } else {
        // A first fault that opening survives, and then a second one.
        EXPECT_TRUE(faults.permanent) << "failed because of it: " << host.last_error;
        EXPECT_TRUE(host.last_error == "Out of memory" || host.last_error == "Unable to open encoder" ||
                    host.last_error == "Unable to allocate resizing frame")
            << host.last_error;
    }
}

inline const std::vector<FaultOperation>& fault_operations() {
    static const mpeg2_gop_timecode_t timecode = long_timecode();
    static const auto nothing = [](FaultSubject&) {};
    using enum FaultKind;
    static const std::vector<FaultOperation> operations = {
        {"Opening",
         {kAllocation, kCodecCall, kFileCall},
         nothing,
         [](FaultSubject& host, std::vector<bool>& results) { results.push_back(host.client_addref()); },
         [](FaultSubject& host, const FaultOutcome& outcome, const FaultInjector& faults) {
             inspect_opening(host, outcome.results.at(0), faults);
         }},
        {"Encoding",
         {kAllocation, kCodecCall, kHostCall, kFileCall},
         [](FaultSubject& host) {
             open_for_faults(host);
             host.bgop_building_text.assign(90, 'P');
             host.dgop_building_text.assign(90, 'P');
         },
         [](FaultSubject& host, std::vector<bool>& results) {
             for (unsigned n = 0; n < kPictures; n++) {
                 host.write_captions();
                 host.write_timecode(timecode);
                 host.follow_source(n);
                 host.host_frame_tag = n;
                 results.push_back(host.write(n));
             }
         },
         [](FaultSubject& host, const FaultOutcome& outcome, const FaultInjector& faults) {
             const auto failures = std::count(outcome.results.begin(), outcome.results.end(), false);
             // The codec's failures and the dump's are not the call's; the first host call makes the window.
             const bool no_window =
                 faults.first.origin == Origin::kHost ||
                 std::string_view(faults.first.operation) == "sliding_window_v4_create_buffer";
             if (no_window) {
                 EXPECT_EQ(failures, faults.permanent ? kPictures : 1);
                 EXPECT_NE(outcome.printed.find("WARNING: Encoder audio cannot alloc buffer\n"),
                           std::string::npos)
                     << outcome.printed;
             } else if (faults.kind != kAllocation || faults.codec_only) {
                 EXPECT_EQ(failures, 0);
             } else if (!faults.permanent) {
                 EXPECT_LE(failures, 1);
             }
             EXPECT_TRUE(host.encoder_open);
             for (unsigned n = kPictures; n < 2 * kPictures; n++) EXPECT_TRUE(host.write(n)) << n;
             host.drain();
             EXPECT_GT(host.units.size(), 0u);
             EXPECT_LE(host.units.size(), 2u * kPictures);
             if (faults.kind == kFileCall) {
                 EXPECT_EQ(host.units.size(), 2u * kPictures);
             }
         }},
        {"Draining",
         {kAllocation, kCodecCall, kFileCall},
         open_and_encode,
         [](FaultSubject& host, std::vector<bool>& results) {
             while (results.size() < 100 && (results.empty() || results.back()))
                 results.push_back(host.flush_delayed_video());
         },
         [](FaultSubject& host, const FaultOutcome& outcome, const FaultInjector& faults) {
             EXPECT_FALSE(outcome.results.back()) << "the drain ends";
             EXPECT_TRUE(host.encoder_open);
             EXPECT_LE(host.units.size(), size_t{kPictures});
             if (faults.kind == kFileCall) {
                 EXPECT_EQ(host.units.size(), size_t{kPictures});
             }
             host.drain();
         }},
        {"Reopening",
         {kAllocation, kCodecCall, kFileCall},
         open_and_encode,
         [](FaultSubject& host, std::vector<bool>& results) {
             host.on_set("bitrate", "1000000", true);
             results.push_back(host.encoder_open);
         },
         [](FaultSubject& host, const FaultOutcome& outcome, const FaultInjector& faults) {
             inspect_opening(host, outcome.results.at(0), faults);
         }},
        {"Settings",
         {kAllocation, kFileCall},
         open_for_faults,
         [](FaultSubject& host, std::vector<bool>&) {
             for (const char* key : {"name", "chroma format", "h.264 level", "h.264 preset"})
                 host.on_set(key, kLongText.c_str(), false);
             for (const char* key : {"bitrate", "gop size", "resize", "s_tune_cpu", "closed gop", "encoder"})
                 host.on_set(key, kLongText.c_str(), false);
         },
         [](FaultSubject& host, const FaultOutcome&, const FaultInjector&) {
             for (const std::string* text :
                  {&host.encoder_name, &host.chroma_format, &host.h264_level, &host.h264_preset})
                 EXPECT_TRUE(text->empty() || *text == kLongText) << *text;
         }},
        {"Captions",
         {kAllocation},
         open_and_encode,
         [](FaultSubject& host, std::vector<bool>&) {
             for (int i = 0; i < 24; i++) host.write_captions();
             host.write_timecode(timecode);
         },
         [](FaultSubject& host, const FaultOutcome&, const FaultInjector&) {
             EXPECT_LE(host.cea708_queue.size(), 448u);
             EXPECT_LE(host.eia608_field1_queue.size(), 33u);
             EXPECT_LE(host.eia608_field2_queue.size(), 33u);
             host.write_captions();
             EXPECT_EQ(uint16_t{host.cea708_queue.back().value}, 0x4142);
             EXPECT_EQ(host.eia608_field1_queue.back(), 0x4142);
             EXPECT_EQ(host.eia608_field2_queue.back(), 0x4344);
             EXPECT_EQ(host.scte20_length, 64u);
             host.write_timecode(timecode);
             EXPECT_EQ(host.pending_gop_timecode.text, kLongText);
             EXPECT_TRUE(host.write(kPictures));
         }},
        {"Reporting",
         {kAllocation, kHostCall},
         [](FaultSubject& host) {
             open_and_encode(host);
             host.bgop_text = host.dgop_text = kLongText;
         },
         [](FaultSubject& host, std::vector<bool>& results) {
             comm_socket_v4_packet packet;
             common_pkt_parsing parsing;
             results.push_back(host.on_report(&packet, kLongText.c_str(), nullptr, &parsing));
             results.push_back(host.on_report(&packet, "encoder", nullptr, &parsing));
         },
         [](FaultSubject& host, const FaultOutcome& outcome, const FaultInjector& faults) {
             constexpr long kPairs = 4;
             for (long n = 0; n < 2 && faults.kind == kHostCall; n++) {
                 const long last = kPairs * (n + 1);
                 const bool failed = faults.permanent ? faults.number <= last : faults.number == last;
                 EXPECT_EQ(outcome.results.at(static_cast<size_t>(n)), !failed) << "the last pair's result";
             }
             const std::string report = report_of(host);
             EXPECT_EQ(occurrences(report, "*encoder, "), 4) << report;
             EXPECT_NE(report.find(",dgop=" + kLongText + ",bgop=" + kLongText), report.npos) << report;
         }},
    };
    return operations;
}

// libavcodec does not survive all failures of its own allocations: it aborts where it cannot set its defaults
// in a new context, and its MPEG-2 encoder where a picture is sent after one that failed half-way. Nobody who
// calls it can help that, so such a fault is left out where libavcodec, called by this test in place of the
// encoder, brings a process of its own down by the same fault.

/// For each number from 1 to `count`, whether `work` ends by abort(). It runs in processes of its own, each
/// of which goes on until it ends.
inline std::vector<bool> aborts(long count, const std::function<void(long)>& work) {
    std::vector<bool> aborted(static_cast<size_t>(count), false);
    for (long next = 1; next <= count; next++) {
        int done[2] = {};
        if (pipe(done) != 0) throw std::runtime_error("no pipe");
        const pid_t child = fork();
        if (child == 0) {
            prctl(PR_SET_DUMPABLE, 0);  // a core would take longer than all the rest
            for (; next <= count; next++) {
                work(next);
                if (write(done[1], "", 1) != 1) break;
            }
            _exit(0);
        }
        close(done[1]);
        for (char one; read(done[0], &one, 1) == 1;) next++;
        close(done[0]);
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        if (next <= count) {
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << "status " << status;
            aborted[static_cast<size_t>(next - 1)] = true;
        }
    }
    return aborted;
}

/// A picture as the encoder sent it.
struct KeptPicture {
    explicit KeptPicture(const AVFrame& sent) : frame(av_frame_alloc()) {
        av_frame_copy_props(frame.get(), &sent);
        frame->width = sent.width;
        frame->height = sent.height;
        frame->format = sent.format;
        for (int plane = 0; plane < 3; plane++) {
            const int rows = plane == 0 ? sent.height : sent.height / 2;
            planes[plane].assign(sent.data[plane], sent.data[plane] + rows * sent.linesize[plane]);
            frame->data[plane] = planes[plane].data();
            frame->linesize[plane] = sent.linesize[plane];
        }
    }
    struct Free {
        void operator()(AVFrame* frame) const { av_frame_free(&frame); }
    };
    std::unique_ptr<AVFrame, Free> frame;
    std::vector<uint8_t> planes[3];
};

/// All that a run of an operation without faults offers for failing, and the pictures that it sent until the
/// encoder was closed.
struct Rehearsal {
    std::vector<Fault> opportunities;
    std::vector<KeptPicture> pictures;
};

inline bool is_exchange(const Fault& fault) {
    const std::string_view call = fault.codec_call;
    return call == "avcodec_send_frame" || call == "avcodec_receive_packet";
}

/// How many allocations of the same codec call's, or of any send and receive, come before this one, itself
/// included.
inline long number_in_codec(const Rehearsal& rehearsal, long number) {
    const Fault& fault = rehearsal.opportunities.at(static_cast<size_t>(number - 1));
    const auto same = [&](const Fault& other) {
        return is_exchange(fault) ? is_exchange(other)
                                  : std::string_view(other.codec_call) == fault.codec_call;
    };
    const auto first = rehearsal.opportunities.begin();
    return std::count_if(first, first + number, same);
}

/// libavcodec alone, with the fault of that number.
inline void meet_fault_in_bare_libavcodec(int codec, const Rehearsal& rehearsal, long number,
                                          bool permanent) {
    const Fault& fault = rehearsal.opportunities.at(static_cast<size_t>(number - 1));
    const long in_codec = number_in_codec(rehearsal, number);
    FaultInjector& faults = fault_injector();
    if (std::string_view(fault.codec_call) == "avcodec_alloc_context3") {
        const AVCodecID id = codec == kMpeg2  ? AV_CODEC_ID_MPEG2VIDEO
                             : codec == kH264 ? AV_CODEC_ID_H264
                                              : AV_CODEC_ID_HEVC;
        faults.arm(FaultKind::kAllocation, in_codec, permanent);
        AVCodecContext* context = avcodec_alloc_context3(avcodec_find_encoder(id));
        faults.disarm();
        avcodec_free_context(&context);
    } else if (codec == kMpeg2 && is_exchange(fault) && !rehearsal.pictures.empty()) {
        FaultSubject host(codec);
        stderr_of([&] { open_for_faults(host); });
        faults.arm(FaultKind::kAllocation, in_codec, permanent);
        for (size_t n = 0; n < rehearsal.pictures.size(); n++) {
            if (n == kPictures) faults.disarm();
            if (avcodec_send_frame(host.mpeg_context, rehearsal.pictures[n].frame.get()) == 0)
                avcodec_receive_packet(host.mpeg_context, host.mpeg_packet);
        }
        faults.disarm();
        avcodec_send_frame(host.mpeg_context, nullptr);
        while (avcodec_receive_packet(host.mpeg_context, host.mpeg_packet) == 0) {
        }
    }
}

struct FaultCase {
    int codec;
    const FaultOperation* operation;
    FaultKind kind;
    bool permanent;
};

inline std::string fault_case_name(const testing::TestParamInfo<FaultCase>& info) {
    const FaultCase& c = info.param;
    const char* const codec = c.codec == kMpeg2 ? "Mpeg2" : c.codec == kH264 ? "H264" : "H265";
    const char* const kind = c.kind == FaultKind::kAllocation  ? "Allocation"
                             : c.kind == FaultKind::kCodecCall ? "CodecCall"
                             : c.kind == FaultKind::kHostCall  ? "HostCall"
                                                               : "FileCall";
    return std::string(codec) + "_" + c.operation->name + "_" + kind + (c.permanent ? "_ForGood" : "_Once");
}

inline std::vector<FaultCase> fault_cases(std::initializer_list<FaultKind> kinds) {
    std::vector<FaultCase> cases;
    for (const FaultKind kind : kinds)
        for (const int codec : kAllCodecs)
            for (const FaultOperation& operation : fault_operations())
                for (const bool permanent : {false, true})
                    if (operation.kinds.contains(kind)) cases.push_back({codec, &operation, kind, permanent});
    return cases;
}

class FaultSweep : public testing::TestWithParam<FaultCase> {
protected:
    FaultSweep() {
        fault_injector().dump_directory = testing::TempDir() + "gsve_faults_" + std::to_string(getpid());
        std::filesystem::create_directories(fault_injector().dump_directory);
    }
    ~FaultSweep() override { std::filesystem::remove_all(fault_injector().dump_directory); }

    /// Runs the operation without faults and notes what could have failed.
    Rehearsal rehearse() {
        const FaultCase& c = GetParam();
        FaultInjector& faults = fault_injector();
        Rehearsal rehearsal;
        FaultSubject host(c.codec);
        stderr_of([&] {
            c.operation->prepare(host);
            FaultOutcome outcome;
            outcome.results.reserve(128);
            rehearsal.opportunities.reserve(4096);
            faults.opportunities = &rehearsal.opportunities;
            faults.on_picture = [&](const AVFrame& sent) { rehearsal.pictures.emplace_back(sent); };
            faults.arm(c.kind, 0, false);
            c.operation->run(host, outcome.results);
            faults.disarm();
            faults.opportunities = nullptr;
            c.operation->inspect(host, outcome, faults);
            faults.on_picture = nullptr;
        });
        faults.alive.clear();
        return rehearsal;
    }

    /// Runs the operation on an encoder of its own with fault `number`. False when it had no such fault.
    bool meet_fault(long number) {
        const FaultCase& c = GetParam();
        FaultInjector& faults = fault_injector();
        const size_t descriptors = open_descriptors();
        bool happened = false;
        {
            FaultSubject host(c.codec);
            FaultOutcome outcome;
            outcome.results.reserve(128);
            bool threw = false;
            stderr_of(
                [&] { faults.arm(FaultKind::kNone, 0, false), c.operation->prepare(host), faults.disarm(); });
            outcome.printed = stderr_of([&] {
                faults.arm(c.kind, number, c.permanent);
                try {
                    c.operation->run(host, outcome.results);
                } catch (...) {
                    threw = true;
                }
                faults.disarm();
            });
            happened = faults.injected > 0;
            const FaultInjector& met = faults;
            SCOPED_TRACE(std::string("fault ") + std::to_string(number) + ": " + met.first.operation +
                         (*met.first.codec_call ? std::string(" in ") + met.first.codec_call : ""));
            EXPECT_FALSE(threw) << "an exception reached the host";
            stderr_of([&] {
                if (happened) c.operation->inspect(host, outcome, met);
                host.free_encoder();
                expect_closed(host);
                EXPECT_TRUE(clean_run(host) == reference()) << "the next run differs from one without faults";
            });
        }
        EXPECT_EQ(faults.alive.count(), 0)
            << "allocations left after fault " << number << " (" << faults.first.operation << " in "
            << faults.first.codec_call << ")";
        faults.alive.clear();
        EXPECT_EQ(open_descriptors(), descriptors) << "descriptors left after fault " << number;
        return happened;
    }

    const CleanRun& reference() {
        static std::map<int, CleanRun> references;
        const int codec = GetParam().codec;
        const auto found = references.find(codec);
        if (found != references.end()) return found->second;
        FaultSubject host(codec);
        const CleanRun run = clean_run(host);
        EXPECT_EQ(run.units.size(), size_t{kPictures});
        return references.emplace(codec, run).first->second;
    }
};

/// Every how many faults one is met: all of them, but fewer under the address sanitizer, where it takes
/// minutes, unless GSVE_EVERY_FAULT is set.
inline long fault_stride() {
#if defined(GSVE_SANITIZED_ADDRESS)
    if (!std::getenv("GSVE_EVERY_FAULT")) return 7;
#endif
    return 1;
}

TEST_P(FaultSweep, LeavesTheEncoderUsable) {
    stderr_of([&] { reference(); });
    const FaultCase& c = GetParam();
    const Rehearsal rehearsal = rehearse();
    const auto opportunities = static_cast<long>(rehearsal.opportunities.size());
    EXPECT_GT(opportunities, 0);
    const long stride = fault_stride();
    const std::vector<bool> aborting = aborts(opportunities, [&](long number) {
        if ((number - 1) % stride == 0)
            meet_fault_in_bare_libavcodec(c.codec, rehearsal, number, c.permanent);
    });
    long met = 0, left_out = 0;
    for (long number = 1; number <= opportunities && !HasFailure(); number += stride) {
        if (aborting[static_cast<size_t>(number - 1)])
            left_out++;
        else if (meet_fault(number))
            met++;
        else
            ADD_FAILURE() << "fault " << number << " did not happen";
    }
    EXPECT_FALSE(meet_fault(opportunities + 1)) << "more could fail than in the rehearsal";
    RecordProperty("faults", static_cast<int>(met));
    RecordProperty("left_out", static_cast<int>(left_out));
}

}  // namespace gsve::test
