#pragma once

// One encoder as its users want it: a picture with its ancillary data in, finished units out.
//
// It is the host's side of GeneralStreamingVideoEncoder: it describes the source, signals each picture's
// aspect ratio and field order, hands its captions, SCTE 20 data and time code over, and completes every
// unit, whether the codec returned it at once or held it until the end.
//
//     PictureEncoder encoder("channel 1");
//     encoder.describe_source({.width = 1920, .height = 1080, .frame_rate = {30000, 1001}});
//     encoder.apply("encoder", "h.264");
//     encoder.send_units_to([](const EncodedUnit& unit) { write(unit.bytes, unit.pts, unit.dts); });
//     if (!encoder.open(first_ancillary)) complain(encoder.last_error);
//     for (...) encoder.push(picture, ancillary);
//     encoder.drain();

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

extern "C" {
#include <libavutil/rational.h>
}

#include <gsve.h>

#include "captions/repacer.h"
#include "captions/timecode.h"
#include "encoding/buffer_delays.h"
#include "encoding/codec_id.h"
#include "encoding/colour.h"
#include "encoding/encoded_unit.h"
#include "encoding/picture_shape.h"
#include "encoding/picture_type.h"
#include "encoding/stream_headers.h"
#include "encoding/unit_times.h"

namespace gsve::encoding {

/// What all pictures of a source have in common.
struct SourceDescription {
    int width = 0;  ///< luma samples
    int height = 0;
    unsigned chroma_shift_x = 1;  ///< log2 of the horizontal chroma subsampling
    unsigned chroma_shift_y = 1;
    AVRational frame_rate = {25, 1};
    bool interlaced = false;
    Colour colour;                ///< as it is to be encoded; what is not described is not stated
    bool may_have_shape = false;  ///< the declared rate is to have room for active formats and bars
};

/// Three 8-bit planes of the described size, read during the call that is given them.
struct PictureView {
    const uint8_t* planes[3] = {};
    size_t strides[3] = {};
    uint64_t number = 0;  ///< source frame number; the first is 0, and each is above the one before
};

/// What goes with one picture.
struct Ancillary {
    captions::PictureWrites captions;
    std::vector<uint8_t> scte20;  ///< user data body after its type code; empty: none
    std::optional<captions::GopTimecode> timecode;
    AVRational display_aspect = {4, 3};
    int field_order = 0;  ///< 0 progressive, 1 top field first, 2 bottom field first
    /// Of the source's picture; bars are scaled as the picture is. What was said of earlier pictures and
    /// still holds is said again with key pictures.
    PictureShape shape, held_shape;
    /// To be encoded so that decoding can begin with it, whatever the setting "gop size" is. Where the
    /// picture is skipped or dropped, the caller asks again with the next one.
    bool key = false;
};

class PictureEncoder final : public GeneralStreamingVideoEncoder {
public:
    using Receiver = std::function<void(const EncodedUnit&)>;

    /// `name` names the output in diagnostics and dumps.
    explicit PictureEncoder(std::string name) : name_(std::move(name)) {}
    ~PictureEncoder() override;

    /// Who gets the units. May throw: push() and drain() pass it on once the encoder has returned.
    void send_units_to(Receiver receiver) { receiver_ = std::move(receiver); }

    /// To be called before open(), as are settings.
    void describe_source(const SourceDescription& source);

    /// Applies one setting; on an open encoder, most of them close it.
    void apply(const std::string& key, const std::string& value) {
        on_set(key.c_str(), value.c_str(), false);
    }

    /// Lets the load of the processor coarsen MPEG-2 pictures, as is right on air and as it is by default.
    /// Off, the same pictures give the same bytes on the same number of threads, however busy the machine is.
    void adapt_to_load(bool on) { adapts_to_load_ = on; }

    /// At the full rate A/53 cc_data of film holds all that Ancillary::captions has, two and three byte pairs
    /// in turn; else, and at all other rates, it is the encoder's own, with one pair of each field. To be
    /// called between open() and push().
    void carry_line_rate(captions::LineRate line_rate) { line_rate_ = line_rate; }

    /// Pictures come with SCTE 20 data, for which the declared rate is to have room. As above.
    void carry_scte20() { carries_scte20_ = true; }

    /// Opens the encoder. `first` is what goes with the first picture: the codec starts with its aspect ratio
    /// and field order. False: last_error tells why, or "enable" is off.
    bool open(const Ancillary& first);

    /// Pictures per second that are encoded. For an opened encoder, as is all that follows.
    AVRational encoded_rate() const;

    /// What the stream says of its colour.
    const Colour& colour() const { return colour_; }

