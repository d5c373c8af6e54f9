#include "settings.h"

#include <algorithm>
#include <array>
#include <numeric>
#include <regex>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <gsve.h>

#include "error.h"

namespace gsve::cli {
namespace {

using enum Syntax;

constexpr std::array kSettings = {
    Setting{"Stream", "encoder", "", kText, "Codec: mpeg-2, h.264, h.265 or none."},
    Setting{"Stream", "enable", "0", kSwitch, "Whether the encoder runs at all; gsve turns it on."},
    Setting{"Stream", "name", "", kText, "A name for the host's own use."},
    Setting{"Stream", "debug file", "0", kSwitch, "Also dump the elementary stream to /mnt/main/DEBUG_*."},

    Setting{"Bit rate", "bitrate", "6000000", kWhole, "Target in bits/s, captions included; at least 10000."},
    Setting{"Bit rate", "min bitrate", "-1", kWhole,
            "Lowest rate in bits/s; -1: the target. Equal bounds mean a constant rate."},
    Setting{"Bit rate", "max bitrate", "-1", kWhole, "Highest rate in bits/s; -1: the target."},
    Setting{"Bit rate", "bitrate tolerance", "", kWhole,
            "How far the rate may stray, in bits; default a fifth of the target."},
    Setting{"Bit rate", "buffer size", "", kWhole,
            "Decoder buffer (VBV, HRD) in bits; default a quarter second, at most 1835008."},
    Setting{"Bit rate", "minimum quant", "", kWhole,
            "Lowest quantiser; for H.264 and H.265 also the constant rate factor."},
    Setting{"Bit rate", "maximum quant", "", kWhole, "Highest quantiser; default 63."},
    Setting{"Bit rate", "constant bitrate per frame", "-1", kAutomatic,
            "Count pictures instead of following their times, so that each gets its share; -1: MPEG-2 only."},
    Setting{"Bit rate", "drop frame for bitrate limit", "0", kDropping,
            "Leave pictures out when the rate runs over; auto: below 750000 bits/s."},
    Setting{"Bit rate", "remove trailing zeros", "0", kSwitch,
            "MPEG-2: cut the stuffing at the end of pictures. Works on an open encoder."},

    Setting{"Pictures", "frame rate limit", "0", kWhole,
            "Highest frame rate to encode; a faster source is divided down. 0: no limit."},
    Setting{"Pictures", "gop size", "-1", kWhole,
            "Pictures from one I-picture to the next, up to 1000; -1: about 15, to fit the B-pictures."},
    Setting{"Pictures", "closed gop", "", kSwitch, "1: GOPs that can be decoded on their own; default open."},
    Setting{
        "Pictures", "gop synchronization", "0", kSwitch,
        "For a host that follows the source's GOPs by requesting picture types. Works on an open encoder."},
    Setting{"Pictures", "b frames", "2", kWhole, "B-pictures between two others, 0 to 100."},
    Setting{"Pictures", "reference frames", "0", kWhole, "Reference pictures; 0: as the codec decides."},
    Setting{"Pictures", "chroma format", "", kText,
            "4:2:0, 4:2:2 or 4:4:4; default the source's, as far as codec and profile have it."},
    Setting{"Pictures", "resize", "", kSize, "Size to encode; default the source's."},
    Setting{"Pictures", "resize deinterlace", "-1", kWhole,
            "-1: keep interlaced; 0, 1: from the even or odd field alone; 2: as a progressive picture; "
            "3: three-line blend; 4: blend only where the picture combs."},

    Setting{"Quality", "noise reduction", "5", kWhole, "Strength of the codec's noise reduction; 0: none."},
    Setting{"Quality", "motion estimation range", "16", kWhole, "Motion search range in samples, 1 to 256."},
    Setting{"Quality", "interlaced motion estimation", "-1", kAutomatic,
            "Search motion field by field in interlaced pictures; only 1 turns it on."},
    Setting{"Quality", "temporal complexity masking", "0.005", kReal,
            "MPEG-2: coarser quantisation where much moves."},
    Setting{"Quality", "spatial complexity masking", "0.02", kReal,
            "MPEG-2: coarser quantisation where there is much detail; the floor of its adaptation to load "
            "and rate."},
    Setting{"Quality", "p masking", "0.8", kReal, "MPEG-2: coarser quantisation in inter blocks."},
    Setting{"Quality", "s_tune_cpu", "1.0", kReal,
            "MPEG-2 adaptation: how fast masking grows with processor load, 0 to 10000."},
    Setting{"Quality", "s_tune_bitrate", "1.0", kReal,
            "MPEG-2 adaptation: how fast masking grows with the bit rate, 0 to 10000."},
    Setting{"Quality", "s_tune_recovery", "1.0", kReal,
            "MPEG-2 adaptation: how fast masking falls back, 0 to 10000."},
    Setting{"Quality", "cpu threshhold", "0.6", kReal,
            "MPEG-2 adaptation: share of the frame time that encoding may take, 0.1 to 0.95."},
    Setting{"Quality", "maximum threads", "0", kWhole, "Encoder threads; 0: by processors and picture size."},

    Setting{"H.264 and H.265", "h.264 profile", "", kText,
            "baseline, main, high, high422, high444; H.265: main. Default baseline or main. Limits the "
            "chroma format."},
    Setting{"H.264 and H.265", "h.264 preset", "", kText,
            "Speed against quality, ultrafast to veryslow, or ultrafast+deblock; default by picture size."},
    Setting{"H.264 and H.265", "h.264 level", "", kText, "Level, such as 4.1; default by the codec."},
    Setting{"H.264 and H.265", "h.264 aud", "1", kSwitch,
            "Begin each picture with an access unit delimiter."},
    Setting{"H.264 and H.265", "enable h.264 nal hrd", "0", kSwitch,
            "Signal the decoder buffer model (HRD) in the stream."},
    Setting{"H.264 and H.265", "h.264 b-slice multithreading", "0", kSwitch,
            "H.264: use threads within a picture, for less delay."},

    Setting{"Captions", "enable eia-608", "-1", kAutomatic,
            "MPEG-2 \"CC\" user data; -1: for standard definition at 24, 30 and 60 pictures/s."},
    Setting{"Captions", "enable eia-608 gop delay", "-1", kWhole, "Reserved for the host."},
    Setting{"Captions", "eia-608 on p-frames", "-1", kAutomatic,
            "\"CC\" user data on P-pictures too; only 0 turns it off."},
    Setting{"Captions", "enable cea-708", "-1", kAutomatic,
            "ATSC A/53 caption data; -1: at 24, 30 and 60 pictures/s."},
};

const char* pattern(Syntax syntax) {
    switch (syntax) {
        case kSwitch: return "[01]";
        case kAutomatic: return "0|1|-1";
        case kWhole: return "-?[0-9]+";
        case kReal: return "[0-9]+(\\.[0-9]*)?";
        case kSize: return "[1-9][0-9]*x[1-9][0-9]*";
        case kDropping: return "on|off|auto";
        case kText: break;
    }
    return ".*";
}

std::string trimmed(const std::string& text) {
    const auto first = text.find_first_not_of(' ');
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

/// Levenshtein distance.
size_t distance(std::string_view a, std::string_view b) {
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < a.size(); i++) {
        size_t diagonal = std::exchange(row[0], i + 1);
        for (size_t j = 0; j < b.size(); j++) {
            const size_t replaced = diagonal + (a[i] != b[j]);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

const Setting& find(std::string_view key) {
    const auto closer = [key](const Setting& a, const Setting& b) {
        return distance(a.key, key) < distance(b.key, key);
    };
    const Setting& nearest = *std::min_element(kSettings.begin(), kSettings.end(), closer);
    if (nearest.key != key)
        throw UsageError(
            fmt::format("--set: there is no setting \"{}\"; did you mean \"{}\"? (gsve settings lists all)",
                        key, nearest.key));
    return nearest;
}

bool names_codec(std::string_view value) {
    return !value.empty() && std::find(std::begin(gsve_encoder_str), std::end(gsve_encoder_str), value) !=
                                 std::end(gsve_encoder_str);
}

}  // namespace

std::span<const Setting> settings() { return kSettings; }

std::string_view syntax_text(Syntax syntax) {
    switch (syntax) {
        case kSwitch: return "0 or 1";
        case kAutomatic: return "0, 1 or -1 (automatic)";
        case kWhole: return "whole number";
        case kReal: return "number";
        case kSize: return "WIDTHxHEIGHT";
        case kDropping: return "on, off or auto";
        case kText: break;
    }
    return "text";
}

KeyValue parse_setting(const std::string& text) {
    const auto equals = text.find('=');
    if (equals == std::string::npos)
        throw UsageError(fmt::format("--set takes \"KEY=VALUE\", not \"{}\"", text));
    const Setting& setting = find(trimmed(text.substr(0, equals)));
    std::string value = trimmed(text.substr(equals + 1));
    if (setting.key == "encoder" && !names_codec(value))
        throw UsageError(fmt::format("\"encoder\" takes mpeg-2, h.264 or h.265, not \"{}\"", value));
    if (!value.empty() && !std::regex_match(value, std::regex(pattern(setting.syntax))))
        throw UsageError(
            fmt::format("\"{}\" takes {}, not \"{}\"", setting.key, syntax_text(setting.syntax), value));
    return {std::string(setting.key), std::move(value)};
}

std::string settings_text() {
    std::string text;
    std::string_view topic;
    for (const Setting& setting : kSettings) {
        if (setting.topic != topic) text += fmt::format("{}{}\n", topic.empty() ? "" : "\n", setting.topic);
        topic = setting.topic;
        const std::string_view value = setting.default_value.empty() ? "(not given)" : setting.default_value;
        text += fmt::format("  {:30} {:12} {}\n      {}\n", setting.key, value, syntax_text(setting.syntax),
                            setting.meaning);
    }
    return text;
}

std::string settings_json() {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const Setting& setting : kSettings)
        list.push_back({{"topic", setting.topic},
                        {"key", setting.key},
                        {"default", setting.default_value},
                        {"syntax", syntax_text(setting.syntax)},
                        {"meaning", setting.meaning}});
    return list.dump(2) + "\n";
}

}  // namespace gsve::cli
