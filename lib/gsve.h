#pragma once

// GeneralStreamingVideoEncoder: raw pictures, captions and timecodes in; MPEG-2 video, H.264 or H.265
// elementary stream units with their ancillary data out.
//
// A host subclasses the encoder and overrides host_emit_data_out(), through which every encoded unit leaves:
//
//     struct Channel : GeneralStreamingVideoEncoder {
//         void host_emit_data_out(const uint8_t* data, size_t len, AVPacket* pkt) override {
//             send(data, len, pkt->pts, pkt->dts);           // the bytes are the encoder's: send or copy
//         }
//     };
//
//     Channel channel;
//     channel.input_width = 1920;                            // describe the source, then the stream
//     channel.input_height = 1080;
//     channel.frame_rate_num = 30000;
//     channel.frame_rate_den = 1001;
//     channel.input_interlaced = 1;
//     channel.on_set("encoder", "h.264", false);
//     channel.on_set("bitrate", "8000000", false);
//     channel.on_set("enable", "1", false);
//     if (!channel.client_addref()) complain(channel.last_error);
//     for (uint64_t n = 0; Picture p = next(); n++)          // n, the source frame number, is the timestamp
//         channel.write_video(p.y, p.y_stride, p.u, p.u_stride, p.v, p.v_stride, p.field_order, n);
//     while (channel.flush_delayed_video()) {}               // each true delivered one more unit
//     channel.client_unref();                                // the last client closes the codec
//
// One thread at a time may call into one object: the class takes no lock. Different objects are independent.
//
// No operation that a host calls throws; only the constructor may (std::bad_alloc). Where the library finds
// no memory inside an operation, what the call was given is lost and nothing else: it returns false, where it
// returns anything, and the next call works. (A codec that finds none refuses the picture, as it refuses
// others, and mode 4 of "resize deinterlace" shows the previous picture again.) Hooks of the host should
// throw nothing; an exception derived from std::exception that one throws ends the operation in the same way.
// Only host_emit_data_out() may close or reopen the encoder.
//
// The guide (embedding.md) leads from an empty directory to a host on air, and says what each slot is for.
// Four limits that a host has to know stand there with their arithmetic: libavcodec ends the process where
// one picture of MPEG-2 takes longer than 0.728 s at a constant rate, which any picture may do below 3.3
// Mbit/s at 720x576 and 16.3 Mbit/s at 1920x1080, and where a small picture has no room for its stuffing; it
// divides by the distance of two reference pictures, kept in 16 bits; and a picture whose rows are longer
// than their stride is refused.
//
// Fields are public and part of the contract: hosts read and write them by name. Those under "Input
// description" and "Signalled by the host" are the host's to write; all others are the library's.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>

#include <orb_utils_v4/cea708.h>
#include <orb_utils_v4/mpeg12_video.h>

struct AVCodec;
struct AVCodecContext;
struct AVFrame;
struct AVPacket;
struct comm_socket_v4_packet;
struct common_pkt_parsing;
struct sliding_window_v4;

/// The version of this header, and of the library that it comes with. The major one is that of the binary
/// contract and of the shared object's name. The build, `gsve --version` and the packages read it here.
#define GSVE_VERSION_MAJOR 4
#define GSVE_VERSION_MINOR 0
#define GSVE_VERSION_PATCH 0

#define GSVE_QUOTED(text) #text
#define GSVE_DOTTED(major, minor, patch) GSVE_QUOTED(major) "." GSVE_QUOTED(minor) "." GSVE_QUOTED(patch)

/// The same as text, "4.0.0".
constexpr char gsve_version[] = GSVE_DOTTED(GSVE_VERSION_MAJOR, GSVE_VERSION_MINOR, GSVE_VERSION_PATCH);

#undef GSVE_DOTTED
#undef GSVE_QUOTED

#define GSVE_EXPORT __attribute__((visibility("default")))

/// The names that the setting "encoder" takes, indexed by codec id: 0 "none", 2 "mpeg-2", 4 "h.264",
/// 8 "h.265"; every other entry is "".
extern GSVE_EXPORT const char* const gsve_encoder_str[9];

