#include "programme/hls.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "captions/bits.h"
#include "encoding/error.h"
#include "programme/file_name.h"
#include "programme/muxer.h"
#include "programme/output_file.h"

namespace gsve::programme {
namespace {

namespace fs = std::filesystem;

/// A folder that appears under its name once it is complete.
class OutputFolder {
public:
    /// `path` is the master playlist's. Throws Failure.
    explicit OutputFolder(const std::string& path) : path_(path), target_(hls_folder(path)) {
        if (fs::exists(target_) && !fs::exists(path))
            throw Failure(fmt::format(
                "cannot write {}: there is {}, which is of no playlist here; move it, or name another", path,
                target_.string()));
        constexpr int kTries = 100;
        std::error_code error;
        for (int n = 0; n < kTries && written_.empty(); n++) {
            const fs::path candidate = hidden(fmt::format("{}-{}.part", getpid(), n));
            if (fs::create_directory(candidate, error)) written_ = candidate;
            if (error) fail_to_write(path, AVERROR(error.value()));
        }
        if (written_.empty()) fail_to_write(path, AVERROR(EEXIST));
    }
    ~OutputFolder() {
        std::error_code none;
        if (!written_.empty()) fs::remove_all(written_, none);
    }
    OutputFolder(const OutputFolder&) = delete;
    OutputFolder& operator=(const OutputFolder&) = delete;

    std::string operator/(const std::string& name) const { return written_ / name; }
    std::string name() const { return target_.filename(); }

    /// Puts the folder and the playlist that names what is in it in place: both, or none.
    void commit(const std::string& playlist) {
        OutputFile master(path_);
        write_bytes(master, playlist);
        const fs::path old = hidden(fmt::format("{}.old", getpid()));
        const bool replaces = fs::exists(target_);
        if (replaces) move(target_, old);
        try {
            move(written_, target_);
            master.commit();
        } catch (...) {
            std::error_code none;
            if (fs::exists(target_)) fs::rename(target_, written_, none);
            if (replaces) fs::rename(old, target_, none);
            throw;
        }
        written_.clear();
        std::error_code none;
        fs::remove_all(old, none);
    }

private:
    void move(const fs::path& from, const fs::path& to) const {
        std::error_code error;
        fs::rename(from, to, error);
        if (error) fail_to_write(path_, AVERROR(error.value()));
    }

    fs::path hidden(const std::string& end) const {
        return target_.parent_path() / fmt::format(".{}.{}", target_.filename().string(), end);
    }

