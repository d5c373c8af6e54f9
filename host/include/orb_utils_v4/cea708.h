#pragma once

// Caption constructs as the host framework carries them.

#include <cstdint>

#pragma pack(push, 1)
/// One cc_data construct (ATSC A/53 Part 4, 6.2.3.1): three bytes, no padding.
struct zeph_cea708_word {
    uint8_t header;  ///< five marker bits, cc_valid, cc_type: 0xFC to 0xFF for valid constructs
    uint16_t value;  ///< cc_data_1 in the high byte, cc_data_2 in the low byte
};
#pragma pack(pop)

static_assert(sizeof(zeph_cea708_word) == 3, "cc_data constructs are stored packed");
