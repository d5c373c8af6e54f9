#include "status.h"

#include <orb_utils_v4/comm.h>
#include <orb_utils_v4/reference/comm_packet.h>

namespace gsve::cli {

// Another host would send the packet. This one is built on the reference comm library for the sake of reading
// it back.
std::vector<std::pair<std::string, std::string>> status_pairs(GeneralStreamingVideoEncoder& encoder,
                                                              const std::string& report_name) {
    comm_socket_v4_packet packet;
    common_pkt_parsing parsing;
    encoder.on_report(&packet, report_name.c_str(), "", &parsing);
    return packet.pairs;
}

std::string_view pair_subject(std::string_view pair_name) {
    // The report name may have commas of its own; the subjects have none.
    constexpr std::string_view kSeparator = ", ";
    const auto separator = pair_name.rfind(kSeparator);
    return separator == pair_name.npos ? pair_name : pair_name.substr(separator + kSeparator.size());
}

std::string one_line(std::string text) {
    while (text.ends_with('\n')) text.pop_back();
    for (size_t at = 0; (at = text.find('\n', at)) != std::string::npos;) text.replace(at, 1, ", ");
    return text;
}

}  // namespace gsve::cli