    std::string path_;
    fs::path target_;
    fs::path written_;  ///< empty: it is in place
};

/// A name as part of a URI (RFC 3986).
std::string uri_of(std::string_view name) {
    std::string uri;
    for (const char letter : name) {
        const bool plain = std::isalnum(static_cast<unsigned char>(letter)) ||
                           std::string_view("-._~/").find(letter) != std::string_view::npos;
        uri += plain ? std::string(1, letter) : fmt::format("%{:02X}", static_cast<unsigned char>(letter));
    }
    return uri;
}

/// An attribute's text, which can hold neither quotes nor line ends.
std::string quoted(std::string text) {
    std::erase_if(text, [](char letter) { return letter == '"' || letter == '\n' || letter == '\r'; });
    return '"' + text + '"';
}

/// The NAL units between start codes.
std::vector<std::span<const uint8_t>> nal_units(std::span<const uint8_t> bytes) {
    std::vector<std::span<const uint8_t>> units;
    std::optional<size_t> begin;
    for (size_t n = 0; n + 3 <= bytes.size(); n++) {
        if (bytes[n] != 0 || bytes[n + 1] != 0 || bytes[n + 2] != 1) continue;
        if (begin) units.push_back(bytes.subspan(*begin, n - *begin));
        begin = n + 3;
    }
    if (begin) units.push_back(bytes.subspan(*begin));
    return units;
}

/// Without the bytes that keep start codes from appearing in it.
std::vector<uint8_t> payload_of(std::span<const uint8_t> unit) {
    std::vector<uint8_t> payload;
    for (size_t n = 0; n < unit.size(); n++)
        if (n < 2 || unit[n] != 3 || unit[n - 1] != 0 || unit[n - 2] != 0) payload.push_back(unit[n]);
    return payload;
}

/// ITU-T H.264, 7.3.2.1.1: profile, constraints and level follow the unit's header.
std::string h264_name(std::span<const uint8_t> unit) {
    return unit.size() < 4 || (unit[0] & 31) != 7
               ? ""
               : fmt::format("avc1.{:02X}{:02X}{:02X}", unit[1], unit[2], unit[3]);
}

/// ITU-T H.265, 7.3.3, as ISO/IEC 14496-15, E.3 writes it.
std::string h265_name(std::span<const uint8_t> unit) {
    constexpr size_t kNeeded = 2 + 1 + 12;
    constexpr unsigned kSequenceParameterSet = 33;
    const std::vector<uint8_t> payload = payload_of(unit);
    if (payload.size() < kNeeded || (payload[0] >> 1 & 63) != kSequenceParameterSet) return "";
    captions::BitReader bits(payload);
    bits.get(16 + 8);
    const unsigned space = bits.get(2), tier = bits.get(1), profile = bits.get(5);
    uint32_t compatible = 0;  // the first flag is the lowest bit
    for (int n = 0; n < 32; n++) compatible |= static_cast<uint32_t>(bits.get(1)) << n;
    std::vector<unsigned> constraints;
    for (int n = 0; n < 6; n++) constraints.push_back(bits.get(8));
    const unsigned level = bits.get(8);
    while (!constraints.empty() && constraints.back() == 0) constraints.pop_back();
    constexpr std::string_view kSpaces[] = {"", "A", "B", "C"};
    std::string name =
        fmt::format("hvc1.{}{}.{:X}.{}{}", kSpaces[space], profile, compatible, tier ? 'H' : 'L', level);
    for (const unsigned constraint : constraints) name += fmt::format(".{:X}", constraint);
    return name;
}

/// In edit lists, a track's start is rounded to this unit: the default's is a millisecond.
constexpr const char* kPreciseEdits = "movie_timescale=90000";

/// The short name of a language (RFC 5646), where the long one that containers have (ISO 639-2) is a usual
/// one; else itself.
std::string short_language(const std::string& name) {
    constexpr std::array<std::pair<std::string_view, std::string_view>, 38> kLanguages = {{
        {"ara", "ar"}, {"bul", "bg"}, {"ces", "cs"}, {"chi", "zh"}, {"cym", "cy"}, {"cze", "cs"},
        {"dan", "da"}, {"deu", "de"}, {"dut", "nl"}, {"ell", "el"}, {"eng", "en"}, {"est", "et"},
        {"fin", "fi"}, {"fra", "fr"}, {"fre", "fr"}, {"ger", "de"}, {"gle", "ga"}, {"gre", "el"},
        {"heb", "he"}, {"hin", "hi"}, {"hrv", "hr"}, {"hun", "hu"}, {"ita", "it"}, {"jpn", "ja"},
        {"kor", "ko"}, {"nld", "nl"}, {"nor", "no"}, {"pol", "pl"}, {"por", "pt"}, {"ron", "ro"},
        {"rum", "ro"}, {"rus", "ru"}, {"slk", "sk"}, {"spa", "es"}, {"swe", "sv"}, {"tur", "tr"},
        {"ukr", "uk"}, {"zho", "zh"},
    }};
    for (const auto& [known, brief] : kLanguages)
        if (known == name) return std::string(brief);
    return name;
}

/// Sound in a playlist of its own.
struct Rendition {
    std::string name;      ///< of its files
    std::string title;     ///< for viewers
    std::string language;  ///< empty: not told
    bool is_default = false;
};

class HlsOutput final : public Output {
public:
    HlsOutput(const OutputFormat& format, const std::string& path, encoding::PictureEncoder& encoder,
              const Companions& companions)
        : folder_(path),
          renditions_(renditions(companions)),
          frame_rate_(av_q2d({encoder.frame_rate_num,
                              encoder.frame_rate_den * static_cast<int>(encoder.frame_rate_divider)})),
          muxer_(format, target(format, path, !companions.streams.empty()), encoder, companions) {
        const AVCodecContext& codec = *encoder.mpeg_context;
        picture_codec_ = codec.codec_id;
        width_ = codec.width;
        height_ = codec.height;
        parameter_sets_ = encoder.parameter_sets();
        for (const Companions::Stream& stream : companions.streams)
            sound_codecs_.push_back(playlist_codec(stream.form->codec_id, {}));
    }

