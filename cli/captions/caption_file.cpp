#include "caption_file.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <optional>
#include <stdexcept>

#include <fmt/format.h>

#include "mcc.h"
#include "pop_on.h"
#include "repacer.h"
#include "scc.h"
#include "subtitles.h"
#include "text_file.h"

namespace gsve::captions {

namespace {

struct Extension {
    std::string_view text;
    CaptionFormat format;
};
constexpr Extension kExtensions[] = {{".scc", CaptionFormat::kScc},
                                     {".mcc", CaptionFormat::kMcc},
                                     {".srt", CaptionFormat::kSubRip},
                                     {".vtt", CaptionFormat::kWebVtt}};

// Only the four numbers count: whether they are drop-frame is the file's affair.
std::optional<Timecode> start_timecode(std::string text) {
    if (text.empty()) return std::nullopt;
    std::replace(text.begin(), text.end(), ';', ':');
    return parse_timecode(text, kRate60);
}

}  // namespace

CaptionFormat caption_format(const std::string& path) {
    std::string extension = std::filesystem::path(path).extension().string();
    for (char& c : extension) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    const auto entry = std::find_if(std::begin(kExtensions), std::end(kExtensions),
                                    [&](const Extension& e) { return e.text == extension; });
    if (entry == std::end(kExtensions))
        throw FileError(path, 0,
                        "not a caption file by its name: use one that ends in .scc, .mcc, .srt or .vtt");
    return entry->format;
}

Schedule load_captions(const std::string& path, const CaptionFileOptions& options, Report& report) {
    if (options.field != 0 && options.field != 1)
        throw std::invalid_argument("captions go into field 1 or field 2");
    const CaptionFormat format = caption_format(path);
    const std::optional<Timecode> start = start_timecode(options.start);
    const PopOnOptions pop_on{options.output, options.rows, options.field};
    switch (format) {
        case CaptionFormat::kScc:
            return retime(read_scc(path, {options.field, kRate29_97, start}, report), options.output, report);
        case CaptionFormat::kMcc: return retime(read_mcc(path, {start}, report), options.output, report);
        case CaptionFormat::kSubRip: return encode_pop_on(read_srt(path), path, pop_on, report);
        case CaptionFormat::kWebVtt: return encode_pop_on(read_webvtt(path), path, pop_on, report);
    }
    throw FileError(path, 0, "unknown caption format");
}

}  // namespace gsve::captions
