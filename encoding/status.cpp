#include "encoding/status.h"

#include <orb_utils_v4/comm.h>
#include <orb_utils_v4/reference/comm_packet.h>

namespace gsve::encoding {

// Another host would send the packet. This one is built on the reference comm library for the sake of reading
// it back.
std::vector<std::pair<std::string, std::string>> status_pairs(GeneralStreamingVideoEncoder& encoder,
                                                              const std::string& report_name) {
    comm_socket_v4_packet packet;
    common_pkt_parsing parsing;
    encoder.on_report(&packet, report_name.c_str(), "", &parsing);
    return packet.pairs;
}

}  // namespace gsve::encoding
