#pragma once

// Serial numbers out of a stream again: by libavcodec's decoders, and by a walk over MPEG-2 user data.

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/av_decoder.h"
#include "support/bytes.h"
#include "support/mpeg2_units.h"
#include "support/serial_numbers.h"

namespace gsve::test {

/// One picture's words in "CC" user data; nothing for padding.
struct WordPair {
    std::optional<Serial> words[2];
};

inline const Bytes kCcMark = {'C', 'C', 0x01, 0xF8};
inline const Bytes kScte20Mark = {0x03};
inline const Bytes kGa94Mark = {'G', 'A', '9', '4'};

/// The MPEG-2 unit without user data but that which begins with `mark`. Where pictures carry captions in
/// several ways, libavcodec mixes them or settles for one, depending on its version.
inline Bytes with_user_data(const Bytes& unit, const Bytes& mark) {
    Bytes kept;
    size_t from = 0;
    const std::vector<Section> all = sections(unit);
    for (size_t i = 0; i < all.size(); i++) {
        const Bytes& payload = all[i].payload;
        if (all[i].code != 0xB2 ||
            (payload.size() >= mark.size() && std::equal(mark.begin(), mark.end(), payload.begin())))
            continue;
        kept.insert(kept.end(), unit.begin() + from, unit.begin() + all[i].offset);
        from = i + 1 < all.size() ? all[i + 1].offset : unit.size();
    }
    kept.insert(kept.end(), unit.begin() + from, unit.end());
    return kept;
}

/// SCTE-20 bodies and the words of "CC" user data, from the bytes of an MPEG-2 unit.
struct Mpeg2UserData {
    std::vector<WordPair> cc;
    std::vector<Bytes> bodies;
};

inline Mpeg2UserData mpeg2_user_data(const Bytes& unit) {
    Mpeg2UserData found;
    for (const Bytes& data : picture_user_data(unit)) {
        if (!data.empty() && data[0] == 0x03) found.bodies.emplace_back(data.begin() + 1, data.end());
        if (data.size() < 5 || data[0] != 'C' || data[1] != 'C') continue;
        const size_t pictures = (data[4] & 0x7F) / 2;
        for (size_t i = 0; i < pictures && 11 + 6 * i <= data.size(); i++)
            found.cc.push_back({{word_serial(data[6 + 6 * i], data[7 + 6 * i]),
                                 word_serial(data[9 + 6 * i], data[10 + 6 * i])}});
    }
    return found;
}

/// Everything numbered in a stream, as libavcodec reads it, in the order of the pictures.
struct FoundItems {
    std::vector<Placed> words[2];  ///< in cc_data
    std::vector<Placed> constructs;
    std::vector<Placed> blocks;
    std::vector<Placed> timecodes;
    std::vector<WordPair> cc;         ///< in "CC" user data, picture after picture
    std::vector<std::string> errors;  ///< what should not be there
    size_t decoded = 0;               ///< pictures
};

/// libavcodec's constructs for each picture of `units`, by its pts, which is a small number. Of the user data
/// of MPEG-2 it is shown that with `mark` alone.
inline std::vector<DecodedPicture> decode_by_number(AVCodecID id, std::vector<Unit> units,
                                                    const Bytes& mark) {
    std::vector<DecodedPicture> by_number;
    for (Unit& unit : units) {
        if (id == AV_CODEC_ID_MPEG2VIDEO) unit.bytes = with_user_data(unit.bytes, mark);
        by_number.resize(std::max(by_number.size(), static_cast<size_t>(unit.pts) + 1));
    }
    for (DecodedPicture& picture : decode(id, units))
        by_number.at(static_cast<size_t>(picture.pts)) = std::move(picture);
    return by_number;
}

/// A/53 cc_data has `cc_count` constructs, or is not to be there.
inline void read_cc_data(FoundItems& found, const Bytes& a53, size_t number, unsigned cc_count) {
    if (a53.size() != 3 * cc_count)
        found.errors.push_back("picture " + std::to_string(number) + ": cc_data " + hex(a53));
    for (size_t i = 0; i + 3 <= a53.size(); i += 3) {
        const uint8_t header = a53[i], high = a53[i + 1], low = a53[i + 2];
        if (header == 0xFC || header == 0xFD) {
            if (const auto serial = word_serial(high, low))
                found.words[header - 0xFC].push_back({*serial, number});
        } else if (header >= 0xFE) {
            found.constructs.push_back({construct_serial(header, high, low), number});
        } else if (header != 0xFA) {
            found.errors.push_back("picture " + std::to_string(number) + ": " + hex(&a53[i], 3));
        }
    }
}

/// Both pairs of a block come as constructs without marker bits.
inline void read_scte20(FoundItems& found, const Bytes& a53, size_t number) {
    size_t i = 0;
    for (; i + 6 <= a53.size() && (a53[i] & 0xFE) == 0x04; i += 6) {
        const uint8_t bytes[4] = {a53[i + 1], a53[i + 2], a53[i + 4], a53[i + 5]};
        found.blocks.push_back({block_serial(bytes), number});
    }
    if (i != a53.size())
        found.errors.push_back("picture " + std::to_string(number) + ": SCTE-20 " + hex(a53));
}

/// Each picture's words come as a construct of field 1 and one of field 2.
inline void read_cc(FoundItems& found, const Bytes& a53, size_t number) {
    size_t i = 0;
    for (; i + 6 <= a53.size() && a53[i] == 0xFC && a53[i + 3] == 0xFD; i += 6)
        found.cc.push_back({{word_serial(a53[i + 1], a53[i + 2]), word_serial(a53[i + 4], a53[i + 5])}});
    if (i != a53.size()) found.errors.push_back("picture " + std::to_string(number) + ": \"CC\" " + hex(a53));
}

/// libavcodec shows the time code on the picture that it puts out as it reads the GOP header. Without the
/// pictures between, and without delay, that is the one behind the header.
inline std::vector<Placed> timecodes_by_libavcodec(const std::vector<Unit>& units) {
    std::vector<Unit> intra;
    for (const Unit& unit : units)
        if (coding_type(unit.bytes) == AV_PICTURE_TYPE_I) intra.push_back(unit);
    std::vector<Placed> found;
    for (const DecodedPicture& picture : decode(AV_CODEC_ID_MPEG2VIDEO, intra, AV_CODEC_FLAG_LOW_DELAY))
        if (const auto serial = timecode_serial(picture.gop_timecode.value_or(0)))
            found.push_back({*serial, static_cast<size_t>(picture.pts)});
    return found;
}

/// The pts of `units`, in coding order, are the numbers of their pictures; `cc_counts` says for each how many
/// constructs its cc_data has, 0 without.
inline FoundItems items_by_libavcodec(AVCodecID id, const std::vector<Unit>& units,
                                      const std::vector<unsigned>& cc_counts) {
    FoundItems found;
    const auto with_cc_data = decode_by_number(id, units, kGa94Mark);
    std::vector<unsigned> by_number(with_cc_data.size());
    for (size_t i = 0; i < units.size(); i++) by_number[static_cast<size_t>(units[i].pts)] = cc_counts[i];
    for (size_t number = 0; number < with_cc_data.size(); number++) {
        if (with_cc_data[number].pts == AV_NOPTS_VALUE) continue;
        found.decoded++;
        read_cc_data(found, with_cc_data[number].a53, number, by_number[number]);
    }
    if (id != AV_CODEC_ID_MPEG2VIDEO) return found;

    const auto with_scte20 = decode_by_number(id, units, kScte20Mark);
    for (size_t number = 0; number < with_scte20.size(); number++)
        read_scte20(found, with_scte20[number].a53, number);
    const auto with_cc = decode_by_number(id, units, kCcMark);
    for (const Unit& unit : units) {
        const auto number = static_cast<size_t>(unit.pts);
        read_cc(found, with_cc[number].a53, number);
    }
    found.timecodes = timecodes_by_libavcodec(units);
    return found;
}

}  // namespace gsve::test
