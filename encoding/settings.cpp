#include "encoding/settings.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <numeric>
#include <optional>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <gsve.h>

#include "encoding/error.h"
#include "encoding/split.h"

namespace gsve::encoding {
namespace {

using enum Syntax;

constexpr double kLargest = std::numeric_limits<int32_t>::max();
constexpr double kUnbounded = std::numeric_limits<double>::infinity();
constexpr int kLargestSize = 16384;

constexpr Values kOnOff = {kSwitch};
constexpr Values kOnOffAuto = {kAutomatic};
constexpr Values kAnyText = {kText};

constexpr Values whole(double lowest, double highest = kLargest) { return {kWhole, lowest, highest}; }
constexpr Values real(double lowest, double highest = kUnbounded) { return {kReal, lowest, highest}; }
constexpr Values one_of(std::string_view choices) { return {.syntax = kChoice, .choices = choices}; }

constexpr std::array kSettings = {
    Setting{"Stream", "encoder", "", one_of("mpeg-2 h.264 h.265 none"), "Codec.", kAllCodecs, "none"},
    Setting{"Stream", "enable", "0", kOnOff, "Whether the encoder runs at all; gsve turns it on."},
    Setting{"Stream", "name", "", kAnyText, "A name for the host's own use."},
    Setting{"Stream", "debug file", "0", kOnOff, "Also dump the elementary stream to /mnt/main/DEBUG_*."},

    Setting{"Bit rate", "bitrate", "6000000", whole(10000), "Target in bits/s, captions included."},
    Setting{"Bit rate", "min bitrate", "-1", whole(-1),
            "Lowest rate in bits/s; -1: the target. Equal bounds mean a constant rate."},
    Setting{"Bit rate", "max bitrate", "-1", whole(-1), "Highest rate in bits/s; -1: the target."},
    Setting{"Bit rate", "bitrate tolerance", "0", whole(-1),
            "How far the rate may stray, in bits; 0 or -1: a fifth of the target.", kMpeg2, "-1"},
    Setting{"Bit rate", "buffer size", "0", whole(-1),
            "Decoder buffer (VBV, HRD) in bits; 0 or -1: a quarter second, at most 1835008.", kAllCodecs,
            "-1"},
    Setting{"Bit rate", "minimum quant", "0", whole(-1, 63),
            "Lowest quantiser; for H.264 and H.265 also the constant rate factor. 0 or -1: 2, and no "
            "constant rate factor.",
            kAllCodecs, "-1"},
    Setting{"Bit rate", "maximum quant", "0", whole(-1, 63), "Highest quantiser; 0 or -1: 63.", kAllCodecs,
            "-1"},
    Setting{"Bit rate", "constant bitrate per frame", "-1", kOnOffAuto,
            "Control the rate by counting pictures instead of following their times; -1: for MPEG-2 only."},
    Setting{
        "Bit rate", "drop frame for bitrate limit", "off", one_of("on off auto"),
        "Drop pictures while the stream exceeds its bit rate; auto: only for targets below 750000 bits/s."},
    Setting{"Bit rate", "remove trailing zeros", "0", kOnOff,
            "Cut the stuffing at the end of pictures. Works on an open encoder.", kMpeg2},

    Setting{"Pictures", "frame rate limit", "0", whole(-1),
            "Highest frame rate to encode; a faster source is divided down. 0 or -1: no limit.", kAllCodecs,
            "-1"},
    Setting{"Pictures", "gop size", "-1", whole(-1, 1000),
            "Pictures from one I-picture to the next; 0 or -1: about 15, in whole runs of B-pictures."},
    Setting{"Pictures", "closed gop", "", kOnOff, "1: GOPs that can be decoded on their own; default open."},
    Setting{
        "Pictures", "gop synchronization", "0", kOnOff,
        "For a host that follows the source's GOPs by requesting picture types. Works on an open encoder."},
    Setting{"Pictures", "b frames", "2", whole(0, 100),
            "B-pictures between two others; the codecs take up to 16. 0 with H.265 needs \"h.264 "
            "profile=main\"."},
    Setting{"Pictures", "reference frames", "0", whole(0, 16),
            "Reference pictures, where there is an \"h.264 preset\"; 0: as the codec decides.",
            kH264 | kH265},
    Setting{"Pictures", "chroma format", "", one_of("4:2:0 4:2:2 4:4:4"),
            "Default the source's, as far as codec and profile have it."},
    Setting{"Pictures", "resize", "", {kSize}, "Size to encode; default the source's."},
    Setting{"Pictures", "resize deinterlace", "-1", whole(-1, 4),
            "-1: keep interlaced; 0, 1: from the even or odd field alone; 2: as a progressive picture; "
            "3: three-line blend; 4: the blend only where there is combing."},

    Setting{"Quality", "noise reduction", "5", whole(0), "Strength of the codec's noise reduction; 0: none.",
            kMpeg2 | kH264, "15"},
    Setting{"Quality", "motion estimation range", "16", whole(1, 256), "Motion search range in samples.",
            kMpeg2 | kH264},
    Setting{"Quality", "interlaced motion estimation", "-1", kOnOffAuto,
            "Search motion field by field in interlaced pictures; only 1 turns it on.", kMpeg2},
    Setting{"Quality", "temporal complexity masking", "0.005", real(0),
            "Coarser quantisation where there is much motion.", kMpeg2},
    Setting{"Quality", "spatial complexity masking", "0.02", real(0),
            "Coarser quantisation where there is much detail; adaptation to load and rate starts from here.",
            kMpeg2},
    Setting{"Quality", "p masking", "0.8", real(0), "Coarser quantisation in inter blocks.", kMpeg2},
    Setting{"Quality", "s_tune_cpu", "1.0", real(0, 10000),
            "Adaptation to load: how fast masking grows while encoding takes too long.", kMpeg2},
    Setting{"Quality", "s_tune_bitrate", "1.0", real(0, 10000),
            "Adaptation to rate: how fast masking grows while the stream exceeds its bit rate.", kMpeg2},
    Setting{"Quality", "s_tune_recovery", "1.0", real(0, 10000), "Adaptation: how fast masking falls again.",
            kMpeg2},
    Setting{"Quality", "cpu threshhold", "0.6", real(0.1, 0.95),
            "Adaptation to load: share of a frame's duration that encoding may take.", kMpeg2},
    Setting{"Quality", "maximum threads", "0", whole(0),
            "Most encoder threads; 0: chosen by codec, picture size and number of processors."},

    Setting{"H.264 and H.265", "h.264 profile", "", one_of("baseline main high high10 high422 high444"),
            "Limits the chroma format; default baseline or main. H.265 takes only main, which has to be "
            "given when there are no B-pictures.",
            kH264 | kH265},
    Setting{"H.264 and H.265", "h.264 preset", "",
            one_of("ultrafast ultrafast+deblock superfast veryfast faster fast medium slow slower veryslow "
                   "placebo"),
            "Speed against quality; default veryfast up to 720x576 and superfast above, H.265 ultrafast.",
            kH264 | kH265},
    Setting{"H.264 and H.265", "h.264 level", "", kAnyText, "Level, such as 4.1; default by the codec.",
            kH264},
    Setting{"H.264 and H.265", "h.264 aud", "1", kOnOff, "Begin each picture with an access unit delimiter.",
            kH264},
    Setting{"H.264 and H.265", "enable h.264 nal hrd", "0", kOnOff,
            "Signal the decoder buffer model (HRD) in the stream.", kH264},
    Setting{"H.264 and H.265", "h.264 b-slice multithreading", "0", kOnOff,
            "Use threads within a picture, for less delay.", kH264},

    Setting{"Captions", "enable eia-608", "-1", kOnOffAuto,
            "\"CC\" user data; -1: for standard definition at 24, 30 and 60 pictures/s. gsve turns it off "
            "where it sends A/53 data.",
            kMpeg2},
    Setting{"Captions", "enable eia-608 gop delay", "-1", whole(-1), "Reserved for the host."},
    Setting{"Captions", "eia-608 on p-frames", "-1", kOnOffAuto,
            "\"CC\" user data on P-pictures too; only 0 turns it off.", kMpeg2},
    Setting{"Captions", "enable cea-708", "-1", kOnOffAuto,
            "ATSC A/53 caption data; -1: at 24, 30 and 60 pictures/s."},
};

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

bool is_digit(char letter) { return letter >= '0' && letter <= '9'; }

/// Takes digits from the front of a text. None, or a leading zero, is no number.
std::string_view take_digits(std::string_view& text) {
    const size_t count =
        static_cast<size_t>(std::find_if_not(text.begin(), text.end(), is_digit) - text.begin());
    const std::string_view digits = text.substr(0, count);
    if (digits.size() > 1 && digits.front() == '0') return {};
    text.remove_prefix(count);
    return digits;
}

/// The number that a whole text is, or nothing. Leading zeros are no way to write one: for some settings the
/// encoder reads them as octal.
std::optional<double> number(Syntax syntax, const std::string& text) {
    std::string_view rest = text;
    if (rest.starts_with('-')) rest.remove_prefix(1);
    if (take_digits(rest).empty()) return std::nullopt;
    if (syntax != kWhole && rest.starts_with('.')) {
        rest.remove_prefix(1);
        rest.remove_prefix(
            static_cast<size_t>(std::find_if_not(rest.begin(), rest.end(), is_digit) - rest.begin()));
    }
    if (!rest.empty()) return std::nullopt;
    return std::strtod(text.c_str(), nullptr);
}

bool is_side(std::string_view digits) {
    constexpr size_t kMostDigits = 5;
    return !digits.empty() && digits.size() <= kMostDigits && digits != "0" &&
           std::stoi(std::string(digits)) <= kLargestSize;
}

bool is_size(const std::string& text) {
    std::string_view rest = text;
    if (!is_side(take_digits(rest)) || !rest.starts_with('x')) return false;
    rest.remove_prefix(1);
    return is_side(take_digits(rest)) && rest.empty();
}

bool takes(const Values& values, const std::string& text) {
    switch (values.syntax) {
        case kSwitch: return text == "0" || text == "1";
        case kAutomatic: return text == "0" || text == "1" || text == "-1";
        case kSize: return is_size(text);
        case kChoice: return std::ranges::count(split(values.choices, ' '), text) > 0;
        case kText: return true;
        case kWhole:
        case kReal: break;
    }
    const std::optional<double> value = number(values.syntax, text);
    return value && *value >= values.lowest && *value <= values.highest;
}

std::string range_text(const Values& values) {
    if (values.highest == kUnbounded) return fmt::format("from {}", values.lowest);
    return fmt::format("from {} to {}", values.lowest, values.highest);
}

}  // namespace

std::span<const Setting> settings() { return kSettings; }

bool works_on_open_encoder(std::string_view key) {
    constexpr std::string_view kKeys[] = {"name", "gop synchronization", "remove trailing zeros"};
    return std::ranges::count(kKeys, key) > 0;
}

std::string syntax_text(const Values& values) {
    switch (values.syntax) {
        case kSwitch: return "0 or 1";
        case kAutomatic: return "0, 1 or -1 (automatic)";
        case kWhole: return "whole number " + range_text(values);
        case kReal: return "number " + range_text(values);
        case kSize:
            return fmt::format("WIDTHxHEIGHT up to {0}x{0}, even where chroma is subsampled", kLargestSize);
        case kChoice: return fmt::format("{}", fmt::join(split(values.choices, ' '), ", "));
        case kText: break;
    }
    return "text";
}

std::string codecs_text(int codecs) {
    std::vector<std::string_view> names;
    for (const int codec : {kMpeg2, kH264, kH265})
        if (codecs & codec) names.push_back(gsve_encoder_str[codec]);
    return fmt::format("{}", fmt::join(names, ", "));
}

KeyValue parse_setting(const std::string& text) {
    const auto equals = text.find('=');
    if (equals == std::string::npos)
        throw UsageError(fmt::format("--set takes \"KEY=VALUE\", not \"{}\"", text));
    const Setting& setting = find(trimmed(text.substr(0, equals)));
    std::string value = trimmed(text.substr(equals + 1));
    if (!value.empty() && !takes(setting.values, value))
        throw UsageError(
            fmt::format("\"{}\" takes: {}; not \"{}\"", setting.key, syntax_text(setting.values), value));
    return {std::string(setting.key), std::move(value)};
}

void check_together(std::span<const KeyValue> given) {
    std::string chroma, size, codec;
    for (const auto& [key, value] : given) {
        if (key == "encoder") codec = value;
        if (key == "chroma format") chroma = value;
        if (key == "resize") size = value;
    }
    if (size.empty()) return;
    if (codec == "mpeg-2" && chroma == "4:4:4") chroma = "4:2:2";  // as the codec does
    // Subsampled chroma has one sample for two columns, and in 4:2:0 for two lines.
    const bool odd_width = std::stoi(size) % 2 != 0;
    const bool odd_height = std::stoi(size.substr(size.find('x') + 1)) % 2 != 0;
    if ((odd_width && chroma != "4:4:4") || (odd_height && chroma != "4:4:4" && chroma != "4:2:2"))
        throw UsageError(fmt::format("\"resize\" takes even sizes, as {} chroma needs them; not \"{}\"",
                                     chroma.empty() ? "4:2:0" : chroma, size));
}

}  // namespace gsve::encoding