/// A host may define this, and is then given every line of diagnostics first, on the thread that called into
/// the encoder. False: the line goes to standard error, as it does without this function. An empty text asks
/// whether lines would be taken.
extern "C" GSVE_EXPORT bool host_take_diagnostics(const char* text);

/// The ancillary data of one picture. It waits in GeneralStreamingVideoEncoder::aux_data_map, under the
/// picture's timestamp, until the codec returns the picture's packet.
class GSVE_EXPORT GeneralStreamingVideoEncoderAuxData {
public:
    static constexpr size_t kMaxCea708Words = 32;
    static constexpr size_t kMaxScte20Bytes = 1024;

    GeneralStreamingVideoEncoderAuxData();
    GeneralStreamingVideoEncoderAuxData(const GeneralStreamingVideoEncoderAuxData&) = default;
    GeneralStreamingVideoEncoderAuxData& operator=(const GeneralStreamingVideoEncoderAuxData&) = default;
    virtual ~GeneralStreamingVideoEncoderAuxData();

    uint16_t eia608_word_field1 = 0;                      ///< first caption byte in the high 8 bits; 0 = none
    uint16_t eia608_word_field2 = 0;                      ///< the same for field 2
    uint32_t cea708_count = 0;                            ///< entries used in cea708_words
    zeph_cea708_word cea708_words[kMaxCea708Words] = {};  ///< constructs with header 0xFE or 0xFF
    uint8_t scte20_data[kMaxScte20Bytes];  ///< user data after its type code (ANSI/SCTE 20); not cleared
    size_t scte20_data_length = 0;         ///< bytes used in scte20_data
    uint64_t host_frame_tag = UINT64_MAX;  ///< the host's tag for this picture; all ones = none
    mpeg2_gop_timecode_t gop_timecode;     ///< valid = 1 when the host gave a time code
};

/// One video encoder. See the usage at the top of this file.
///
/// States: *closed* after construction, after free_encoder() and after every failure of init_encoder();
/// *open* after init_encoder() succeeded with a client attached. After flush_delayed_video() has returned
/// false the codec is at the end of its stream: it takes pictures again only once closed and reopened.
///
/// The order of the virtual operations is part of the binary contract. Do not reorder. docs/contract.md lists
/// what else is fixed, however odd it looks.
class GSVE_EXPORT GeneralStreamingVideoEncoder {
public:
    GeneralStreamingVideoEncoder();
    GeneralStreamingVideoEncoder(const GeneralStreamingVideoEncoder&) = delete;
    GeneralStreamingVideoEncoder& operator=(const GeneralStreamingVideoEncoder&) = delete;

    /// Closes the encoder and releases everything. Complains on standard error when clients are left.
    virtual ~GeneralStreamingVideoEncoder();

    /// Gives every setting its default, except the texts "name", "chroma format" and "h.264 level".
    virtual void default_config();

    /// Writes the unit to the debug dump file, when one is open, and hands it to host_emit_data_out().
    /// Override host_emit_data_out() instead, unless the dump file is to be bypassed.
    virtual void emit_data_out(const uint8_t* data, size_t len, AVPacket* pkt);

    /// Hook: receives each encoded unit, `len` bytes at `data`, valid until the next write_video() or
    /// flush_delayed_video(). `pkt` is the codec's record of the unit, with pts, dts and the key flag.
    /// `current_output_tag` is the picture's host_frame_tag, except where the field says otherwise.
    ///
    /// In units from write_video(), pts and dts count source pictures from the first one, and `pkt` holds the
    /// unit's data and size. In units from flush_delayed_video(), `pkt` holds the codec's own bytes, the tag
    /// is what the last write_video() has left, and without per_frame_rate_control pts and dts count encoded
    /// pictures: multiply them by frame_rate_divider. With per_frame_rate_control a dts in front of the first
    /// picture reads 0.
    ///
    /// The hook may call back into the object, also to close or reopen it; `data` and `pkt` are gone once it
    /// has. The base does nothing.
    virtual void host_emit_data_out(const uint8_t* data, size_t len, AVPacket* pkt);

    /// Hook: a short name of this output, used in the debug dump file's name. The base returns "(unknown)".
    virtual const char* output_name();

    /// Empties the output window. For the host; never called by the library.
    virtual void begin_output();

