// The virtual table as a host built elsewhere sees it: 32 slots laid out by the Itanium C++ ABI, the
// destructor in the first two.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <typeinfo>
#include <vector>

#include <cxxabi.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <orb_utils_v4/comm.h>

#include "support/interposed_codec.h"
#include "support/subject.h"
#include "support/test_picture.h"

namespace gsve::test {
namespace {

using Y = const uint8_t*;

/// The slots, as a C program would declare them. References are pointers.
struct Slots {
    void (*destroy)(void*);
    void (*destroy_and_free)(void*);
    void (*default_config)(void*);
    void (*emit_data_out)(void*, const uint8_t*, size_t, AVPacket*);
    void (*host_emit_data_out)(void*, const uint8_t*, size_t, AVPacket*);
    const char* (*output_name)(void*);
    void (*begin_output)(void*);
    bool (*write_video)(void*, Y, size_t, Y, size_t, Y, size_t, int, unsigned long long);
    bool (*flush_delayed_video)(void*);
    void (*free_encoder)(void*);
    bool (*init_encoder)(void*);
    bool (*client_addref)(void*);
    void (*client_unref)(void*);
    void (*do_resize_yuv_plane)(void*, uint8_t*, size_t, Y, size_t, unsigned, unsigned, unsigned, unsigned,
                                unsigned, unsigned, int);
    void (*resize_input_to_output)(void*, Y, size_t, Y, size_t, Y, size_t, unsigned, unsigned, int);
    void (*do_resize_yuv_plane_mode3)(void*, uint8_t*, size_t, Y, size_t, unsigned, unsigned, unsigned,
                                      unsigned, unsigned, unsigned, int);
    void (*resize_input_to_output_mode3)(void*, Y, size_t, Y, size_t, Y, size_t, unsigned, unsigned, int);
    void (*do_resize_yuv_plane_mode4)(void*, uint8_t*, size_t, Y, size_t, unsigned, unsigned, unsigned,
                                      unsigned, unsigned, unsigned, int, uint8_t*, unsigned, uint8_t,
                                      uint8_t);
    void (*resize_input_to_output_mode4)(void*, Y, size_t, Y, size_t, Y, size_t, unsigned, unsigned, int);
    bool (*on_report)(void*, comm_socket_v4_packet*, const char*, const char*, common_pkt_parsing*);
    void (*on_set)(void*, const char*, const char*, bool);
    void (*transmit)(void*);
    void (*write_scte20)(void*, uint8_t*, size_t);
    void (*write_cea708)(void*, unsigned, zeph_cea708_word*);
    void (*write_eia608)(void*, uint8_t, uint16_t);
    bool (*mpeg_insert_output)(void*, uint8_t**, size_t);
    void (*mpeg_insert_eia608_cc)(void*);
    void (*mpeg_insert_cea708_cc)(void*, size_t);
    void (*h264_insert_cea708_cc)(void*, size_t);
    void (*mpeg_insert_scte20)(void*, size_t);
    void (*write_mpeg2_gop_timecode)(void*, const mpeg2_gop_timecode_t*);
    void (*mpeg_insert_gop_timecode)(void*, const mpeg2_gop_timecode_t*);
};
static_assert(sizeof(Slots) == 32 * sizeof(void*));

const Slots& slots_of(const void* object) { return **static_cast<const Slots* const*>(object); }

/// The exported names of the base operations, in slot order.
const char* const kSlotNames[32] = {
    "_ZN28GeneralStreamingVideoEncoderD1Ev",
    "_ZN28GeneralStreamingVideoEncoderD0Ev",
    "_ZN28GeneralStreamingVideoEncoder14default_configEv",
    "_ZN28GeneralStreamingVideoEncoder13emit_data_outEPKhmP8AVPacket",
    "_ZN28GeneralStreamingVideoEncoder18host_emit_data_outEPKhmP8AVPacket",
    "_ZN28GeneralStreamingVideoEncoder11output_nameEv",
    "_ZN28GeneralStreamingVideoEncoder12begin_outputEv",
    "_ZN28GeneralStreamingVideoEncoder11write_videoEPKhmS1_mS1_miy",
    "_ZN28GeneralStreamingVideoEncoder19flush_delayed_videoEv",
    "_ZN28GeneralStreamingVideoEncoder12free_encoderEv",
    "_ZN28GeneralStreamingVideoEncoder12init_encoderEv",
    "_ZN28GeneralStreamingVideoEncoder13client_addrefEv",
    "_ZN28GeneralStreamingVideoEncoder12client_unrefEv",
    "_ZN28GeneralStreamingVideoEncoder19do_resize_yuv_planeEPhmPKhmjjjjjji",
    "_ZN28GeneralStreamingVideoEncoder22resize_input_to_outputEPKhmS1_mS1_mjji",
    "_ZN28GeneralStreamingVideoEncoder43do_resize_yuv_plane_deinterlace_basic_mode3EPhmPKhmjjjjjji",
    "_ZN28GeneralStreamingVideoEncoder46resize_input_to_output_deinterlace_basic_mode3EPKhmS1_mS1_mjji",
    "_ZN28GeneralStreamingVideoEncoder46do_resize_yuv_plane_deinterlace_adaptive_mode4EPhmPKhmjjjjjjiS0_jhh",
    "_ZN28GeneralStreamingVideoEncoder49resize_input_to_output_deinterlace_adaptive_mode4EPKhmS1_mS1_mjji",
    "_ZN28GeneralStreamingVideoEncoder9on_reportEP21comm_socket_v4_packetPKcS3_P18common_pkt_parsing",
    "_ZN28GeneralStreamingVideoEncoder6on_setEPKcS1_b",
    "_ZN28GeneralStreamingVideoEncoder8transmitEv",
    "_ZN28GeneralStreamingVideoEncoder12write_scte20EPhm",
    "_ZN28GeneralStreamingVideoEncoder12write_cea708EjP16zeph_cea708_word",
    "_ZN28GeneralStreamingVideoEncoder12write_eia608Eht",
    "_ZN28GeneralStreamingVideoEncoder18mpeg_insert_outputERPhm",
    "_ZN28GeneralStreamingVideoEncoder21mpeg_insert_eia608_ccEv",
    "_ZN28GeneralStreamingVideoEncoder21mpeg_insert_cea708_ccEm",
    "_ZN28GeneralStreamingVideoEncoder21h264_insert_cea708_ccEm",
    "_ZN28GeneralStreamingVideoEncoder18mpeg_insert_scte20Em",
    "_ZN28GeneralStreamingVideoEncoder24write_mpeg2_gop_timecodeERK20mpeg2_gop_timecode_t",
    "_ZN28GeneralStreamingVideoEncoder24mpeg_insert_gop_timecodeERK20mpeg2_gop_timecode_t",
};

TEST(VirtualTable, HoldsTheExportedOperationsInOrder) {
    GeneralStreamingVideoEncoder encoder;
    const void* const* table = *reinterpret_cast<const void* const* const*>(&encoder);
    for (int slot = 0; slot < 32; slot++) {
        const void* operation = dlsym(RTLD_DEFAULT, kSlotNames[slot]);
        EXPECT_NE(operation, nullptr) << kSlotNames[slot];
        EXPECT_EQ(table[slot], operation) << "slot " << slot << " is not " << kSlotNames[slot];
    }
}

TEST(VirtualTable, BelongsToAClassWithoutBases) {
    for (const std::type_info* type :
         {&typeid(GeneralStreamingVideoEncoder), &typeid(GeneralStreamingVideoEncoderAuxData)}) {
        EXPECT_NE(dynamic_cast<const abi::__class_type_info*>(type), nullptr) << type->name();
        EXPECT_EQ(dynamic_cast<const abi::__si_class_type_info*>(type), nullptr) << type->name();
        EXPECT_EQ(dynamic_cast<const abi::__vmi_class_type_info*>(type), nullptr) << type->name();
    }
}

// A host's overrides, called through the slots

std::string said;  // what the latest override was called with

template <typename... Arguments>
void say(const char* operation, const Arguments&... arguments) {
    std::ostringstream text;
    text << operation;
    ((text << ' ' << arguments), ...);
    said = text.str();
}

const void* at(const void* pointer) { return pointer; }

int destroyed = 0;
int freed = 0;

/// Answers every operation in a way of its own.
class Distinct : public GeneralStreamingVideoEncoder {
public:
    ~Distinct() override { destroyed++; }
    static void operator delete(void* memory) {
        freed++;
        ::operator delete(memory);
    }
    void default_config() override { say("default_config"); }
    void emit_data_out(const uint8_t* d, size_t n, AVPacket* p) override { say("emit", at(d), n, at(p)); }
    void host_emit_data_out(const uint8_t* d, size_t n, AVPacket* p) override {
        say("host_emit", at(d), n, at(p));
    }
    const char* output_name() override {
        say("output_name");
        return "distinct";
    }
    void begin_output() override { say("begin_output"); }
    bool write_video(Y y, size_t ys, Y u, size_t us, Y v, size_t vs, int flags,
                     unsigned long long t) override {
        say("write_video", at(y), ys, at(u), us, at(v), vs, flags, t);
        return answer;
    }
    bool flush_delayed_video() override {
        say("flush");
        return answer;
    }
    void free_encoder() override { say("free"); }
    bool init_encoder() override {
        say("init");
        return answer;
    }
    bool client_addref() override {
        say("addref");
        return answer;
    }
    void client_unref() override { say("unref"); }
    void do_resize_yuv_plane(uint8_t* d, size_t ds, Y s, size_t ss, unsigned a, unsigned b, unsigned c,
                             unsigned e, unsigned f, unsigned g, int field) override {
        say("plane", at(d), ds, at(s), ss, a, b, c, e, f, g, field);
    }
    void resize_input_to_output(Y y, size_t ys, Y u, size_t us, Y v, size_t vs, unsigned w, unsigned h,
                                int field) override {
        say("picture", at(y), ys, at(u), us, at(v), vs, w, h, field);
    }
    void do_resize_yuv_plane_deinterlace_basic_mode3(uint8_t* d, size_t ds, Y s, size_t ss, unsigned a,
                                                     unsigned b, unsigned c, unsigned e, unsigned f,
                                                     unsigned g, int field) override {
        say("plane3", at(d), ds, at(s), ss, a, b, c, e, f, g, field);
    }
    void resize_input_to_output_deinterlace_basic_mode3(Y y, size_t ys, Y u, size_t us, Y v, size_t vs,
                                                        unsigned w, unsigned h, int field) override {
        say("picture3", at(y), ys, at(u), us, at(v), vs, w, h, field);
    }
    void do_resize_yuv_plane_deinterlace_adaptive_mode4(uint8_t* d, size_t ds, Y s, size_t ss, unsigned a,
                                                        unsigned b, unsigned c, unsigned e, unsigned f,
                                                        unsigned g, int field, uint8_t* map, unsigned columns,
                                                        uint8_t x, uint8_t y) override {
        say("plane4", at(d), ds, at(s), ss, a, b, c, e, f, g, field, at(map), columns, int{x}, int{y});
    }
    void resize_input_to_output_deinterlace_adaptive_mode4(Y y, size_t ys, Y u, size_t us, Y v, size_t vs,
                                                           unsigned w, unsigned h, int field) override {
        say("picture4", at(y), ys, at(u), us, at(v), vs, w, h, field);
    }
    bool on_report(comm_socket_v4_packet* p, const char* name, const char* text,
                   common_pkt_parsing* parsing) override {
        say("report", at(p), name, text, at(parsing));
        return answer;
    }
    void on_set(const char* name, const char* value, bool restart) override {
        say("set", name, value, restart);
    }
    void transmit() override { say("transmit"); }
    void write_scte20(uint8_t* d, size_t n) override { say("scte20", at(d), n); }
    void write_cea708(unsigned n, zeph_cea708_word* w) override { say("cea708", n, at(w)); }
    void write_eia608(uint8_t field, uint16_t word) override { say("eia608", int{field}, word); }
    bool mpeg_insert_output(uint8_t*& out, size_t n) override {
        say("insert_output", at(out), n);
        out++;
        return answer;
    }
    void mpeg_insert_eia608_cc() override { say("insert_eia608"); }
    void mpeg_insert_cea708_cc(size_t pts) override { say("insert_cea708", pts); }
    void h264_insert_cea708_cc(size_t pts) override { say("insert_sei", pts); }
    void mpeg_insert_scte20(size_t pts) override { say("insert_scte20", pts); }
    void write_mpeg2_gop_timecode(const mpeg2_gop_timecode_t& tc) override { say("timecode", at(&tc)); }
    void mpeg_insert_gop_timecode(const mpeg2_gop_timecode_t& tc) override {
        say("insert_timecode", at(&tc));
    }

