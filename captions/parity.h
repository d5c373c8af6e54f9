#pragma once

/// Byte pairs that were damaged on the way, as CTA-608 has receivers take them.
///
/// The encoder sets every parity bit right, and so would turn bytes that receivers reject into bytes on which
/// they act. What a stream brings is therefore replaced by what a receiver makes of it:
///
///     a control pair (first byte 0x10 to 0x1F)     dropped: its repetition, which comes next, counts as the
///     with an error in either byte                 first
///     another pair whose first byte has an error   dropped: the damaged repetition of that control pair
///     and whose second is that of the control
///     pair before it
///     any other byte with an error                 the solid block 0x7F
///     a null byte                                  null
///
/// An error leaves nothing but seven doubtful bits to tell a control pair by. They decide, as in receivers. A
/// code of the extended data services (0x01 to 0x0F) is no control pair here: it keeps its first byte, lest
/// the packet's text be shown as a caption, and the block for its second makes the packet's checksum fail.
///
/// Example: the captions of a decoded picture
///     ParityRepair parity(rate);
///     repacer.push(frame, parity.repair(parse_cc_data(bytes).captions));
///     ... at the end: parity.damage().control_pairs, parity.damage().characters

#include <cstddef>

#include "line21.h"
#include "schedule.h"

namespace gsve::captions {

/// Shown for a character that was not received, U+2588.
inline constexpr std::uint8_t kSolidBlock = 0x7F;

/// The pair as it is taken, with parity: unchanged when it came without an error, kNullPair when it is
/// dropped. `repeatable` is the control pair whose repetition would come now; 0 for none.
Word received(Word word, Word repeatable);

struct ParityDamage {
    std::size_t control_pairs = 0;  ///< dropped
    std::size_t characters = 0;     ///< replaced by the solid block

    bool any() const { return control_pairs + characters > 0; }
    friend bool operator==(const ParityDamage&, const ParityDamage&) = default;
};

/// Takes the pairs of a stream as a receiver does, and counts the damage.
class ParityRepair {
public:
    /// `rate` is that of the pictures; where the fields alternate, null pairs of the other field's pictures
    /// may lie between a control pair and its repetition.
    explicit ParityRepair(FrameRate rate);

    /// The next pair of a field (0 or 1), null pairs included: a dropped pair leaves its place idle.
    Word repair(int field, Word word);

    /// The next picture's captions, with all their places.
    PictureCaptions repair(PictureCaptions captions);

    const ParityDamage& damage() const { return damage_; }

private:
    bool alternating_fields_;
    Word repeatable_[kFields] = {};
    ParityDamage damage_;
};

}  // namespace gsve::captions