    void write(const encoding::EncodedUnit& unit) override {
        // The first unit has the parameter sets where the container has not.
        if (parameter_sets_.empty()) parameter_sets_.assign(unit.bytes.begin(), unit.bytes.end());
        muxer_.write(unit);
    }
    void pass(size_t stream, PacketPtr packet) override { muxer_.pass(stream, std::move(packet)); }
    void end_with_picture() override { muxer_.end_with_picture(); }
    uint64_t overlapping() const override { return muxer_.overlapping(); }
    void declare_captions(const std::vector<std::string>& services) override { captions_ = services; }

    void finish() override {
        muxer_.finish();
        folder_.commit(master_playlist());
    }

private:
    /// One track goes with the picture; several have a rendition each, among which viewers choose.
    static std::vector<Rendition> renditions(const Companions& companions) {
        std::vector<Rendition> found;
        if (companions.streams.size() < 2) return found;
        for (const Companions::Stream& stream : companions.streams) {
            const auto told = [&](const char* key) -> std::string {
                const AVDictionaryEntry* entry = av_dict_get(stream.source->metadata, key, nullptr, 0);
                return entry ? entry->value : "";
            };
            Rendition rendition = {.name = fmt::format("sound-{}", found.size() + 1),
                                   .title = told("title"),
                                   .language = short_language(told("language")),
                                   .is_default = (stream.source->disposition & AV_DISPOSITION_DEFAULT) != 0};
            if (rendition.title.empty())
                rendition.title = fmt::format(
                    "{} {}", rendition.language.empty() ? "Sound" : rendition.language, found.size() + 1);
            found.push_back(rendition);
        }
        // One is the first that is heard.
        const auto first =
            std::find_if(found.begin(), found.end(), [](const Rendition& r) { return r.is_default; });
        const size_t chosen = first == found.end() ? 0 : static_cast<size_t>(first - found.begin());
        for (size_t n = 0; n < found.size(); n++) found[n].is_default = n == chosen;
        return found;
    }

    MuxerTarget target(const OutputFormat& format, const std::string& path, bool has_sound) const {
        std::string streams = has_sound && renditions_.empty() ? "v:0,a:0,name:picture" : "v:0,name:picture";
        for (size_t n = 0; n < renditions_.size(); n++)
            streams += fmt::format(" a:{},name:{}", n, renditions_[n].name);
        const std::string extension = format.fragments ? "m4s" : "ts";
        MuxerTarget target = {.url = folder_ / "%v.m3u8",
                              .path = path,
                              .options = {{"var_stream_map", streams},
                                          {"hls_time", fmt::format("{}", format.segment_seconds)},
                                          {"hls_playlist_type", "vod"},
                                          {"hls_flags", "independent_segments"},
                                          {"hls_segment_filename", folder_ / ("%v-%05d." + extension)}}};
        if (format.fragments) {
            target.options.emplace_back("hls_segment_type", "fmp4");
            target.options.emplace_back("hls_fmp4_init_filename",
                                        renditions_.empty() ? "picture-init.mp4" : "%v-init.mp4");
            target.options.emplace_back("hls_segment_options", kPreciseEdits);
        }
        return target;
    }