    /// Encodes one picture: three 8-bit planes of the size and chroma format that the input description
    /// gives, rows `*_stride` bytes apart. The planes are read during the call only.
    ///
    /// `flags` is the field order: negative progressive, 0 top field first, 1 bottom field first
    /// (current_field_order, when not negative, takes its place). `timestamp` is the source frame number:
    /// consecutive source pictures must have consecutive timestamps for rate control, frame-rate division
    /// and caption timing to hold. It may start anywhere, but with a frame-rate limit must start at 0.
    ///
    /// At most one unit leaves through host_emit_data_out(), normally that of an earlier picture.
    /// Returns true when the picture was encoded, held back or refused by the codec, skipped by the
    /// frame-rate limit, dropped for the bit-rate limit, or passed over because the encoder is closed or has
    /// no client. Returns false when the encoder cannot be used or memory ran out.
    virtual bool write_video(const uint8_t* y, size_t y_stride, const uint8_t* u, size_t u_stride,
                             const uint8_t* v, size_t v_stride, int flags, unsigned long long timestamp);

    /// Drains one picture that the codec still holds. Call it after the last write_video() until it returns
    /// false; every true has delivered one unit. Drained units carry no inserted ancillary data.
    virtual bool flush_delayed_video();

    /// Closes the encoder. Harmless on a closed one. Settings, caption queues, texts and clients stay.
    virtual void free_encoder();

    /// Opens the encoder with the present settings and input description. Returns true when it is open
    /// afterwards (also when it was before), or when the setting "enable" is off. On failure returns false
    /// with the reason in last_error; without one when no client is attached or no codec chosen.
    virtual bool init_encoder();

    /// Adds a client and returns the result of init_encoder().
    virtual bool client_addref();

    /// Removes a client; the last one to leave closes the encoder. The object is never deleted.
    virtual void client_unref();

    /// Scales one plane, bilinear and field-aware, according to the setting "resize deinterlace". Steps are
    /// source samples per output sample in 16.16 fixed point. `field` is a field parity, or negative for a
    /// progressive picture. Planes wider than 4095 source samples are left alone.
    virtual void do_resize_yuv_plane(uint8_t* dY, size_t dY_stride, const uint8_t* sY, size_t sY_stride,
                                     unsigned to_width, unsigned to_height, unsigned x_step, unsigned y_step,
                                     unsigned src_width, unsigned src_height, int field);

    /// Scales a `width` by `height` picture into resize_buffer[0..2], end points aligned.
    virtual void resize_input_to_output(const uint8_t* y, size_t y_stride, const uint8_t* u, size_t u_stride,
                                        const uint8_t* v, size_t v_stride, unsigned width, unsigned height,
                                        int field);

    /// Scales one plane and removes combing by a three-line blend everywhere. `field` is not used.
    virtual void do_resize_yuv_plane_deinterlace_basic_mode3(uint8_t* dY, size_t dY_stride, const uint8_t* sY,
                                                             size_t sY_stride, unsigned to_width,
                                                             unsigned to_height, unsigned x_step,
                                                             unsigned y_step, unsigned src_width,
                                                             unsigned src_height, int field);

    /// As resize_input_to_output(), deinterlacing with the three-line blend, cells aligned.
    virtual void resize_input_to_output_deinterlace_basic_mode3(const uint8_t* y, size_t y_stride,
                                                                const uint8_t* u, size_t u_stride,
                                                                const uint8_t* v, size_t v_stride,
                                                                unsigned width, unsigned height, int field);

    /// Scales one plane with the three-line blend where `motion_map` flags combing and plain interpolation
    /// elsewhere. The map has one byte per 16 by 16 luma block of the source, `mb_cols` to a row.
    /// `map_shift_x` and `map_shift_y` are the plane's subsampling against the map: each group of 8 output
    /// samples takes the flag at (y >> (4 - map_shift_y)) * mb_cols + (x >> (4 - map_shift_x)), where x and y
    /// are the source position of its first sample. Nothing bounds this: the map has to reach as far. Without
    /// a map no block is combed. Rows are written up to a multiple of 8 samples.
    virtual void do_resize_yuv_plane_deinterlace_adaptive_mode4(
        uint8_t* dY, size_t dY_stride, const uint8_t* sY, size_t sY_stride, unsigned to_width,
        unsigned to_height, unsigned x_step, unsigned y_step, unsigned src_width, unsigned src_height,
        int field, uint8_t* motion_map, unsigned mb_cols, uint8_t map_shift_x, uint8_t map_shift_y);

