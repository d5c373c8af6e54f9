#pragma once

// NAL unit writing of the host framework's H.264 library.

#include <cstdint>

extern "C" {

/// Writes one complete NAL unit in byte stream format (ITU-T H.264, Annex B): start code prefix, NAL unit
/// header, and the `rbsp_length` bytes at `rbsp` with emulation prevention (7.4.1). `rbsp` ends with its
/// trailing bits. Returns the length of the unit in bytes, or a value below 1 when it does not fit into
/// `out_capacity` bytes or an argument is out of range.
int h264_nal_write(uint8_t* out, unsigned long out_capacity, uint8_t* rbsp, unsigned long rbsp_length,
                   unsigned int nal_ref_idc, uint8_t nal_unit_type);

}  // extern "C"
