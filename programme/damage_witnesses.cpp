#include "programme/damage_witnesses.h"

namespace gsve::programme {

unsigned complaints_of(const AVFrame& frame) {
    unsigned complaints = 0;
    if (frame.decode_error_flags & FF_DECODE_ERROR_MISSING_REFERENCE)
        complaints |= DamageFinder::kOfReferences;
    if (frame.decode_error_flags & ~FF_DECODE_ERROR_MISSING_REFERENCE) complaints |= DamageFinder::kOfData;
    return complaints;
}

std::optional<Damage::EarlyEnd> early_end(const PacketSource& source, const DamageFinder& finder,
                                          double end) {
    if (const double missing = source.missing_at_end(); missing > 0)
        return Damage::EarlyEnd{.seconds = end, .expected = end + missing};
    if (finder.last_unit_incomplete() || source.ends_within_packet())
        return Damage::EarlyEnd{.seconds = end, .expected = {}};
    return std::nullopt;
}

}  // namespace gsve::programme
