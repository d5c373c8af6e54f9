#include "parity.h"

namespace gsve::captions {

namespace {

std::uint8_t high(Word word) { return static_cast<std::uint8_t>(word >> 8); }
std::uint8_t low(Word word) { return static_cast<std::uint8_t>(word & 0xFF); }

bool is_damaged(std::uint8_t byte) { return (byte & 0x7F) != 0 && !has_odd_parity(byte); }

std::uint8_t received(std::uint8_t byte) { return with_odd_parity(is_damaged(byte) ? kSolidBlock : byte); }

}  // namespace

Word received(Word word, Word repeatable) {
    if (has_parity(word)) return word;
    const bool repeats =
        repeatable != 0 && !has_odd_parity(high(word)) && with_odd_parity(low(repeatable)) == low(word);
    if (is_control(word) || repeats) return kNullPair;
    return make_word(received(high(word)), received(low(word)));
}

ParityRepair::ParityRepair(FrameRate rate) : alternating_fields_(picture_budget(rate).alternating_fields) {}

Word ParityRepair::repair(int field, Word word) {
    Word& repeatable = repeatable_[field];
    const Word taken = received(word, repeatable);
    if (is_null(taken) && !is_null(word))
        ++damage_.control_pairs;
    else
        damage_.characters += static_cast<std::size_t>(is_damaged(high(word)) + is_damaged(low(word)));
    if (is_null(word) && alternating_fields_) return taken;
    const bool repetition = taken == repeatable;
    repeatable = is_control(taken) && !repetition ? taken : Word{0};
    return taken;
}

PictureCaptions ParityRepair::repair(PictureCaptions captions) {
    for (int field = 0; field < 2; ++field)
        for (Word& word : captions.fields[field]) word = repair(field, word);
    return captions;
}

}  // namespace gsve::captions
