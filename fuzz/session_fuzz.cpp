// Whole sessions: any sequence of a host's calls on one object, within what the calls are documented to take.
// Small pictures, so that the codecs are not what the time goes into; in every second session a script stands
// in for the codec and answers with packets of any bytes.

#include <cstring>
#include <memory>
#include <string>
#include <string_view>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
}

#include <gsve.h>
#include <orb_utils_v4/comm.h>
#include <orb_utils_v4/reference/comm_packet.h>

#include "input.h"
#include "support/scripted_exchange.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    av_log_set_level(AV_LOG_QUIET);
    return 0;
}

namespace {

using gsve::fuzz::Bytes;
using gsve::fuzz::Input;
using gsve::fuzz::Noise;
using gsve::test::surroundings;

/// Opening libx265 takes a hundred times as long as all the rest: few inputs get there.
constexpr uint8_t kH265Byte = 0xC5;

constexpr unsigned kMostCalls = 64;

// ---- Settings -------------------------------------------------------------------------------------------

struct Setting {
    const char* key;
    const char* values[5];
};

// Without "debug file", which would write to the machine, and the slow presets.
constexpr Setting kSettings[] = {
    {"bitrate", {"400000", "10000", "9999", "2000000", "20000"}},
    {"min bitrate", {"-1", "0", "100000", "2000000", "x"}},
    {"max bitrate", {"-1", "0", "100000", "2000000", "x"}},
    {"bitrate tolerance", {"0", "-1", "100000", "1", ""}},
    {"buffer size", {"0", "100000", "1", "2000000", ""}},
    {"minimum quant", {"0", "2", "30", "63", ""}},
    {"maximum quant", {"0", "2", "30", "63", ""}},
    {"noise reduction", {"0", "5", "1000", "", "x"}},
    {"temporal complexity masking", {"0", "1", "nan", "-5", "1e300"}},
    {"spatial complexity masking", {"0", "1", "nan", "-5", "1e300"}},
    {"p masking", {"0", "1", "nan", "-5", "1e300"}},
    {"gop size", {"-1", "1", "2", "12", "1000"}},
    {"closed gop", {"0", "1", "", "1", "0"}},
    {"gop synchronization", {"0", "1", "", "1", "0"}},
    {"b frames", {"0", "1", "2", "3", "100"}},
    {"reference frames", {"0", "1", "4", "16", "17"}},
    {"frame rate limit", {"0", "-1", "10", "30", "0x1e"}},
    {"chroma format", {"4:2:0", "4:2:2", "4:4:4", "4:1:1", ""}},
    {"resize", {"32x32", "50x34", "18x64", "33x17", ""}},
    {"resize deinterlace", {"-1", "0", "1", "2", "3"}},
    {"resize deinterlace", {"4", "4", "3", "5", "x"}},
    {"motion estimation range", {"1", "16", "256", "2", "4"}},
    {"interlaced motion estimation", {"0", "1", "-1", "2", ""}},
    {"constant bitrate per frame", {"0", "1", "-1", "0", "1"}},
    {"drop frame for bitrate limit", {"on", "off", "auto", "x", ""}},
    {"remove trailing zeros", {"0", "1", "1", "1", "x"}},
    {"h.264 profile", {"baseline", "main", "high", "high422", "high444"}},
    {"h.264 preset", {"ultrafast", "ultrafast+deblock", "ultrafast", "x", ""}},
    {"h.264 level", {"4.1", "1", "x", "", "3"}},
    {"h.264 aud", {"0", "1", "x", "0", "1"}},
    {"enable h.264 nal hrd", {"0", "1", "0x10", "", "1"}},
    {"h.264 b-slice multithreading", {"0", "1", "1", "0", "1"}},
    {"enable eia-608", {"-1", "0", "1", "1", "1"}},
    {"enable cea-708", {"-1", "0", "1", "1", "1"}},
    {"eia-608 on p-frames", {"-1", "0", "1", "0", "0"}},
    {"s_tune_cpu", {"0", "1", "10000", "x", ""}},
    {"s_tune_bitrate", {"0", "1", "10000", "x", ""}},
    {"s_tune_recovery", {"0", "1", "10000", "x", ""}},
    {"cpu threshhold", {"0.1", "0.95", "0.6", "x", ""}},
    {"enable", {"1", "1", "0", "1", ""}},
    {"name", {"one", "", "a name", "%s", "\xFF"}},
    {"encoder", {"mpeg-2", "h.264", "none", "x", ""}},
    {"unknown", {"1", "", "x", "0", "2"}},
    {"maximum threads", {"1", "0", "2", "x", ""}},
    {"enable eia-608 gop delay", {"-1", "0", "5", "x", ""}},
};

struct Rate {
    int num, den;
};
constexpr Rate kRates[] = {{30000, 1001}, {25, 1},  {60000, 1001}, {50, 1},   {24000, 1001}, {24, 1},
                           {60, 1},       {40, 1},  {41, 1},       {1, 1},    {0, 1},        {30, 0},
                           {-1, -1},      {-25, 1}, {120, 1},      {1000, 3}, {1, 60},       {2147483647, 1}};

struct Chroma {
    unsigned shift_x, shift_y;
};
constexpr Chroma kChroma[] = {{1, 1}, {1, 1}, {1, 1}, {1, 0}, {0, 0}, {2, 0}, {2, 1}, {0, 1}};

// ---- The host -------------------------------------------------------------------------------------------

class Host : public GeneralStreamingVideoEncoder {
public:
    /// What the hook does with the object that calls it.
    enum class Reaction : uint8_t { kNone, kClose, kReopen, kSet, kLeave, kAsk, kCount };