    /// As resize_input_to_output(), deinterlacing where a motion map of the picture flags combing.
    virtual void resize_input_to_output_deinterlace_adaptive_mode4(const uint8_t* y, size_t y_stride,
                                                                   const uint8_t* u, size_t u_stride,
                                                                   const uint8_t* v, size_t v_stride,
                                                                   unsigned width, unsigned height,
                                                                   int field);

    /// Appends the encoder's state to a status packet: pairs named "*NAME, debug status" (unless
    /// `parsing->omit_debug`), "*NAME, active", "*NAME, last error" and "*NAME, last notes", where NAME is
    /// `report_name`. `text` is not read. Returns the result of the last append.
    virtual bool on_report(comm_socket_v4_packet* pkt, const char* report_name, const char* text,
                           common_pkt_parsing* parsing);

    /// Applies one setting. Keys are matched whole and case-sensitive; unknown ones are ignored, bad numbers
    /// are clamped or replaced. An accepted key closes the encoder, and reopens it when `restart` is true,
    /// except "name", "gop synchronization" and "remove trailing zeros", which apply at once.
    virtual void on_set(const char* name, const char* value, bool restart);

    /// Hook for the host; never called by the library. The base does nothing.
    virtual void transmit();

    /// Gives the next picture an SCTE 20 user data body of `len` bytes (after the type code), replacing one
    /// that still waits; 0 cancels it. More than 1024 bytes are ignored.
    virtual void write_scte20(uint8_t* data, size_t len);

    /// Queues CEA-708 constructs, at most 256 a call. Too many waiting: the oldest are dropped.
    /// Ignored unless the encoder is open with a client.
    virtual void write_cea708(unsigned count, zeph_cea708_word* words);

    /// Queues one EIA-608 byte pair, the first byte in the high 8 bits; parity bits are recomputed later.
    /// `field` is 0 or 1; others are ignored. Too many waiting: the oldest are dropped.
    /// Ignored unless the encoder is open with a client.
    virtual void write_eia608(uint8_t field, uint16_t word);

    /// Opens a gap of `n` bytes that ends at `out`, a position inside the current unit, by moving the bytes
    /// in front of it into the window's head room. On success returns true with `out` at the first byte of
    /// the gap. Returns false, changing nothing, when `out` lies outside the unit or head room is short.
    virtual bool mpeg_insert_output(uint8_t*& out, size_t n);

    /// Inserts the EIA-608 words of all pictures in front of the packet's dts as "CC" picture user data.
    virtual void mpeg_insert_eia608_cc();

    /// Inserts the captions of picture `pts` as ATSC A/53 cc_data ("GA94") picture user data.
    virtual void mpeg_insert_cea708_cc(size_t pts);

    /// Inserts the captions of picture `pts` as a registered user data SEI in front of the first slice.
    virtual void h264_insert_cea708_cc(size_t pts);

    /// Inserts the SCTE 20 body of picture `pts`, if it has one, as picture user data.
    virtual void mpeg_insert_scte20(size_t pts);

    /// Gives the next picture a time code. It reaches the stream when that picture starts a GOP.
    virtual void write_mpeg2_gop_timecode(const mpeg2_gop_timecode_t& tc);

    /// Writes `tc` into the GOP header of the unit in the output window. Nothing happens without a header.
    virtual void mpeg_insert_gop_timecode(const mpeg2_gop_timecode_t& tc);

    /// Whether EIA-608 words are inserted: as set, else automatic for standard-definition sources at 24, 30
    /// and 60 frames per second.
    bool enabled_eia608();

    /// Whether cc_data is inserted: as set, else automatic for sources at 24, 30 and 60 frames per second.
    bool enabled_cea708();

    /// Whether "CC" user data is written on P-pictures as well as on key pictures.
    bool do_eia608_on_p_frames();