    bool answer = true;
};

template <typename... Arguments>
std::string text(const char* operation, const Arguments&... arguments) {
    std::ostringstream text;
    text << operation;
    ((text << ' ' << arguments), ...);
    return text.str();
}

TEST(VirtualTable, ReachesEveryOverrideWithItsArguments) {
    Distinct host;
    void* const self = &host;
    const Slots& s = slots_of(self);
    uint8_t bytes[8] = {};
    uint8_t* const d = bytes;
    const Y y = bytes + 1, u = bytes + 2, v = bytes + 3;
    AVPacket* const packet = av_packet_alloc();
    zeph_cea708_word words[2] = {};
    mpeg2_gop_timecode_t tc;
    common_pkt_parsing parsing;
    auto* const report = reinterpret_cast<comm_socket_v4_packet*>(bytes + 4);

    s.default_config(self);
    EXPECT_EQ(said, "default_config");
    s.emit_data_out(self, y, 11, packet);
    EXPECT_EQ(said, text("emit", at(y), 11, at(packet)));
    s.host_emit_data_out(self, u, 12, packet);
    EXPECT_EQ(said, text("host_emit", at(u), 12, at(packet)));
    EXPECT_STREQ(s.output_name(self), "distinct");
    EXPECT_EQ(said, "output_name");
    s.begin_output(self);
    EXPECT_EQ(said, "begin_output");
    s.free_encoder(self);
    EXPECT_EQ(said, "free");
    s.client_unref(self);
    EXPECT_EQ(said, "unref");
    for (bool answer : {false, true}) {
        host.answer = answer;
        EXPECT_EQ(s.write_video(self, y, 21, u, 22, v, 23, -24, 0xFEDCBA9876543210u), answer);
        EXPECT_EQ(said, text("write_video", at(y), 21, at(u), 22, at(v), 23, -24, 0xFEDCBA9876543210u));
        EXPECT_EQ(s.flush_delayed_video(self), answer);
        EXPECT_EQ(said, "flush");
        EXPECT_EQ(s.init_encoder(self), answer);
        EXPECT_EQ(said, "init");
        EXPECT_EQ(s.client_addref(self), answer);
        EXPECT_EQ(said, "addref");
        EXPECT_EQ(s.on_report(self, report, "name", "text", &parsing), answer);
        EXPECT_EQ(said, text("report", at(report), "name", "text", at(&parsing)));
        uint8_t* out = bytes + 5;
        EXPECT_EQ(s.mpeg_insert_output(self, &out, 31), answer);
        EXPECT_EQ(said, text("insert_output", at(bytes + 5), 31));
        EXPECT_EQ(out, bytes + 6) << "the position is passed by reference";
        s.on_set(self, "key", "value", answer);
        EXPECT_EQ(said, text("set", "key", "value", answer));
    }
    s.do_resize_yuv_plane(self, d, 1, y, 2, 3, 4, 5, 6, 7, 8, -9);
    EXPECT_EQ(said, text("plane", at(d), 1, at(y), 2, 3, 4, 5, 6, 7, 8, -9));
    s.resize_input_to_output(self, y, 1, u, 2, v, 3, 4, 5, -6);
    EXPECT_EQ(said, text("picture", at(y), 1, at(u), 2, at(v), 3, 4, 5, -6));
    s.do_resize_yuv_plane_mode3(self, d, 1, y, 2, 3, 4, 5, 6, 7, 8, -9);
    EXPECT_EQ(said, text("plane3", at(d), 1, at(y), 2, 3, 4, 5, 6, 7, 8, -9));
    s.resize_input_to_output_mode3(self, y, 1, u, 2, v, 3, 4, 5, -6);
    EXPECT_EQ(said, text("picture3", at(y), 1, at(u), 2, at(v), 3, 4, 5, -6));
    s.do_resize_yuv_plane_mode4(self, d, 1, y, 2, 3, 4, 5, 6, 7, 8, -9, d, 10, 11, 12);
    EXPECT_EQ(said, text("plane4", at(d), 1, at(y), 2, 3, 4, 5, 6, 7, 8, -9, at(d), 10, 11, 12));
    s.resize_input_to_output_mode4(self, y, 1, u, 2, v, 3, 4, 5, -6);
    EXPECT_EQ(said, text("picture4", at(y), 1, at(u), 2, at(v), 3, 4, 5, -6));
    s.transmit(self);
    EXPECT_EQ(said, "transmit");
    s.write_scte20(self, d, 41);
    EXPECT_EQ(said, text("scte20", at(d), 41));
    s.write_cea708(self, 2, words);
    EXPECT_EQ(said, text("cea708", 2, at(words)));
    s.write_eia608(self, 255, 0x9420);
    EXPECT_EQ(said, text("eia608", 255, 0x9420));
    s.mpeg_insert_eia608_cc(self);
    EXPECT_EQ(said, "insert_eia608");
    s.mpeg_insert_cea708_cc(self, 51);
    EXPECT_EQ(said, "insert_cea708 51");
    s.h264_insert_cea708_cc(self, 52);
    EXPECT_EQ(said, "insert_sei 52");
    s.mpeg_insert_scte20(self, 53);
    EXPECT_EQ(said, "insert_scte20 53");
    s.write_mpeg2_gop_timecode(self, &tc);
    EXPECT_EQ(said, text("timecode", at(&tc)));
    s.mpeg_insert_gop_timecode(self, &tc);
    EXPECT_EQ(said, text("insert_timecode", at(&tc)));

    AVPacket* done = packet;
    av_packet_free(&done);
}

TEST(VirtualTable, FirstSlotDestroysAndSecondAlsoFrees) {
    destroyed = freed = 0;
    void* first = new (::operator new(sizeof(Distinct))) Distinct;
    slots_of(first).destroy(first);
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(freed, 0);
    ::operator delete(first);

    void* second = new (::operator new(sizeof(Distinct))) Distinct;
    slots_of(second).destroy_and_free(second);
    EXPECT_EQ(destroyed, 2);
    EXPECT_EQ(freed, 1);
}

// The library's own calls, caught in a table built by hand

/// An encoder whose table is a copy: single slots can be replaced by functions that know no C++.
class Tapped {
public:
    explicit Tapped(int codec) : encoder_(new Subject(codec)) {
        void* const* original;
        std::memcpy(&original, static_cast<void*>(encoder_.get()), sizeof original);
        original_ = original;
        std::memcpy(table_, original - 2, sizeof table_);  // offset to top and type precede the slots
        use(table_ + 2);
    }
    ~Tapped() { use(original_); }
    GeneralStreamingVideoEncoder* operator->() { return encoder_.get(); }
    GeneralStreamingVideoEncoder& operator*() { return *encoder_; }

