#pragma once

// Status packets of the host framework's comm library: an ordered list of name/value pairs.

#include <cstdint>

/// A status packet under construction. Opaque to the encoder library, which only appends to it.
struct comm_socket_v4_packet;

/// How the host framework parsed the request that a status packet answers.
struct common_pkt_parsing {
    uint8_t omit_debug = 0;  ///< non-zero: the requester does not want pairs meant for debugging
};

extern "C" {

/// Appends the pair `name` = `value`. Both texts are copied. Returns false when the pair was not appended.
bool comm_socket_v4_packet_write_nv_pair(comm_socket_v4_packet* packet, const char* name, const char* value);

/// As comm_socket_v4_packet_write_nv_pair(), the value formatted as by printf.
bool comm_socket_v4_packet_write_nv_pairf(comm_socket_v4_packet* packet, const char* name, const char* format,
                                          ...) __attribute__((format(printf, 3, 4)));

}  // extern "C"
