#include "programme/key_index.h"

#include <algorithm>

#include <fmt/format.h>

#include "programme/packet_source.h"

namespace gsve::programme {

KeyIndex index_keys(const std::string& path, const StreamChoice& choice, double longest_repeat,
                    const PacketVisitor& visit) {
    PacketSource source(
        path, {},
        {.choice = choice, .container = Container::kElementary, .lines = DecoderLog::Lines::kSwallowed});
    KeyIndex index;
    std::vector<int64_t> shown;
    const PacketPtr packet = new_packet();
    while (source.next(*packet) >= 0) {
        if (visit) visit(*packet);
        if (packet->pts == AV_NOPTS_VALUE) continue;  // several pictures share one
        shown.push_back(packet->pts);
        if (!(packet->flags & AV_PKT_FLAG_KEY)) continue;
        index.keys.push_back(
            {.dts = packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts, .pts = packet->pts});
    }
    if (!source.timed())
        return {.keys = {}, .why_none = "an elementary stream has no times", .has_pauses = false};
    if (!source.clock_jumps().empty())
        return {.keys = {}, .why_none = "its clock jumps", .has_pauses = false};
    if (index.keys.empty()) return {.keys = {}, .why_none = "no key picture has a time", .has_pauses = false};
    std::sort(shown.begin(), shown.end());
    const double tick = av_q2d(source.stream().time_base);
    for (size_t n = 1; n < shown.size(); n++)
        if (static_cast<double>(shown[n] - shown[n - 1]) * tick > longest_repeat)
            return {.keys = {}, .why_none = "it has a pause that stays one", .has_pauses = true};
    return index;
}

}  // namespace gsve::programme