    /// Bits per second that leave at most beyond the codec's own: captions, and what else goes into units.
    /// Headers declare the sum of both, and a stream of constant rate is filled up to it. From the first unit
    /// or parameter_sets() on, it is what it is then.
    double inserted_rate();

    /// The parameter sets that the codec keeps out of the units where "global_header" is set, as they are to
    /// stand in a container's header; empty where it keeps none.
    std::vector<uint8_t> parameter_sets();

    /// Headers of the stream that cannot be read, and left as they came from the codec.
    uint64_t unreadable_headers() const { return headers_ ? headers_->unreadable() : 0; }

    /// Whether push() will take the picture, rather than leave it out for the frame-rate limit.
    bool takes(uint64_t number) const { return frame_rate_limit == 0 || next_due_timestamp <= number; }

    /// Encodes one picture. Throws Failure where the encoder cannot go on, and what the receiver threw.
    PictureFate push(const PictureView& picture, const Ancillary& ancillary);

    /// MPEG-2's GOP headers count pictures where nobody gives them time codes: from this number on. To be
    /// called between open() and push().
    void count_gops_from(int64_t encoded);

    /// MPEG-2: GOPs that begin while it is on are closed, whatever the setting "closed gop" says. Told some
    /// pictures ahead, since the codec orders pictures by what follows.
    void close_gops(bool on);

    /// Fetches the pictures that the codec still holds; afterwards the encoder takes no more. Returns how
    /// many there were.
    uint64_t drain();

    /// Byte pairs that went in and are not in "CC" user data, which ends before the last pictures.
    uint64_t pairs_after_last_cc() const;

    // The encoder's hooks.
    const char* output_name() override { return name_.c_str(); }
    void emit_data_out(const uint8_t* data, size_t len, AVPacket* pkt) override;
    void host_emit_data_out(const uint8_t* data, size_t len, AVPacket* pkt) override;

    // Where the encoder would insert ancillary data. It does so in units that leave at once only, and before
    // these are complete; all units are completed in one place instead, when they leave.
    void mpeg_insert_eia608_cc() override {}
    void mpeg_insert_cea708_cc(size_t) override {}
    void h264_insert_cea708_cc(size_t) override {}
    void mpeg_insert_scte20(size_t) override {}
    void mpeg_insert_gop_timecode(const mpeg2_gop_timecode_t&) override {}

private:
    /// What is added to a picture's unit, once that comes.
    struct Awaited {
        captions::PictureWrites captions;
        std::optional<captions::GopTimecode> timecode;
        PictureShape shape, held_shape;  ///< of the encoded picture
        uint64_t encoded = 0;            ///< the picture's number among those that the encoder was given
    };

    class KeyRequest;

    void signal(const Ancillary& ancillary, uint64_t number);
    void queue(const Ancillary& ancillary, uint64_t number);
    void complete_unit(AVPacket& unit);
    void complete_mpeg2_unit(AVPacket& unit, uint64_t key);
    void insert_cc_data(uint64_t key);
    bool composes_captions() const;
    void await(const Ancillary& ancillary, uint64_t number);
    std::vector<uint8_t> additions(std::span<const uint8_t> unit, size_t position, uint64_t number, bool key);
    std::span<const uint8_t> with_additions(std::span<const uint8_t> unit, uint64_t number, bool key);
    void leave_room_in_buffer();
    Colour stated_colour() const;
    StreamHeaders& headers();
    bool has_constant_rate() const;
    void fill_up();
    void insert_timecode(int pictures_before, const mpeg2_gop_timecode_t& of_picture);
    uint64_t record_key(int64_t emitted_time) const;
    int reorder_depth() const;
    int64_t source_number(int64_t pts);
    void rethrow_failure();

    std::string name_;
    Receiver receiver_;
    std::optional<UnitTimes> times_;
    std::optional<PictureTypeReader> types_;
    std::map<uint64_t, captions::GopTimecode> timecodes_;  ///< of the latest pictures, by encoded number
    captions::LineRate line_rate_ = captions::LineRate::kPairOfEachField;
    std::map<uint64_t, Awaited> awaited_;  ///< of the latest pictures, by number
    Colour colour_;
    bool may_have_shape_ = false;
    bool carries_scte20_ = false;
    std::optional<StreamHeaders> headers_;
    std::optional<BufferDelays> delays_;
    std::vector<uint8_t> unit_;  ///< the latest one, with its additions
    size_t codec_size_ = 0;      ///< of the unit, as the codec gave it
    double unfilled_ = 0;        ///< bytes by which less was inserted than is declared, so far
    std::exception_ptr failure_;
    bool adapts_to_load_ = true;
    bool draining_ = false;
    bool emitted_ = false;
};

}  // namespace gsve::encoding