    ~Host() override { refcount = 0; }

    void host_emit_data_out(const uint8_t* data, size_t len, AVPacket* pkt) override {
        GSVE_FUZZ_REQUIRE(len > 0 && pkt == mpeg_packet && output_window);
        GSVE_FUZZ_REQUIRE(output_window->base <= data && data + len <= output_window->limit);
        GSVE_FUZZ_REQUIRE(data == output_window->data && data + len == output_window->end);
        if (in_write_video) GSVE_FUZZ_REQUIRE(pkt->data == data && pkt->size == static_cast<int>(len));
        checksum += data[0] + data[len / 2] + data[len - 1];
        units++;
        react();
    }

    void react() {
        switch (reaction) {
            case Reaction::kClose: free_encoder(); break;
            case Reaction::kReopen:
                free_encoder();
                init_encoder();
                break;
            case Reaction::kSet: on_set("gop size", "3", true); break;
            case Reaction::kLeave:
                if (refcount > 0) client_unref();
                break;
            case Reaction::kAsk: report(); break;
            default: break;
        }
    }

    void report() {
        comm_socket_v4_packet packet;
        common_pkt_parsing parsing;
        parsing.omit_debug = units % 2 != 0;
        GSVE_FUZZ_REQUIRE(on_report(&packet, "fuzz", nullptr, &parsing));
        GSVE_FUZZ_REQUIRE(packet.pairs.size() == (parsing.omit_debug ? 3u : 4u));
        const std::string* const active = packet.find("*fuzz, active");
        GSVE_FUZZ_REQUIRE(active && (*active)[0] == (refcount != 0 && encoder_open ? '1' : '0'));
    }