    // Input description: the host writes these before the encoder is opened.
    int32_t input_width = 0;            ///< luma samples
    int32_t input_height = 0;           ///< luma lines
    uint32_t input_chroma_shift_x = 1;  ///< log2 of the horizontal chroma subsampling
    uint32_t input_chroma_shift_y = 1;  ///< log2 of the vertical chroma subsampling
    int32_t frame_rate_num = -1;        ///< source pictures per second, as a fraction
    int32_t frame_rate_den = -1;
    uint32_t input_interlaced = 0;  ///< non-zero for an interlaced source
    uint32_t encoder_index = 0;     ///< the host's number for this encoder; names it in diagnostics
    bool enabled_default = false;   ///< what "enable" means when given empty

    // Signalled by the host between pictures.
    int32_t current_aspect_num = -1;  ///< display aspect ratio of the source; -1 unknown
    int32_t current_aspect_den = -1;
    uint32_t default_aspect_num = 4;  ///< used while the source's is unknown
    uint32_t default_aspect_den = 3;
    int8_t current_field_order = -1;  ///< 0 progressive, 1 top field first, 2 bottom; -1 unknown
    // To follow the source's GOPs, set both with each picture and leave "gop size" below 1:
    int8_t requested_picture_type = -1;    ///< 'I', 'P' or 'B' for the next picture; -1 none
    int32_t gop_sync_frame_number = -1;    ///< output_frame_count to take on with the next picture; -1 none
    uint64_t host_frame_tag = UINT64_MAX;  ///< tag for the next picture; all ones = none

    // Settings, as on_set() stores them. -1 in a numeric one means not given, and so does 0 where it makes no
    // sense as a value: opening the codec decides.
    int32_t codec_id = 0;  ///< 0 none, 2 MPEG-2, 4 H.264, 8 H.265
    std::string encoder_name;
    bool enabled = false;
    bool debug_file = false;
    int32_t bitrate = 0;  ///< bits/s, captions included
    int32_t min_bitrate = 0;
    int32_t max_bitrate = 0;
    int32_t bitrate_tolerance = 0;
    int32_t buffer_size = 0;  ///< VBV or HRD buffer, bits
    int32_t minimum_quant = 0;
    int32_t maximum_quant = 0;
    int32_t constant_bitrate_per_frame = 0;
    int32_t drop_frame_for_bitrate_limit = 0;
    int32_t gop_size = 0;
    bool gop_synchronization = false;
    bool closed_gop = false;
    bool closed_gop_auto = false;
    int32_t b_frames = 0;
    int32_t reference_frames = 0;
    int32_t noise_reduction = 0;
    int32_t motion_estimation_range = 0;
    int32_t interlaced_motion_estimation = 0;
    double temporal_complexity_masking = 0;
    double spatial_complexity_masking = 0;
    double p_masking = 0;
    double s_tune_cpu = 0;
    double s_tune_bitrate = 0;
    double s_tune_recovery = 0;
    double cpu_threshold = 0;  ///< encode time budget as a fraction of the frame period
    int32_t maximum_threads = 0;
    int32_t frame_rate_limit = 0;  ///< frames per second; 0 none; negative none, but time may not go back
    std::string chroma_format;
    int32_t resize_width = 0;
    int32_t resize_height = 0;
    int32_t resize_deinterlace = 0;
    bool remove_trailing_zeros = false;
    std::string h264_profile;  ///< these four serve H.265 too
    std::string h264_preset;
    std::string h264_level;
    bool h264_nal_hrd = false;
    bool h264_aud = false;
    bool h264_b_slice_multithreading = false;
    int32_t eia608_enable = 0;  ///< -1 automatic; likewise the next three
    int32_t eia608_gop_delay = 0;
    int32_t eia608_on_p_frames = 0;
    int32_t cea708_enable = 0;
    bool global_header = false;  ///< parameter sets in extradata; a subclass may set it before opening

    // Codec, owned through FFmpeg; null while closed.
    const AVCodec* mpeg_codec = nullptr;
    AVCodecContext* mpeg_context = nullptr;
    AVPacket* mpeg_packet = nullptr;
    AVFrame* mpeg_frame = nullptr;

    // Open state.
    int32_t refcount = 0;  ///< clients attached
    bool encoder_open = false;
    uint64_t open_count = 0;     ///< how often the codec was opened; tells a run from the one before it
    bool codec_changed = false;  ///< "encoder" changed since the codec was last opened
    int32_t debug_fd = -1;       ///< debug dump file; -1 closed

