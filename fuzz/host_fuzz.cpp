// The reference host's own functions: the MPEG-2 header parsers against a search byte by byte, NAL unit
// writing against its inverse, status packets against the texts that went in.

#include <cinttypes>
#include <cstring>
#include <memory>
#include <string>

#include <orb_utils_v4/comm.h>
#include <orb_utils_v4/h264.h>
#include <orb_utils_v4/mpeg12_video.h>
#include <orb_utils_v4/reference/comm_packet.h>

#include "input.h"

namespace {

using gsve::fuzz::Bytes;
using gsve::fuzz::Input;

// ---- MPEG-2 -------------------------------------------------------------------------------------------

/// The offset of 00 00 01 `code` in [0, end), or -1.
ptrdiff_t find(const Bytes& unit, size_t end, uint8_t code) {
    for (size_t i = 0; i + 4 <= end; i++) {
        if (unit[i] == 0 && unit[i + 1] == 0 && unit[i + 2] == 1 && unit[i + 3] == code)
            return static_cast<ptrdiff_t>(i);
    }
    return -1;
}

void read_mpeg2_headers(Input& input) {
    const Bytes unit = input.rest();
    const uint8_t* const none = unit.data() + unit.size();
    const uint8_t* header = none;
    bool open_gop = true, gop_seen = true;
    const int type = mpeg2_get_frame_type(unit.data(), unit.size(), &header);
    GSVE_FUZZ_REQUIRE(mpeg2_get_frame_type_and_gop(unit.data(), unit.size(), &open_gop, &gop_seen) == type);
    GSVE_FUZZ_REQUIRE(mpeg2_get_frame_type(unit.data(), unit.size(), nullptr) == type);
    GSVE_FUZZ_REQUIRE(mpeg2_get_frame_type_and_gop(unit.data(), unit.size(), nullptr, nullptr) == type);

    const ptrdiff_t picture = find(unit, unit.size(), 0x00);
    if (picture < 0 || unit.size() - static_cast<size_t>(picture) < 6) {
        GSVE_FUZZ_REQUIRE(type == 0 && header == nullptr && !open_gop && !gop_seen);
        return;
    }
    GSVE_FUZZ_REQUIRE(header == unit.data() + picture);
    const int coding_type = unit[static_cast<size_t>(picture) + 5] >> 3 & 7;
    GSVE_FUZZ_REQUIRE(type == (coding_type > 3 ? 0 : coding_type));
    const ptrdiff_t gop = find(unit, static_cast<size_t>(picture), 0xB8);
    const bool whole_gop = gop >= 0 && picture - gop >= 8;
    GSVE_FUZZ_REQUIRE(gop_seen == whole_gop);
    GSVE_FUZZ_REQUIRE(open_gop == (whole_gop && (unit[static_cast<size_t>(gop) + 7] & 0x40) == 0));
}

// ---- H.264 --------------------------------------------------------------------------------------------

void write_nal_unit(Input& input) {
    const unsigned ref_idc = input.u8() % 6;
    const auto type = static_cast<uint8_t>(input.u8() % 40);
    const size_t capacity = input.u16() % 700;
    Bytes rbsp = input.rest();
    const auto out = std::make_unique<uint8_t[]>(capacity);
    const int size = h264_nal_write(out.get(), capacity, rbsp.data(), rbsp.size(), ref_idc, type);
    const bool valid = ref_idc <= 3 && type <= 31 && (ref_idc != 0 || type != 0);

    // What the unit takes: the escape of every byte below 4 after two zeros, and of a last zero.
    size_t needed = 5;
    unsigned zeros = 0;
    for (const uint8_t byte : rbsp) {
        if (zeros == 2 && byte < 4) {
            needed++;
            zeros = 0;
        }
        needed++;
        zeros = byte == 0 ? zeros + 1 : 0;
    }
    if (!rbsp.empty() && rbsp.back() == 0) needed++;

    if (!valid || needed > capacity) {
        GSVE_FUZZ_REQUIRE(size < 1);
        return;
    }
    GSVE_FUZZ_REQUIRE(size == static_cast<int>(needed));
    const uint8_t start[] = {0, 0, 0, 1, static_cast<uint8_t>(ref_idc << 5 | type)};
    GSVE_FUZZ_REQUIRE(std::memcmp(out.get(), start, sizeof start) == 0);

    // Inside there is no start code, and without the escapes it is what went in.
    Bytes read_back;
    zeros = 0;
    for (size_t i = sizeof start; i < needed; i++) {
        GSVE_FUZZ_REQUIRE(zeros < 2 || out[i] > 2);
        if (zeros == 2 && out[i] == 3) {
            zeros = 0;
            continue;
        }
        const bool escapes_last_zero = zeros > 0 && out[i] == 3 && i + 1 == needed && rbsp.back() == 0;
        if (!escapes_last_zero) read_back.push_back(out[i]);
        zeros = out[i] == 0 ? zeros + 1 : 0;
    }
    GSVE_FUZZ_REQUIRE(needed == sizeof start || out[needed - 1] != 0);
    GSVE_FUZZ_REQUIRE(read_back == rbsp);
}

// ---- Status packets -----------------------------------------------------------------------------------

void write_status_packet(Input& input) {
    comm_socket_v4_packet packet;
    std::vector<std::pair<std::string, std::string>> expected;
    while (!input.empty()) {
        const uint8_t kind = input.u8();
        const std::string name = input.text_until('\n').c_str();
        std::string text = input.text_until('\n').c_str();
        const auto number = static_cast<int>(input.u32());
        bool written = false;
        if (kind % 4 == 0) {
            written = comm_socket_v4_packet_write_nv_pair(&packet, name.c_str(), text.c_str());
        } else if (kind % 4 == 1) {
            const unsigned width = kind * 16;
            written = comm_socket_v4_packet_write_nv_pairf(&packet, name.c_str(), "%*d|%s",
                                                           static_cast<int>(width), number, text.c_str());
            std::string digits = std::to_string(number);
            if (digits.size() < width) digits.insert(0, width - digits.size(), ' ');
            text = digits + '|' + text;
        } else {
            comm_socket_v4_packet* const no_packet = kind % 4 == 2 ? nullptr : &packet;
            const char* const no_name = kind % 4 == 3 ? nullptr : name.c_str();
            GSVE_FUZZ_REQUIRE(!comm_socket_v4_packet_write_nv_pair(no_packet, no_name, text.c_str()));
            GSVE_FUZZ_REQUIRE(!comm_socket_v4_packet_write_nv_pairf(no_packet, no_name, "%d", number));
            GSVE_FUZZ_REQUIRE(!comm_socket_v4_packet_write_nv_pair(&packet, name.c_str(), nullptr));
            continue;
        }
        GSVE_FUZZ_REQUIRE(written);
        expected.emplace_back(name, text);
    }
    GSVE_FUZZ_REQUIRE(packet.pairs == expected);
    for (const auto& [name, value] : expected) {
        const auto first = std::find_if(expected.begin(), expected.end(),
                                        [&name = name](const auto& pair) { return pair.first == name; });
        const std::string* const found = packet.find(name);
        GSVE_FUZZ_REQUIRE(found && *found == first->second);
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    switch (input.u8() % 3) {
        case 0: read_mpeg2_headers(input); break;
        case 1: write_nal_unit(input); break;
        default: write_status_packet(input); break;
    }
    return 0;
}