    Reaction reaction = Reaction::kNone;
    bool in_write_video = false;
    unsigned units = 0;
    unsigned checksum = 0;
};

/// What holds between any two calls.
void check_state(const Host& host) {
    GSVE_FUZZ_REQUIRE(host.encoder_open == (host.mpeg_context != nullptr));
    GSVE_FUZZ_REQUIRE(host.encoder_open == (host.mpeg_frame != nullptr));
    GSVE_FUZZ_REQUIRE(host.encoder_open == (host.mpeg_packet != nullptr));
    GSVE_FUZZ_REQUIRE(host.encoder_open || (!host.output_window && !host.resize_buffer[0]));
    GSVE_FUZZ_REQUIRE(!host.encoder_open || host.last_error.empty());
    GSVE_FUZZ_REQUIRE(!host.output_window || sliding_window_v4_is_sane(host.output_window));
    GSVE_FUZZ_REQUIRE(host.eia608_field1_queue.size() <= 33 && host.eia608_field2_queue.size() <= 33);
    GSVE_FUZZ_REQUIRE(host.cea708_queue.size() <= 192 + 256);
    GSVE_FUZZ_REQUIRE(host.drop_level >= 0 && host.drop_level <= 4);
    GSVE_FUZZ_REQUIRE(host.bgop_building_text.size() <= 81 + sizeof "closed-gop I");
}

// ---- Calls ----------------------------------------------------------------------------------------------

/// The three planes of a picture, each without a byte to spare.
class Picture {
public:
    Picture(const Host& host, Input& input) {
        Noise noise(input.u8());
        const uint8_t content = input.u8();
        const uint8_t room = content % 4 == 0 ? input.u8() % 33 : 0;
        for (int plane = 0; plane < 3; plane++) {
            const unsigned shift_x = plane == 0 ? 0 : host.input_chroma_shift_x;
            const unsigned shift_y = plane == 0 ? 0 : host.input_chroma_shift_y;
            // FFmpeg rounds the chroma planes of odd sizes up.
            const auto width = static_cast<size_t>((host.input_width + (1 << shift_x) - 1) >> shift_x);
            const auto height = static_cast<size_t>((host.input_height + (1 << shift_y) - 1) >> shift_y);
            strides[plane] = width + room;
            const size_t size = (height - 1) * strides[plane] + width;
            planes[plane].reset(new uint8_t[size]);
            for (size_t i = 0; i < size; i++)
                planes[plane][i] =
                    content & 1 ? static_cast<uint8_t>(noise() >> 8) : static_cast<uint8_t>(i * content);
        }
        // A plane left out is refused by the codec, where it is what the codec gets.
        if (content == 0xFE && !host.resize_buffer[0]) planes[input.u8() % 3].reset();
    }

