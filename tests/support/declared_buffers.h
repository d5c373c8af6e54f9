#pragma once

// Streams that declare a decoder's buffer, of units whose size is known to the byte. Slices are filler:
// nothing decodes them.

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <vector>

#include "captions/bits.h"
#include "encoding/start_codes.h"
#include "support/bytes.h"

namespace gsve::test {

/// Appends filler up to `size` bytes.
inline Bytes filled_to(size_t size, Bytes bytes) {
    if (bytes.size() > size) throw std::invalid_argument("the unit is larger than that");
    return bytes + filler(size - bytes.size());
}

// MPEG-2 (ISO/IEC 13818-2, 6.2)

struct Mpeg2Sequence {
    unsigned rate = 1000;  ///< bit_rate, in 400 bits/s
    unsigned size = 5;     ///< vbv_buffer_size, in 16384 bits
    unsigned frame_rate_code = 3;
    bool progressive = true;
    bool low_delay = false;
    bool extended = true;  ///< false: MPEG-1
};

/// Sequence header and extension: 22 bytes, 12 without the extension.
inline Bytes mpeg2_sequence(const Mpeg2Sequence& sequence) {
    captions::BitWriter header;
    header.put(352 << 12 | 288, 24);
    header.put(1, 4);  // square samples
    header.put(sequence.frame_rate_code, 4);
    header.put(sequence.rate & 0x3FFFF, 18);
    header.put(1, 1);
    header.put(sequence.size & 0x3FF, 10);
    header.put(0, 3);
    Bytes bytes = from_hex("00 00 01 B3") + header.take();
    if (!sequence.extended) return bytes;
    captions::BitWriter extension;
    extension.put(1, 4);     // sequence_extension
    extension.put(0x48, 8);  // main profile at main level
    extension.put(sequence.progressive, 1);
    extension.put(1, 2);  // 4:2:0
    extension.put(0, 4);
    extension.put(sequence.rate >> 18, 12);
    extension.put(1, 1);
    extension.put(sequence.size >> 10, 8);
    extension.put(sequence.low_delay, 1);
    extension.put(0, 7);
    return bytes + from_hex("00 00 01 B5") + extension.take();
}

struct Mpeg2Picture {
    char type = 'I';
    unsigned vbv_delay = 7200;
    unsigned structure = 3;  ///< 1 top field, 2 bottom field, 3 frame
    bool top_field_first = false;
    bool repeat_first_field = false;
    bool extended = true;  ///< false: MPEG-1
};

/// One picture of `size` bytes.
inline Bytes mpeg2_picture(size_t size, const Mpeg2Picture& picture = {}) {
    captions::BitWriter header;
    header.put(0, 10);  // temporal_reference
    header.put(picture.type == 'I' ? 1 : picture.type == 'P' ? 2 : 3, 3);
    header.put(picture.vbv_delay, 16);
    header.put(picture.type == 'B' ? 0x77 << 3 : 0x70 << 3, 11);
    Bytes bytes = from_hex("00 00 01 00") + header.take();
    if (picture.extended) {
        captions::BitWriter extension;
        extension.put(8, 4);  // picture_coding_extension
        extension.put(0xFFFF, 16);
        extension.put(0, 2);
        extension.put(picture.structure, 2);
        extension.put(picture.top_field_first, 1);
        extension.put(0, 5);
        extension.put(picture.repeat_first_field, 1);
        extension.put(0, 3);
        bytes = bytes + from_hex("00 00 01 B5") + extension.take();
    }
    return filled_to(size, bytes + from_hex("00 00 01 01"));
}

// H.264 (ITU-T H.264, 7.3.2.1, annexes D and E)

struct H264Hrd {
    std::vector<bool> constant_rates = {true};  ///< of each SchedSelIdx
    unsigned rate = 6250;                       ///< in 64 bits/s
    unsigned size = 5120;                       ///< in 16 bits
    bool nal = true, vcl = false;
    bool low_delay = false;
    bool timed = true;  ///< with timing_info
};

/// What stands in front of the HRD parameters, by turns.
struct H264Form {
    unsigned profile = 77;
    unsigned chroma_format = 1;  ///< of profile 100 and 244
    unsigned order_type = 0;     ///< pic_order_cnt_type
    bool interlaced = false;
    bool display = true;  ///< aspect ratio, overscan, colours
    bool chroma_location = false;
};

/// A sequence parameter set of 50 ticks/s, 25 pictures/s.
inline Bytes h264_sequence(const H264Hrd& hrd, const H264Form& form = {}) {
    captions::BitWriter writer;
    writer.put(form.profile, 8);
    writer.put(0, 8);
    writer.put(30, 8);
    writer.put_unsigned_golomb(0);  // seq_parameter_set_id
    if (form.profile != 77) {
        writer.put_unsigned_golomb(form.chroma_format);
        if (form.chroma_format == 3) writer.put(0, 1);
        writer.put_unsigned_golomb(0);
        writer.put_unsigned_golomb(0);
        writer.put(0, 1);
        writer.put(1, 1);  // seq_scaling_matrix_present_flag
        writer.put(1, 1);  // a list whose second step ends it
        writer.put_signed_golomb(4);
        writer.put_signed_golomb(-12);
        writer.put(0, form.chroma_format == 3 ? 10 : 6);  // lists that are not there
        writer.put(1, 1);                                 // a list of 64 steps
        for (int n = 0; n < 64; n++) writer.put_signed_golomb(1);
    }
    writer.put_unsigned_golomb(0);
    writer.put_unsigned_golomb(form.order_type);
    if (form.order_type == 0) writer.put_unsigned_golomb(0);
    if (form.order_type == 1) {
        writer.put(0, 1);
        writer.put_signed_golomb(-3);
        writer.put_signed_golomb(1);
        writer.put_unsigned_golomb(2);
        writer.put_signed_golomb(2);
        writer.put_signed_golomb(-2);
    }
    writer.put_unsigned_golomb(1);
    writer.put(0, 1);
    writer.put_unsigned_golomb(21);
    writer.put_unsigned_golomb(17);
    writer.put(form.interlaced ? 0b00 : 0b1, form.interlaced ? 2 : 1);
    writer.put(0b01, 2);  // no direct_8x8_inference_flag, frame_cropping_flag
    for (int n = 0; n < 4; n++) writer.put_unsigned_golomb(0);
    writer.put(1, 1);  // vui_parameters_present_flag
    writer.put(form.display, 1);
    if (form.display) {
        writer.put(255, 8);  // aspect_ratio_idc
        writer.put(1 << 16 | 1, 32);
    }
    writer.put(form.display ? 0b11 : 0, form.display ? 2 : 1);  // overscan
    writer.put(form.display, 1);                                // video_signal_type_present_flag
    if (form.display) {
        writer.put(5 << 1, 4);
        writer.put(1, 1);  // colour_description_present_flag
        writer.put(0x010101, 24);
    }
    writer.put(form.chroma_location, 1);
    if (form.chroma_location) {
        writer.put_unsigned_golomb(1);
        writer.put_unsigned_golomb(1);
    }
    writer.put(hrd.timed, 1);
    if (hrd.timed) {
        writer.put(1, 32);
        writer.put(50, 32);
        writer.put(1, 1);
    }
    for (const bool present : {hrd.nal, hrd.vcl}) {
        writer.put(present, 1);
        if (!present) continue;
        writer.put_unsigned_golomb(static_cast<unsigned>(hrd.constant_rates.size() - 1));
        writer.put(0, 4);
        writer.put(0, 4);
        for (const bool constant : hrd.constant_rates) {
            writer.put_unsigned_golomb(hrd.rate - 1);
            writer.put_unsigned_golomb(hrd.size - 1);
            writer.put(constant, 1);
        }
        writer.put(23, 5);  // lengths: 24, 16, 24 and 24 bits
        writer.put(15, 5);
        writer.put(23, 5);
        writer.put(24, 5);
    }
    if (hrd.nal || hrd.vcl) writer.put(hrd.low_delay, 1);
    writer.put(0, 1);  // pic_struct_present_flag
    writer.put(0, 1);
    writer.put(1, 1);  // rbsp_stop_one_bit
    return encoding::make_nal(from_hex("67"), writer.take());
}

inline Bytes h264_sei(uint8_t type, Bytes payload) {
    const Bytes head = {type, static_cast<uint8_t>(payload.size())};
    return encoding::make_nal(from_hex("06"), head + payload + from_hex("80"));
}

struct H264Delay {
    unsigned delay = 7200, offset = 7200;
};

/// `delays`: of each SchedSelIdx, of the NAL units' HRD before that of the slices.
inline Bytes h264_buffering_period(const std::vector<H264Delay>& delays) {
    captions::BitWriter writer;
    writer.put_unsigned_golomb(0);
    for (const H264Delay& delay : delays) {
        writer.put(delay.delay, 24);
        writer.put(delay.offset, 24);
    }
    writer.put(1, 1);
    return h264_sei(0, writer.take());
}

inline Bytes h264_picture_timing(unsigned removal_delay) {
    captions::BitWriter writer;
    writer.put(removal_delay, 16);
    writer.put(0, 24);
    return h264_sei(1, writer.take());
}

/// A picture's one slice, whose first_mb_in_slice is 0.
inline Bytes h264_slice() { return from_hex("00 00 00 01 41 9A"); }

}  // namespace gsve::test
