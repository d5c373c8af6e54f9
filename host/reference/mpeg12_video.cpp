// Stand-in for the host framework's MPEG-2 video library. It finds the first picture header of an elementary
// stream (ISO/IEC 13818-2, 6.2.3) and the GOP header in front of it (6.2.2.6), by their start codes. It does
// not parse sequence headers, extensions or slices, and does not check that the stream is a valid one.
// Searching ends with the first picture header, however much follows.

#include <orb_utils_v4/mpeg12_video.h>

#include <cstring>

namespace {

constexpr size_t kStartCodeSize = 4;
constexpr uint8_t kPictureStartCode = 0x00;
constexpr uint8_t kGroupStartCode = 0xB8;

// Bytes up to and including the field that is wanted, counted from the start code's first:
// 00 00 01 00, temporal_reference 10 bits, picture_coding_type 3 bits.
constexpr size_t kBytesToCodingType = 6;
// 00 00 01 B8, time_code 25 bits, closed_gop 1 bit, broken_link 1 bit.
constexpr size_t kBytesToClosedGop = 8;
constexpr uint8_t kClosedGopBit = 0x40;

/// The first start code `code` in [begin, end), or null when fewer than `header_size` bytes begin there.
const uint8_t* find_header(const uint8_t* begin, const uint8_t* end, uint8_t code, size_t header_size) {
    const uint8_t start_code[kStartCodeSize] = {0x00, 0x00, 0x01, code};
    const auto* const found = static_cast<const uint8_t*>(
        memmem(begin, static_cast<size_t>(end - begin), start_code, kStartCodeSize));
    return found && static_cast<size_t>(end - found) >= header_size ? found : nullptr;
}

const uint8_t* find_picture(const uint8_t* data, size_t size) {
    return data ? find_header(data, data + size, kPictureStartCode, kBytesToCodingType) : nullptr;
}

/// picture_coding_type, where it is I, P or B: table 6-12 forbids or reserves the others, D pictures too.
int coding_type(const uint8_t* picture) {
    const int type = picture[5] >> 3 & 7;
    return type <= 3 ? type : 0;
}

}  // namespace

int mpeg2_get_frame_type(const uint8_t* data, size_t size, const uint8_t** picture_header) {
    const uint8_t* const picture = find_picture(data, size);
    if (picture_header) *picture_header = picture;
    return picture ? coding_type(picture) : 0;
}

int mpeg2_get_frame_type_and_gop(const uint8_t* data, size_t size, bool* open_gop, bool* gop_seen) {
    const uint8_t* const picture = find_picture(data, size);
    const uint8_t* const gop =
        picture ? find_header(data, picture, kGroupStartCode, kBytesToClosedGop) : nullptr;
    if (open_gop) *open_gop = gop && !(gop[kBytesToClosedGop - 1] & kClosedGopBit);
    if (gop_seen) *gop_seen = gop != nullptr;
    return picture ? coding_type(picture) : 0;
}
