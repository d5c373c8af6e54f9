// Stand-in for the host framework's H.264 library. It writes NAL units in byte stream format (ITU-T H.264,
// 7.3.1 and Annex B), with the four-byte start code 00 00 00 01, which may stand in front of any NAL unit and
// must stand in front of an access unit's first. It does not look into the RBSP, does not check that
// nal_ref_idc suits the type, and writes no header extension (types 14, 20 and 21). `out` and `rbsp` must not
// overlap; after a failure the bytes at `out` are undefined.

#include <orb_utils_v4/h264.h>

#include <climits>
#include <initializer_list>

namespace {

constexpr unsigned kMaxRefIdc = 3;
constexpr unsigned kMaxNalUnitType = 31;
constexpr uint8_t kEmulationPreventionByte = 0x03;
constexpr unsigned long kStartCodeAndHeaderSize = 5;

/// Appends to a buffer of fixed size, and remembers whether everything had room.
class BoundedWriter {
public:
    BoundedWriter(uint8_t* begin, unsigned long capacity) : next_(begin), room_(capacity) {}
    void put(uint8_t byte) {
        complete_ = complete_ && room_ > 0;
        if (!complete_) return;
        *next_++ = byte;
        room_--;
    }
    bool complete() const { return complete_; }
    unsigned long room() const { return room_; }

private:
    uint8_t* next_;
    unsigned long room_;
    bool complete_ = true;
};

/// 7.4.1: inside a NAL unit no byte below 4 follows two zero bytes, and none of its bytes is a last zero.
void put_escaped(BoundedWriter& writer, const uint8_t* rbsp, unsigned long length) {
    unsigned zeros = 0;
    for (unsigned long i = 0; i < length && writer.complete(); i++) {
        if (zeros == 2 && rbsp[i] <= kEmulationPreventionByte) {
            writer.put(kEmulationPreventionByte);
            zeros = 0;
        }
        writer.put(rbsp[i]);
        zeros = rbsp[i] == 0 ? zeros + 1 : 0;
    }
    // An RBSP that ends with cabac_zero_words.
    if (zeros > 0) writer.put(kEmulationPreventionByte);
}

}  // namespace

int h264_nal_write(uint8_t* out, unsigned long out_capacity, uint8_t* rbsp, unsigned long rbsp_length,
                   unsigned int nal_ref_idc, uint8_t nal_unit_type) {
    if (!out || (!rbsp && rbsp_length > 0)) return 0;
    if (nal_ref_idc > kMaxRefIdc || nal_unit_type > kMaxNalUnitType) return 0;
    const auto header = static_cast<uint8_t>(nal_ref_idc << 5 | nal_unit_type);
    // A zero header byte could complete a start code that emulation prevention, which begins behind the
    // header, cannot break up.
    if (header == 0) return 0;

    const unsigned long capacity = out_capacity < INT_MAX ? out_capacity : INT_MAX;
    if (capacity < kStartCodeAndHeaderSize || rbsp_length > capacity - kStartCodeAndHeaderSize) return 0;

    BoundedWriter writer(out, capacity);
    for (const uint8_t byte : {uint8_t{0}, uint8_t{0}, uint8_t{0}, uint8_t{1}, header}) writer.put(byte);
    put_escaped(writer, rbsp, rbsp_length);
    return writer.complete() ? static_cast<int>(capacity - writer.room()) : 0;
}