    std::string master_playlist() const {
        std::string text = "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-INDEPENDENT-SEGMENTS\n";
        const SegmentRates rates = segment_rates(folder_ / "picture.m3u8");
        SegmentRates sound;
        for (const Rendition& rendition : renditions_) {
            const SegmentRates own = segment_rates(folder_ / (rendition.name + ".m3u8"));
            sound = {.peak = std::max(sound.peak, own.peak), .mean = std::max(sound.mean, own.mean)};
            text +=
                fmt::format("#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"sound\",NAME={}{}{},AUTOSELECT=YES,URI={}\n",
                            quoted(rendition.title),
                            rendition.language.empty() ? "" : ",LANGUAGE=" + quoted(rendition.language),
                            rendition.is_default ? ",DEFAULT=YES" : "",
                            quoted(uri_of(folder_.name() + "/" + rendition.name + ".m3u8")));
        }
        for (const std::string& service : captions_)
            text += fmt::format(
                "#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID=\"captions\",NAME=\"{0}\",INSTREAM-ID=\"{0}\","
                "DEFAULT={1},AUTOSELECT=YES\n",
                service, service == captions_.front() ? "YES" : "NO");
        std::vector<std::string> codecs = {playlist_codec(picture_codec_, parameter_sets_)};
        for (const std::string& codec : sound_codecs_)
            if (std::find(codecs.begin(), codecs.end(), codec) == codecs.end()) codecs.push_back(codec);
        text += fmt::format("#EXT-X-STREAM-INF:BANDWIDTH={:.0f},AVERAGE-BANDWIDTH={:.0f}",
                            std::ceil(rates.peak + sound.peak), std::ceil(rates.mean + sound.mean));
        // The list has to be complete, or is left out.
        if (std::find(codecs.begin(), codecs.end(), "") == codecs.end())
            text += fmt::format(",CODECS=\"{}\"", fmt::join(codecs, ","));
        text += fmt::format(",RESOLUTION={}x{},FRAME-RATE={:.3f}", width_, height_, frame_rate_);
        if (!renditions_.empty()) text += ",AUDIO=\"sound\"";
        text += captions_.empty() ? ",CLOSED-CAPTIONS=NONE" : ",CLOSED-CAPTIONS=\"captions\"";
        return text + "\n" + uri_of(folder_.name() + "/picture.m3u8") + "\n";
    }

    OutputFolder folder_;
    std::vector<Rendition> renditions_;
    AVCodecID picture_codec_ = AV_CODEC_ID_NONE;
    std::vector<uint8_t> parameter_sets_;
    std::vector<std::string> sound_codecs_;
    std::vector<std::string> captions_;
    int width_ = 0, height_ = 0;
    double frame_rate_;
    Muxer muxer_;
};

}  // namespace

std::string playlist_codec(AVCodecID codec, std::span<const uint8_t> parameter_sets) {
    switch (codec) {
        case AV_CODEC_ID_MPEG2VIDEO: return "mp4v.61";
        case AV_CODEC_ID_AAC: return "mp4a.40.2";
        case AV_CODEC_ID_AC3: return "ac-3";
        case AV_CODEC_ID_EAC3: return "ec-3";
        default: break;
    }
    for (const std::span<const uint8_t> unit : nal_units(parameter_sets)) {
        const std::string name = codec == AV_CODEC_ID_H264   ? h264_name(unit)
                                 : codec == AV_CODEC_ID_HEVC ? h265_name(unit)
                                                             : "";
        if (!name.empty()) return name;
    }
    return "";
}

SegmentRates segment_rates(const std::string& playlist) {
    SegmentRates rates;
    double bits = 0, seconds = 0, last = 0;
    std::ifstream lines(playlist);
    for (std::string line; std::getline(lines, line);) {
        constexpr std::string_view kDuration = "#EXTINF:";
        if (line.starts_with(kDuration)) last = std::strtod(line.c_str() + kDuration.size(), nullptr);
        if (line.empty() || line.front() == '#' || last <= 0) continue;
        std::error_code none;
        const double size =
            8.0 * static_cast<double>(fs::file_size(fs::path(playlist).parent_path() / line, none));
        if (none) continue;
        rates.peak = std::max(rates.peak, size / last);
        bits += size;
        seconds += last;
    }
    if (seconds > 0) rates.mean = bits / seconds;
    return rates;
}

std::string hls_folder(const std::string& path) { return fs::path(path).replace_extension(".segments"); }

std::unique_ptr<Output> open_hls(const OutputFormat& format, const std::string& path,
                                 encoding::PictureEncoder& encoder, const Companions& companions) {
    return std::make_unique<HlsOutput>(format, path, encoder, companions);
}

}  // namespace gsve::programme
