#pragma once

// Byte windows of the host framework's io library.

#include <cstddef>
#include <cstdint>

/// One buffer with the unit that currently lies in it. Sane when base <= data <= end <= limit.
struct sliding_window_v4 {
    uint8_t* base;   ///< first byte of the buffer
    uint8_t* limit;  ///< one past the last usable byte
    uint8_t* data;   ///< read pointer: first byte of the current unit
    uint8_t* end;    ///< write pointer: one past the last byte of the current unit
};

extern "C" {

/// Makes an empty window (data = end = base) over a new buffer of `size` bytes. Null on failure.
/// The caller owns the window and gives it back to sliding_window_v4_destroy().
sliding_window_v4* sliding_window_v4_create_buffer(size_t size);

/// True when the window's four pointers are in order.
bool sliding_window_v4_is_sane(const sliding_window_v4* window);

/// Frees the window and its buffer. Accepts null. Always returns null, to be stored over the old pointer.
sliding_window_v4* sliding_window_v4_destroy(sliding_window_v4* window);

}  // extern "C"
