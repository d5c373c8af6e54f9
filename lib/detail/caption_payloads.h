#pragma once

// Captions as a picture carries them: EIA-608 parity, the cc_data structure of ATSC A/53 Part 4 (6.2.3.1) in
// MPEG-2 picture user data and in an H.264 SEI message, and "CC" picture user data.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include <orb_utils_v4/cea708.h>

#include "start_code.h"

namespace gsve::detail {

/// How the caption channel of 9600 bit/s falls on pictures.
struct CaptionBudget {
    double from_rate;       ///< pictures per second
    unsigned cc_count;      ///< constructs in each picture
    unsigned cea708_words;  ///< of them for CEA-708; EIA-608 takes the rest
};

inline constexpr CaptionBudget kCaptionBudgets[] = {
    {59.0, 10, 9},
    {49.0, 12, 11},
    {29.0, 20, 18},
    {24.9, 24, 22},
};
inline constexpr CaptionBudget kSlowestCaptionBudget = {0.0, 25, 23};
inline constexpr unsigned kMaxCcCount = 25;

inline CaptionBudget caption_budget(double pictures_per_second) {
    for (const CaptionBudget& budget : kCaptionBudgets)
        if (pictures_per_second >= budget.from_rate) return budget;
    return kSlowestCaptionBudget;
}

/// Padding as it stands in a caption queue, without and with parity.
inline constexpr uint16_t kEia608NoWord = 0x0000;
inline constexpr uint16_t kEia608Padding = 0x8080;

/// The word with odd parity in bit 7 of each byte.
inline uint16_t with_odd_parity(uint16_t word) {
    const auto odd = [](unsigned seven_bits) {
        return seven_bits | (__builtin_parity(seven_bits) ? 0x00u : 0x80u);
    };
    return static_cast<uint16_t>(odd(word >> 8 & 0x7F) << 8 | odd(word & 0x7F));
}

inline uint8_t* put_word(uint8_t* p, uint16_t word) {
    *p++ = static_cast<uint8_t>(word >> 8);
    *p++ = static_cast<uint8_t>(word);
    return p;
}

/// cc_data construct headers: marker bits, cc_valid, cc_type.
enum CcHeader : uint8_t {
    kCcPadding = 0xFA,     ///< not valid, DTVCC packet data
    kCcField1 = 0xFC,      ///< NTSC line 21 field 1
    kCcField2 = 0xFD,      ///< NTSC line 21 field 2
    kCcDtvccData = 0xFE,   ///< DTVCC packet data
    kCcDtvccStart = 0xFF,  ///< DTVCC packet start
};

inline constexpr size_t kCcConstructSize = 3;

inline uint8_t* put_construct(uint8_t* p, uint8_t header, uint16_t value) {
    *p++ = header;
    return put_word(p, value);
}

/// The caption words of one picture. `cea708_words` may be null when the count is 0.
struct PictureWords {
    uint16_t eia608_word_field1 = kEia608NoWord;
    uint16_t eia608_word_field2 = kEia608NoWord;
    const zeph_cea708_word* cea708_words = nullptr;
    uint32_t cea708_count = 0;
};

/// Above 40 pictures per second field 1 travels on even pictures and field 2 on odd ones. What can be wrong
/// with the words that a picture was given then:
enum class Eia608Anomaly { none, both_fields, field1_on_odd, field2_on_even };

/// The line printed for each anomaly: docs/contract.md, "Texts".
inline constexpr const char* kEia608AnomalyTexts[] = {
    nullptr,
    "[gsve] BUG: EIA-608 at 60fps (even/odd mode) and both CC words contain data. "
    "The main de-queueing code made a boo-boo.\n",
    "[gsve] BUG: EIA-608 at 60fps (even/odd mode), odd frame and even CC word\n",
    "[gsve] BUG: EIA-608 at 60fps (even/odd mode), even frame and odd CC word\n",
};

inline Eia608Anomaly find_anomaly(bool field1_has_data, bool field2_has_data, bool odd_picture) {
    if (field1_has_data && field2_has_data) return Eia608Anomaly::both_fields;
    if (field1_has_data && odd_picture) return Eia608Anomaly::field1_on_odd;
    if (field2_has_data && !odd_picture) return Eia608Anomaly::field2_on_even;
    return Eia608Anomaly::none;
}

/// What composing found out beside the bytes.
struct PayloadOutcome {
    uint8_t* end;  ///< one past the last byte written
    Eia608Anomaly anomaly;
    unsigned cea708_examined;  ///< CEA-708 words looked at before the picture was full
};

/// ATSC1_data() (A/53 Part 4, 6.2.2) with `cc_count` constructs:
///     "GA94"  03  0x40|cc_count  00  construct...  FF
/// 8 + 3 * cc_count bytes, always the full number of constructs.
inline constexpr size_t atsc1_data_size(unsigned cc_count) { return 8 + kCcConstructSize * cc_count; }

inline PayloadOutcome write_atsc1_data(uint8_t* p, const PictureWords& captions, unsigned cc_count,
                                       bool alternates_fields, bool odd_picture) {
    constexpr uint8_t kUserIdentifier[] = {'G', 'A', '9', '4'};
    constexpr uint8_t kCcDataTypeCode = 0x03;
    constexpr uint8_t kProcessCcDataFlag = 0x40;

    std::memcpy(p, kUserIdentifier, sizeof(kUserIdentifier));
    p += sizeof(kUserIdentifier);
    *p++ = kCcDataTypeCode;
    *p++ = static_cast<uint8_t>(kProcessCcDataFlag | cc_count);
    *p++ = 0x00;  // docs/contract.md, "Values"
    const uint8_t* const constructs = p;
    const auto written = [&] { return static_cast<unsigned>(p - constructs) / kCcConstructSize; };

    const uint16_t field1 = with_odd_parity(captions.eia608_word_field1);
    const uint16_t field2 = with_odd_parity(captions.eia608_word_field2);
    const Eia608Anomaly anomaly =
        alternates_fields ? find_anomaly(field1 != kEia608Padding, field2 != kEia608Padding, odd_picture)
                          : Eia608Anomaly::none;
    const bool both = !alternates_fields || anomaly != Eia608Anomaly::none;
    if (both || !odd_picture) p = put_construct(p, kCcField1, field1);
    if (both || odd_picture) p = put_construct(p, kCcField2, field2);

    unsigned examined = 0;
    for (; examined < captions.cea708_count && written() < cc_count; examined++) {
        const zeph_cea708_word word = captions.cea708_words[examined];
        if (word.header >= kCcDtvccData) p = put_construct(p, word.header, word.value);
    }
    while (written() < cc_count) p = put_construct(p, kCcPadding, 0x0000);
    *p++ = 0xFF;  // marker_bits
    return {p, anomaly, examined};
}

/// The length of a caption SEI's RBSP, before emulation prevention.
inline constexpr size_t caption_sei_size(unsigned cc_count) { return 6 + atsc1_data_size(cc_count); }

/// SEI RBSP with one user_data_registered_itu_t_t35 message (ITU-T H.264, D.1.6; A/53 Part 4, 6.2.1):
///     04  payload size  B5  00 31  ATSC1_data  80
inline PayloadOutcome write_caption_sei(uint8_t* p, const PictureWords& captions, unsigned cc_count,
                                        bool alternates_fields, bool odd_picture) {
    constexpr uint8_t kRegisteredUserData = 0x04;
    constexpr uint8_t kCountryUnitedStates = 0xB5;
    constexpr uint16_t kProviderAtsc = 0x0031;
    constexpr uint8_t kRbspTrailingBits = 0x80;

    *p++ = kRegisteredUserData;
    *p++ = static_cast<uint8_t>(3 + atsc1_data_size(cc_count));
    *p++ = kCountryUnitedStates;
    p = put_word(p, kProviderAtsc);
    PayloadOutcome outcome = write_atsc1_data(p, captions, cc_count, alternates_fields, odd_picture);
    *outcome.end++ = kRbspTrailingBits;
    return outcome;
}

inline uint8_t* write_user_data_start_code(uint8_t* p) {
    const uint8_t start_code[kStartCodeSize] = {0x00, 0x00, 0x01, kUserDataStartCode};
    std::memcpy(p, start_code, kStartCodeSize);
    return p + kStartCodeSize;
}

/// "CC" picture user data carries the words of up to 63 pictures:
///     00 00 01 B2  "CC"  01 F8  0x80|2n  then for each picture  FF field-1 word  FE field-2 word
inline constexpr uint64_t kMaxCcUserDataPictures = 63;
inline constexpr size_t cc_user_data_size(size_t pictures) { return 9 + 6 * pictures; }

inline uint8_t* write_cc_user_data_header(uint8_t* p, size_t pictures) {
    p = write_user_data_start_code(p);
    *p++ = 'C';
    *p++ = 'C';
    *p++ = 0x01;
    *p++ = 0xF8;
    *p++ = static_cast<uint8_t>(0x80 | pictures * 2);
    return p;
}

inline uint8_t* write_cc_user_data_words(uint8_t* p, uint16_t field1, uint16_t field2) {
    p = put_construct(p, 0xFF, with_odd_parity(field1));
    return put_construct(p, 0xFE, with_odd_parity(field2));
}

}  // namespace gsve::detail