    template <typename Function>
    void replace(int slot, Function* function) {
        table_[2 + slot] = reinterpret_cast<void*>(function);
    }

private:
    void use(void* const* table) { std::memcpy(static_cast<void*>(encoder_.get()), &table, sizeof table); }

    std::unique_ptr<GeneralStreamingVideoEncoder> encoder_;
    void* const* original_;
    void* table_[2 + 32];
};

std::vector<int> taps;  // slots called, in order

template <int slot>
void tap(void*) {
    taps.push_back(slot);
}
template <int slot>
void tap_pts(void*, size_t) {
    taps.push_back(slot);
}
template <int slot>
void tap_emission(void*, const uint8_t*, size_t, AVPacket*) {
    taps.push_back(slot);
}
template <int slot>
void tap_picture(void*, Y, size_t, Y, size_t, Y, size_t, unsigned, unsigned, int) {
    taps.push_back(slot);
}
template <int slot>
void tap_plane(void*, uint8_t*, size_t, Y, size_t, unsigned, unsigned, unsigned, unsigned, unsigned, unsigned,
               int) {
    taps.push_back(slot);
}
void tap_plane4(void*, uint8_t*, size_t, Y, size_t, unsigned, unsigned, unsigned, unsigned, unsigned,
                unsigned, int, uint8_t*, unsigned, uint8_t, uint8_t) {
    taps.push_back(17);
}
void tap_timecode(void*, const mpeg2_gop_timecode_t*) { taps.push_back(31); }
bool tap_init_fails(void*) {
    taps.push_back(10);
    return false;
}
bool tap_init_succeeds(void*) {
    taps.push_back(10);
    return true;
}
const char* tap_name(void*) {
    taps.push_back(5);
    return "tapped";
}
bool tap_insert(void*, uint8_t**, size_t) {
    taps.push_back(25);
    return false;
}

std::vector<int> taps_of(const std::function<void()>& work) {
    taps.clear();
    stderr_of(work);
    return taps;
}

using Taps = std::vector<int>;

TEST(LibraryCalls, OpenAndCloseThroughTheirSlots) {
    Tapped host(kMpeg2);
    host.replace(9, tap<9>);
    host.replace(10, tap_init_fails);
    EXPECT_EQ(taps_of([&] { EXPECT_FALSE(host->client_addref()); }), Taps{10});
    host.replace(10, tap_init_succeeds);
    EXPECT_EQ(taps_of([&] { EXPECT_TRUE(host->client_addref()); }), Taps{10});
    EXPECT_EQ(taps_of([&] { host->client_unref(); }), Taps{});
    EXPECT_EQ(taps_of([&] { host->client_unref(); }), Taps{9});
    EXPECT_EQ(taps_of([&] { host->client_unref(); }), Taps{}) << "a negative count";
    EXPECT_EQ(taps_of([&] { host->on_set("bitrate", "5000000", false); }), Taps{9});
    EXPECT_EQ(taps_of([&] { host->on_set("bitrate", "5000000", true); }), (Taps{9, 10}));
    EXPECT_EQ(taps_of([&] { host->on_set("encoder", "h.264", true); }), (Taps{9, 9, 10}));
    EXPECT_EQ(taps_of([&] { host->on_set("name", "x", true); }), Taps{});
}

TEST(LibraryCalls, FailedOpeningClosesThroughItsSlot) {
    codec_listener.reset();
    codec_listener.opening = Opening::kRefuse;
    Tapped host(kMpeg2);
    host.replace(9, tap<9>);
    EXPECT_EQ(taps_of([&] { EXPECT_FALSE(host->client_addref()); }), Taps{9});
    codec_listener.reset();
    host->GeneralStreamingVideoEncoder::free_encoder();
    EXPECT_EQ(codec_listener.alive(), 0u);
}

TEST(LibraryCalls, DumpFileAsksForTheName) {
    codec_listener.reset();
    codec_listener.opening = Opening::kPretend;
    Tapped host(kMpeg2);
    host->debug_file = true;
    host.replace(5, tap_name);
    EXPECT_EQ(taps_of([&] { EXPECT_TRUE(host->client_addref()); }), Taps{5});
    host->client_unref();
    codec_listener.reset();
}

TEST(LibraryCalls, EmissionEndsInTheHostsSlot) {
    Tapped host(kMpeg2);
    host.replace(4, tap_emission<4>);
    const uint8_t unit[4] = {};
    EXPECT_EQ(taps_of([&] { host->emit_data_out(unit, sizeof unit, nullptr); }), Taps{4});
}

void write_one(GeneralStreamingVideoEncoder& encoder, unsigned n, int flags = -1) {
    const TestPicture p(encoder.input_width, encoder.input_height, 1, 1, n);
    EXPECT_TRUE(encoder.write_video(p.y.data(), p.width, p.u.data(), p.chroma_width, p.v.data(),
                                    p.chroma_width, flags, n));
}

/// Taps everything that the frame path calls, and the two slots that the library never calls.
void tap_frame_path(Tapped& host) {
    host.replace(3, tap_emission<3>);
    host.replace(6, tap<6>);
    host.replace(14, tap_picture<14>);
    host.replace(16, tap_picture<16>);
    host.replace(18, tap_picture<18>);
    host.replace(21, tap<21>);
    host.replace(26, tap<26>);
    host.replace(27, tap_pts<27>);
    host.replace(28, tap_pts<28>);
    host.replace(29, tap_pts<29>);
    host.replace(31, tap_timecode);
}

TEST(LibraryCalls, Mpeg2PictureGoesThroughInsertersToEmission) {
    codec_listener.reset();
    Tapped host(kMpeg2);
    host->b_frames = 0;
    host->eia608_enable = 1;
    host->cea708_enable = 1;
    host->frame_rate_num = 30000;
    host->frame_rate_den = 1001;
    tap_frame_path(host);
    ASSERT_EQ(taps_of([&] { ASSERT_TRUE(host->client_addref()); }), Taps{});
    EXPECT_EQ(taps_of([&] { write_one(*host, 0); }), Taps{}) << "the codec holds one picture back";
    EXPECT_EQ(taps_of([&] { write_one(*host, 1); }), (Taps{26, 29, 27, 31, 3})) << "an I-picture";
    EXPECT_EQ(taps_of([&] { write_one(*host, 2); }), (Taps{26, 29, 27, 3})) << "a P-picture";
    host->eia608_on_p_frames = 0;
    EXPECT_EQ(taps_of([&] { write_one(*host, 3); }), (Taps{29, 27, 3}));
    host->cea708_enable = 0;
    EXPECT_EQ(taps_of([&] { write_one(*host, 4); }), (Taps{29, 3}));
    EXPECT_EQ(taps_of([&] { host->client_unref(); }), Taps{});
}

TEST(LibraryCalls, DrainedPictureGoesStraightToEmission) {
    codec_listener.reset();
    Tapped host(kMpeg2);
    host->eia608_enable = 1;
    host->cea708_enable = 1;
    tap_frame_path(host);
    stderr_of([&] {
        ASSERT_TRUE(host->client_addref());
        for (unsigned n = 0; n < 4; n++) write_one(*host, n);
    });
    EXPECT_EQ(taps_of([&] { EXPECT_TRUE(host->flush_delayed_video()); }), Taps{3});
    stderr_of([&] { host->client_unref(); });
}

TEST(LibraryCalls, H264PictureGoesThroughItsSeiInserter) {
    codec_listener.reset();
    Tapped host(kH264);
    host->b_frames = 0;
    host->maximum_threads = 1;
    host->eia608_enable = 1;
    host->cea708_enable = 1;
    tap_frame_path(host);
    Taps all;
    taps_of([&] { ASSERT_TRUE(host->client_addref()); });
    for (unsigned n = 0; n < 8; n++) {
        const Taps of_one = taps_of([&] { write_one(*host, n); });
        all.insert(all.end(), of_one.begin(), of_one.end());
    }
    ASSERT_GE(all.size(), 2u);
    for (size_t n = 0; n < all.size(); n++) EXPECT_EQ(all[n], n % 2 ? 3 : 28) << "call " << n;
    stderr_of([&] { host->client_unref(); });
}

TEST(LibraryCalls, ChangedPicturesAreScaledThroughTheirSlots) {
    struct ScaleCase {
        int deinterlace, flags, slot;
    };
    for (const ScaleCase& c : {ScaleCase{-1, -1, 14},
                               {-1, 0, 14},
                               {0, 0, 14},
                               {3, -1, 14},
                               {3, 0, 16},
                               {3, 1, 16},
                               {4, -1, 14},
                               {4, 0, 18},
                               {4, 1, 18},
                               {5, 1, 14}}) {
        codec_listener.reset();
        Tapped host(kMpeg2);
        host->b_frames = 0;
        host->resize_width = 160;
        host->resize_height = 112;
        host->resize_deinterlace = c.deinterlace;
        tap_frame_path(host);
        stderr_of([&] { ASSERT_TRUE(host->client_addref()); });
        SCOPED_TRACE("mode " + std::to_string(c.deinterlace) + " flags " + std::to_string(c.flags));
        EXPECT_EQ(taps_of([&] { write_one(*host, 0, c.flags); }), Taps{c.slot});
        EXPECT_EQ(taps_of([&] { write_one(*host, 1, c.flags); }), (Taps{c.slot, 29, 31, 3}));
        stderr_of([&] { host->client_unref(); });
    }
}

TEST(LibraryCalls, PicturesAreScaledPlaneByPlaneThroughTheirSlots) {
    codec_listener.reset();
    codec_listener.opening = Opening::kPretend;
    Tapped host(kMpeg2);
    host->resize_width = 160;
    host->resize_height = 112;
    stderr_of([&] { ASSERT_TRUE(host->client_addref()); });
    host.replace(13, tap_plane<13>);
    host.replace(15, tap_plane<15>);
    host.replace(17, tap_plane4);
    const TestPicture p(320, 240, 1, 1, 0);
    EXPECT_EQ(taps_of([&] {
                  host->resize_input_to_output(p.y.data(), 320, p.u.data(), 160, p.v.data(), 160, 320, 240,
                                               -1);
              }),
              (Taps{13, 13, 13}));
    EXPECT_EQ(taps_of([&] {
                  host->resize_input_to_output_deinterlace_basic_mode3(p.y.data(), 320, p.u.data(), 160,
                                                                       p.v.data(), 160, 320, 240, 0);
              }),
              (Taps{15, 15, 15}));
    EXPECT_EQ(taps_of([&] {
                  host->resize_input_to_output_deinterlace_adaptive_mode4(p.y.data(), 320, p.u.data(), 160,
                                                                          p.v.data(), 160, 320, 240, 0);
              }),
              (Taps{17, 17, 17}));
    host->client_unref();
    codec_listener.reset();
}

TEST(LibraryCalls, InsertersOpenTheirGapThroughItsSlot) {
    codec_listener.reset();
    Tapped host(kMpeg2);
    host->b_frames = 0;
    host->cea708_enable = 1;
    host.replace(25, tap_insert);
    stderr_of([&] { ASSERT_TRUE(host->client_addref()); });
    uint8_t body[4] = {1, 2, 3, 4};
    host->write_scte20(body, sizeof body);
    stderr_of([&] { write_one(*host, 0); });
    EXPECT_EQ(taps_of([&] { write_one(*host, 1); }), (Taps{25, 25})) << "SCTE-20, then cc_data";
    stderr_of([&] { host->client_unref(); });
}

// The side-data record

/// The record as a C program would declare it.
struct MirroredSideData {
    const void* const* table;
    uint16_t eia608_word_field1, eia608_word_field2;
    uint32_t cea708_count;
    uint8_t cea708_words[32][3];
    uint8_t scte20_data[1024];
    size_t scte20_data_length;
    uint64_t host_frame_tag;
    uint8_t timecode[6];
    alignas(8) unsigned char text[sizeof(std::string)];
};

TEST(SideDataLayout, MatchesAnIndependentMirror) {
    ASSERT_EQ(sizeof(GeneralStreamingVideoEncoderAuxData), sizeof(MirroredSideData));
    GeneralStreamingVideoEncoderAuxData record;
    record.eia608_word_field1 = 0x1122;
    record.eia608_word_field2 = 0x3344;
    record.cea708_count = 0x55667788;
    record.cea708_words[0] = {0xFE, 0x0102};
    record.cea708_words[31] = {0xFF, 0x0304};
    record.scte20_data[0] = 0x77;
    record.scte20_data[1023] = 0x78;
    record.scte20_data_length = 0x1122334455667788;
    record.host_frame_tag = 0x99AABBCCDDEEFF00;
    record.gop_timecode.valid = 1;
    record.gop_timecode.drop_frame_flag = 2;
    record.gop_timecode.hours = 3;
    record.gop_timecode.minutes = 4;
    record.gop_timecode.seconds = 5;
    record.gop_timecode.pictures = 6;
    MirroredSideData mirror;
    std::memcpy(&mirror, static_cast<const void*>(&record), sizeof mirror);
    EXPECT_EQ(mirror.table[0], dlsym(RTLD_DEFAULT, "_ZN35GeneralStreamingVideoEncoderAuxDataD1Ev"));
    EXPECT_EQ(mirror.table[1], dlsym(RTLD_DEFAULT, "_ZN35GeneralStreamingVideoEncoderAuxDataD0Ev"));
    EXPECT_EQ(mirror.eia608_word_field1, 0x1122);
    EXPECT_EQ(mirror.eia608_word_field2, 0x3344);
    EXPECT_EQ(mirror.cea708_count, 0x55667788u);
    const uint8_t first[3] = {0xFE, 0x02, 0x01}, last[3] = {0xFF, 0x04, 0x03};
    EXPECT_EQ(std::memcmp(mirror.cea708_words[0], first, 3), 0);
    EXPECT_EQ(std::memcmp(mirror.cea708_words[31], last, 3), 0);
    EXPECT_EQ(mirror.scte20_data[0], 0x77);
    EXPECT_EQ(mirror.scte20_data[1023], 0x78);
    EXPECT_EQ(mirror.scte20_data_length, 0x1122334455667788u);
    EXPECT_EQ(mirror.host_frame_tag, 0x99AABBCCDDEEFF00u);
    const uint8_t timecode[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(std::memcmp(mirror.timecode, timecode, 6), 0);
    EXPECT_EQ(reinterpret_cast<const char*>(&record.gop_timecode.text) -
                  reinterpret_cast<const char*>(&record.gop_timecode),
              8);
}

}  // namespace
}  // namespace gsve::test