    // Output geometry, set when the codec is opened.
    int32_t output_width = 0;
    int32_t output_height = 0;
    uint32_t output_chroma_shift_x = 0;
    uint32_t output_chroma_shift_y = 0;
    int32_t output_pixel_format = 0;  ///< an AVPixelFormat
    uint8_t* resize_buffer[4] = {};   ///< working planes Y, U, V; null when pictures are encoded as they come
    uint32_t resize_buffer_stride[4] = {};

    // Time base and picture timing.
    bool per_frame_rate_control =
        false;  ///< the codec's timestamps count pictures instead of following the host's
    uint32_t frame_rate_divider = 0;  ///< every how many source pictures one is encoded
    int32_t frame_duration_90k = 0;   ///< one encoded picture, in 90 kHz ticks
    int32_t effective_gop_size = -1;
    uint64_t first_timestamp = 0;  ///< all ones until the first picture
    uint64_t last_relative_timestamp = 0;
    uint64_t next_due_timestamp = 0;  ///< the frame-rate limit skips pictures before it
    uint64_t frame_counter = 0;       ///< pictures sent to the codec since it was opened
    uint64_t input_frame_count = 0;
    uint64_t output_frame_count = 0;
    uint32_t codec_delay_count = 0;  ///< pictures that the codec has held back
    uint64_t codec_delay_ms = 0;

    // Per-picture side data, waiting for packets.
    std::map<uint64_t, GeneralStreamingVideoEncoderAuxData> aux_data_map;  ///< by picture timestamp
    std::map<uint64_t, uint64_t> pts_map;  ///< per-frame rate control: frame counter to relative timestamp

    // Emission.
    sliding_window_v4* output_window = nullptr;  ///< holds the current unit; made by the first picture
    /// host_frame_tag of the picture being emitted; all ones = none. Tags wait under the number that the
    /// codec knows the picture by, and are sought by the unit's final pts, which counts source pictures.
    /// Where the two differ, the unit shows the tag of the picture whose number is its pts, or none if that
    /// one has not come yet:
    /// - with a frame_rate_divider above 1, which gives encoded picture n a pts of n * frame_rate_divider;
    /// - with per_frame_rate_control, once timestamps have leapt, repeated or gone back, or pictures were
    ///   dropped for the bit-rate limit: pts follows the timestamps, the number counts what the codec was
    ///   sent.
    /// The pts itself is the picture's in every unit of write_video(): such a host keeps its tags by that.
    /// write_video() resets the tag with every picture, units of flush_delayed_video() leave it alone.
    uint64_t current_output_tag = UINT64_MAX;
    uint8_t last_key_flag = 0;  ///< key flag of the latest unit

    // Caption intake.
    std::deque<uint16_t> eia608_field1_queue;
    std::deque<uint16_t> eia608_field2_queue;
    std::deque<zeph_cea708_word> cea708_queue;
    uint64_t eia608_next_pts = 0;  ///< first picture whose words "CC" user data has not carried yet
    uint8_t scte20_buffer[GeneralStreamingVideoEncoderAuxData::kMaxScte20Bytes] = {};
    uint64_t scte20_length = 0;  ///< bytes in scte20_buffer for the next picture
    mpeg2_gop_timecode_t pending_gop_timecode;

    // Rate statistics and adaptation.
    double smoothed_bitrate = 0;       ///< bits/s; -666.0 means no value yet
    double smoothed_encode_time = 0;   ///< seconds; -666.0 means no value yet
    double saved_spatial_masking = 0;  ///< live spatial complexity masking
    double drop_level = 0;             ///< 0.0 to 4.0: how far the stream runs over its bit rate
    double drop_credit = 0;

    // Status texts and counters, reported by on_report().
    int32_t vbr_value = -1;  ///< peak bit rate with captions, bits/s
    uint64_t encoded_frame_count = 0;
    std::string last_error;
    std::string last_notes;
    std::string dgop_text;  ///< picture types of the source's last GOP
    std::string dgop_building_text;
    std::string bgop_text;  ///< picture types of the MPEG-2 encoder's last GOP
    std::string bgop_building_text;
};
