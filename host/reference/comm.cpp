// Stand-in for the host framework's comm library. It collects the name/value pairs of a status packet in
// memory, texts of any length, repeated names included. It has no sockets and no wire format, and takes no
// locks: one packet is one thread's at a time. And the library's diagnostics pass through here, on their way
// to a program's own log.

#include <orb_utils_v4/comm.h>

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <utility>

#include <orb_utils_v4/reference/comm_packet.h>
#include <orb_utils_v4/reference/diagnostics.h>

namespace {

thread_local orb_utils_v4::reference::LineTaker line_taker;

/// `arguments` formatted as by vprintf; nothing when the C library cannot format them or memory is short.
std::optional<std::string> format_text(const char* format, va_list arguments) {
    va_list measured;
    va_copy(measured, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    if (length < 0) return std::nullopt;
    try {
        std::string text(static_cast<size_t>(length), '\0');
        std::vsnprintf(text.data(), text.size() + 1, format, arguments);
        return text;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

}  // namespace

orb_utils_v4::reference::LineTaker orb_utils_v4::reference::exchange_line_taker(LineTaker taker) {
    return std::exchange(line_taker, taker);
}

bool host_take_diagnostics(const char* text) {
    if (!line_taker.take) return false;
    line_taker.take(line_taker.taker, text);
    return true;
}

comm_socket_v4_packet::comm_socket_v4_packet() = default;

const std::string* comm_socket_v4_packet::find(std::string_view name) const {
    for (const auto& [pair_name, value] : pairs) {
        if (pair_name == name) return &value;
    }
    return nullptr;
}

bool comm_socket_v4_packet_write_nv_pair(comm_socket_v4_packet* packet, const char* name, const char* value) {
    if (!packet || !name || !value) return false;
    try {
        packet->pairs.emplace_back(name, value);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

bool comm_socket_v4_packet_write_nv_pairf(comm_socket_v4_packet* packet, const char* name, const char* format,
                                          ...) {
    if (!format) return false;
    va_list arguments;
    va_start(arguments, format);
    const std::optional<std::string> value = format_text(format, arguments);
    va_end(arguments);
    return value && comm_socket_v4_packet_write_nv_pair(packet, name, value->c_str());
}
