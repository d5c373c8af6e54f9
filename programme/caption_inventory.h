#pragma once

// The captions of an inspected stream: what each carriage brings, and what a receiver makes of it.

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "captions/dtvcc.h"
#include "captions/eia608_decoder.h"
#include "captions/parity.h"
#include "captions/schedule.h"
#include "programme/stream_inspection.h"

namespace gsve::programme {

/// One way in which line-21 captions travel. Frames are pictures in the order of display.
struct CaptionCarriage {
    std::string name;   ///< "A/53", "SCTE-20", "CC"
    std::string where;  ///< "picture user data", "SEI"
    int64_t units = 0;  ///< coded pictures that carry it
    int64_t first = 0;  ///< the first and the last of them
    int64_t last = 0;
    std::optional<int64_t>
        gaps;               ///< A/53, which goes with every picture: runs of pictures without it between
    int64_t pairs = 0;      ///< byte pairs that are not null
    int parity_errors = 0;  ///< of these, with a byte of even parity
    captions::ParityDamage parity_damage;  ///< what receivers make of those
    captions::Line21Services services;
    captions::Schedule schedule;  ///< as receivers take the pairs
    std::vector<captions::TimedText> texts;
    std::vector<captions::TextRow> text_rows;
};

struct CaptionInventory {
    std::vector<CaptionCarriage> carriages;  ///< those present; receivers prefer the first
    std::set<int> cea708_services;
    std::vector<captions::ServiceText> cea708_texts;
    int damaged_cea708_packets = 0;
    int damaged_user_data = 0;  ///< caption user data that ends early or contradicts itself
};

CaptionInventory take_inventory(const InspectedStream& stream);

/// Whether the same captions are shown, whatever the frames: "CC" user data does not tell them exactly.
bool same_texts(const CaptionCarriage& a, const CaptionCarriage& b);

/// "CC1", "CC3", "T1", "XDS".
std::vector<std::string> service_names(const captions::Line21Services& services);

}  // namespace gsve::programme
