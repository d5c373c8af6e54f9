// A framework's host libraries, as small as they can be: the functions that docs/contract.md lists under
// "Binding" and nothing else. An encoder that came to need more of its host does not load with them. They
// serve a host that prints what it is given; status packets are taken and forgotten.
//
// Each library is this file with one of LIBRARY_comm, LIBRARY_io, LIBRARY_h264, LIBRARY_mpeg12_video and
// LIBRARY_misc.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#if defined(LIBRARY_comm)
#define LIBRARY "comm"
#include <orb_utils_v4/comm.h>

bool comm_socket_v4_packet_write_nv_pair(comm_socket_v4_packet*, const char*, const char*) { return true; }

bool comm_socket_v4_packet_write_nv_pairf(comm_socket_v4_packet*, const char*, const char*, ...) {
    return true;
}

#elif defined(LIBRARY_io)
#define LIBRARY "io"
#include <orb_utils_v4/io.h>

sliding_window_v4* sliding_window_v4_create_buffer(size_t size) {
    auto* const window = static_cast<sliding_window_v4*>(std::malloc(sizeof(sliding_window_v4) + size));
    if (!window) return nullptr;
    window->base = window->data = window->end = reinterpret_cast<uint8_t*>(window + 1);
    window->limit = window->base + size;
    return window;
}

bool sliding_window_v4_is_sane(const sliding_window_v4* window) {
    return window->base <= window->data && window->data <= window->end && window->end <= window->limit;
}

sliding_window_v4* sliding_window_v4_destroy(sliding_window_v4* window) {
    std::free(window);
    return nullptr;
}

#elif defined(LIBRARY_h264)
#define LIBRARY "h264"
#include <orb_utils_v4/h264.h>

int h264_nal_write(uint8_t* out, unsigned long out_capacity, uint8_t* rbsp, unsigned long rbsp_length,
                   unsigned int nal_ref_idc, uint8_t nal_unit_type) {
    const uint8_t header[] = {0, 0, 0, 1, static_cast<uint8_t>(nal_ref_idc << 5 | nal_unit_type)};
    if (out_capacity < sizeof header + rbsp_length / 2 * 3) return 0;
    std::memcpy(out, header, sizeof header);
    unsigned long length = sizeof header;
    for (unsigned long i = 0, zeros = 0; i < rbsp_length; i++) {
        if (zeros == 2 && rbsp[i] <= 3) {
            out[length++] = 3;
            zeros = 0;
        }
        out[length++] = rbsp[i];
        zeros = rbsp[i] == 0 ? zeros + 1 : 0;
    }
    return static_cast<int>(length);
}

#elif defined(LIBRARY_mpeg12_video)
#define LIBRARY "mpeg12_video"
#include <orb_utils_v4/mpeg12_video.h>

int mpeg2_get_frame_type_and_gop(const uint8_t* data, size_t size, bool* open_gop, bool* gop_seen) {
    static const uint8_t group_start[] = {0, 0, 1, 0xb8};
    const uint8_t* picture = nullptr;
    const int type = mpeg2_get_frame_type(data, size, &picture);
    const size_t before = picture ? static_cast<size_t>(picture - data) : 0;
    const auto* const group =
        static_cast<const uint8_t*>(memmem(data, before, group_start, sizeof group_start));
    if (gop_seen) *gop_seen = group;
    if (open_gop) *open_gop = group && !(group[7] & 0x40);
    return type;
}

int mpeg2_get_frame_type(const uint8_t* data, size_t size, const uint8_t** picture_header) {
    static const uint8_t picture_start[] = {0, 0, 1, 0};
    const auto* picture =
        static_cast<const uint8_t*>(memmem(data, size, picture_start, sizeof picture_start));
    if (picture && data + size - picture < 6) picture = nullptr;
    if (picture_header) *picture_header = picture;
    return picture ? picture[5] >> 3 & 3 : 0;
}

#elif defined(LIBRARY_misc)
#define LIBRARY "misc"
#include <ctime>

#include <orb_utils_v4/misc.h>
#include <unistd.h>

unsigned int how_many_cpus() { return static_cast<unsigned int>(sysconf(_SC_NPROCESSORS_ONLN)); }

uint64_t monotonic_clock_us() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}
#endif

// Tells a test whose functions a program is bound to.
__attribute__((constructor)) static void tell() { std::puts("framework: " LIBRARY); }
