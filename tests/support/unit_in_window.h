#pragma once

// An encoder whose output window holds a given unit, as the inserters find it.

#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <orb_utils_v4/io.h>

#include "support/bytes.h"
#include "support/call_log_host.h"

namespace gsve::test {

/// A host with `unit` in a window with `head_room` bytes in front of it and not one byte behind it, so that a
/// read past the unit is one past the buffer.
class UnitInWindow : public CallLogHost {
public:
    explicit UnitInWindow(const Bytes& unit = {}, size_t head_room = 8192) { place(unit, head_room); }

    void place(const Bytes& unit, size_t head_room = 8192) {
        sliding_window_v4_destroy(output_window);
        output_window = sliding_window_v4_create_buffer(head_room + unit.size());
        if (!output_window) return;
        std::memset(output_window->base, 0xEE, head_room);
        output_window->data = output_window->base + head_room;
        if (!unit.empty()) std::memcpy(output_window->data, unit.data(), unit.size());
        output_window->end = output_window->data + unit.size();
    }

    /// The encoder's packet, for operations that read its timestamps.
    void make_packet(int64_t dts) {
        if (!mpeg_packet) mpeg_packet = av_packet_alloc();
        mpeg_packet->dts = dts;
    }

    Bytes unit() const { return {output_window->data, output_window->end}; }
    size_t head_room() const { return static_cast<size_t>(output_window->data - output_window->base); }
};

}  // namespace gsve::test