    std::unique_ptr<uint8_t[]> planes[3];
    size_t strides[3];
};

/// Pieces of MPEG-2 and H.264 units, and bytes of the input's.
Bytes take_unit(Input& input) {
    static constexpr std::string_view kPieces[] = {
        {"\x00\x00\x01\xB3", 4},
        {"\x00\x00\x01\xB8\x00\x08\x00\x40", 8},
        {"\x00\x00\x01\x00\x00\x08\xFF\xF8", 8},
        {"\x00\x00\x01\x00\x00\x10\xFF\xF8", 8},
        {"\x00\x00\x01\x01\x12\x34", 6},
        {"\x00\x00\x00\x01\x09\xF0", 6},
        {"\x00\x00\x01\x06\x05\x01\x00\x80", 8},
        {"\x00\x00\x01\x65\x88", 5},
        {"\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00", 10},
        {"\x00\x00\x01", 3},
    };
    Bytes unit;
    for (unsigned pieces = input.u8() % 12; pieces > 0; pieces--) {
        const uint8_t piece = input.u8();
        if (piece < 0xE0) {
            const std::string_view known = kPieces[piece % std::size(kPieces)];
            unit.insert(unit.end(), known.begin(), known.end());
        } else {
            const Bytes own = input.bytes(piece == 0xFF ? input.u16() : piece & 0x1F);
            unit.insert(unit.end(), own.begin(), own.end());
        }
    }
    return unit;
}

/// The script's answer to the next picture. A dts is never above the newest pts: the encoder counts on it.
void script_outcome(Host& host, Input& input) {
    static constexpr int kErrors[] = {AVERROR(EAGAIN), AVERROR(EINVAL), AVERROR_EOF, AVERROR(ENOMEM)};
    gsve::test::Outcome outcome;
    const uint8_t kind = input.u8();
    if (kind < 8)
        outcome = gsve::test::send_error(input.one_of(kErrors));
    else if (kind < 16)
        outcome = gsve::test::receive_error(input.one_of(kErrors));
    else if (kind < 40)
        outcome = gsve::test::held_back();
    else {
        outcome = gsve::test::packet(take_unit(input), kind & 1 ? AV_PKT_FLAG_KEY : 0);
        if (kind > 0xF0 && !host.aux_data_map.empty()) {
            const auto oldest = static_cast<int64_t>(host.aux_data_map.begin()->first);
            outcome.pts = oldest;
            outcome.dts = oldest - input.u8() % 4;
        } else if (kind == 0xF0) {
            outcome.pts = outcome.dts = AV_NOPTS_VALUE;
        }
    }
    outcome.encode_us = input.u8() % 4 == 0 ? input.u32() : input.u8() * 100;
    surroundings().outcomes = {outcome};
}

/// Whether the output window cannot be made: refused by the script, or asked for in the size of a bit rate
/// that the room for captions has taken more than all of.
bool lacks_window(const Host& host) {
    return surroundings().refuse_window || (host.mpeg_context && host.mpeg_context->bit_rate < 0);
}

void write_picture(Host& host, Input& input, uint64_t& timestamp) {
    const Picture picture(host, input);
    const uint8_t timing = input.u8();
    const int flags = static_cast<int>(timing % 4) - 2;
    if (timing >= 0xF8) {
        timestamp += input.u8();
    } else if (timing == 0xF0) {
        timestamp -= input.u8();
    } else if (timing == 0xF1) {
        timestamp = input.u64();
    }
    if (surroundings().scripted) script_outcome(host, input);
    const bool idle = !host.encoder_open || host.refcount == 0;
    const uint64_t sent_before = host.encoded_frame_count;
    const unsigned units_before = host.units;
    host.in_write_video = true;
    const bool written = host.write_video(
        picture.planes[0].get(), picture.strides[0], picture.planes[1].get(), picture.strides[1],
        picture.planes[2].get(), picture.strides[2], flags == -2 ? 0 : flags, timestamp);
    host.in_write_video = false;
    GSVE_FUZZ_REQUIRE(written || lacks_window(host));
    GSVE_FUZZ_REQUIRE(!idle || (host.units == units_before && host.encoded_frame_count == sent_before));
    GSVE_FUZZ_REQUIRE(host.units <= units_before + 1);
    timestamp++;
}

void set_something(Host& host, Input& input) {
    const Setting& setting = input.one_of(kSettings);
    const char* const value = input.one_of(setting.values);
    const uint8_t how = input.u8();
    if (how == kH265Byte && std::string_view(setting.key) == "encoder")
        return host.on_set("encoder", "h.265", true);
    host.on_set(setting.key, value, how & 1);
}

void flush(Host& host, unsigned most) {
    const bool usable = host.encoder_open && host.refcount != 0 && host.output_window;
    unsigned before = host.units;
    while (most-- > 0 && host.flush_delayed_video()) {
        GSVE_FUZZ_REQUIRE(usable && host.units == before + 1);
        before = host.units;
    }
    GSVE_FUZZ_REQUIRE(host.units == before);
}

void describe_source(Host& host, Input& input) {
    if (host.encoder_open) return;  // the description holds while the encoder is open
    const Rate rate = input.one_of(kRates);
    const Chroma chroma = input.one_of(kChroma);
    host.input_width =
        static_cast<int>(input.u8() % 16 == 0 ? input.between(1, 99) : 16 * input.between(1, 4));
    host.input_height =
        static_cast<int>(input.u8() % 16 == 0 ? input.between(1, 99) : 16 * input.between(1, 4));
    host.frame_rate_num = rate.num;
    host.frame_rate_den = rate.den;
    host.input_chroma_shift_x = chroma.shift_x;
    host.input_chroma_shift_y = chroma.shift_y;
    host.input_interlaced = input.u8() % 2;
    host.global_header = input.u8() % 8 == 0;
}

void signal(Host& host, Input& input) {
    switch (input.u8() % 5) {
        case 0:
            host.requested_picture_type = static_cast<int8_t>("IPBX"[input.u8() % 4]);
            host.gop_sync_frame_number = static_cast<int8_t>(input.u8());
            break;
        case 1:
            host.current_aspect_num = static_cast<int8_t>(input.u8());
            host.current_aspect_den = static_cast<int8_t>(input.u8());
            break;
        case 2: host.current_field_order = static_cast<int8_t>(input.u8() % 5 - 1); break;
        case 3: host.host_frame_tag = input.u64(); break;
        default:
            host.default_aspect_num = input.u32();
            host.default_aspect_den = input.u32();
            break;
    }
}

void write_captions(Host& host, Input& input) {
    const uint8_t kind = input.u8();
    if (kind % 4 == 0) {
        std::vector<zeph_cea708_word> words(input.u16() % 300);
        for (zeph_cea708_word& word : words) {
            word.header = static_cast<uint8_t>(0xFC | input.u8());
            word.value = input.u16();
        }
        host.write_cea708(static_cast<unsigned>(words.size()), words.data());
    } else if (kind % 4 == 1) {
        Bytes body(input.u16() % 1100, input.u8());
        const size_t before = host.scte20_length;
        host.write_scte20(body.data(), body.size());
        GSVE_FUZZ_REQUIRE(host.scte20_length == (body.size() > 1024 ? before : body.size()));
    } else {
        for (unsigned count = kind / 4; count > 0; count--)
            host.write_eia608(static_cast<uint8_t>(kind % 3),
                              static_cast<uint16_t>(kind & 0x40 ? 0x8080 : input.u16()));
    }
}

void write_timecode(Host& host, Input& input) {
    mpeg2_gop_timecode_t tc;
    tc.valid = input.u8() % 3;
    tc.drop_frame_flag = input.u8() % 2;
    tc.hours = input.u8() % 24;
    tc.minutes = input.u8() % 60;
    tc.seconds = input.u8() % 60;
    tc.pictures = input.u8() % 60;
    tc.text = std::string(tc.seconds, 't');
    host.write_mpeg2_gop_timecode(tc);
}

void call(Host& host, Input& input, uint64_t& timestamp) {
    switch (input.u8() % 24) {
        default: write_picture(host, input, timestamp); break;  // most of the values
        case 1:
        case 2: set_something(host, input); break;
        case 3:
        case 4:
        case 5: write_captions(host, input); break;
        case 6: write_timecode(host, input); break;
        case 7:
        case 8: signal(host, input); break;
        case 9: flush(host, 1); break;
        case 10: flush(host, 100); break;
        case 11: host.report(); break;
        case 12:
            if (host.refcount < 3) host.client_addref();
            break;
        case 13:
            if (host.refcount > -2) host.client_unref();
            break;
        case 14: host.free_encoder(); break;
        case 15: {
            const bool was_open = host.encoder_open;
            const bool opened = host.init_encoder();
            GSVE_FUZZ_REQUIRE(opened == (host.encoder_open || !host.enabled));
            GSVE_FUZZ_REQUIRE(!was_open || opened);
            break;
        }
        case 16: describe_source(host, input); break;
        case 17:
            host.reaction =
                static_cast<Host::Reaction>(input.u8() % static_cast<uint8_t>(Host::Reaction::kCount));
            break;
        case 18: host.begin_output(); break;
        case 19:
            if (input.u8() % 8 == 0) surroundings().refuse_window = input.flag();
            break;
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    surroundings() = {};
    const uint8_t kind = input.u8();
    surroundings().scripted = kind % 2 != 0;

    Host host;
    describe_source(host, input);
    host.on_set("encoder", kind == kH265Byte ? "h.265" : kind % 4 < 2 ? "mpeg-2" : "h.264", false);
    host.on_set("bitrate", "400000", false);
    host.on_set("maximum threads", "1", false);
    host.on_set("h.264 preset", "ultrafast", false);
    host.on_set("enable", "1", false);
    for (unsigned settings = input.u8() % 8; settings > 0; settings--) set_something(host, input);
    host.client_addref();
    check_state(host);

    uint64_t timestamp = input.u8() % 8 == 0 ? input.u64() : 0;
    for (unsigned calls = 0; calls < kMostCalls && !input.empty(); calls++) {
        call(host, input, timestamp);
        check_state(host);
    }
    return 0;
}
