#include "programme/stream_table.h"

#include <algorithm>

namespace gsve::programme {
namespace {

/// Streams that are treated alike.
struct StreamKind {
    std::string_view name;
    std::vector<AVCodecID> codecs;
    Treatments treatments;
};

constexpr auto C = Treatment::kCarried, V = Treatment::kConverted, N = Treatment::kNamed;

// What libavformat's multiplexers take, and demultiplexers give back. A transport stream takes anything as
// private data that nobody can read.
const std::vector<StreamKind> kKinds = {
    //                                                                        TS MP4 MOV MKV MXF HLS
    {"MPEG audio, layers 2 and 3", {AV_CODEC_ID_MP2, AV_CODEC_ID_MP3}, {C, C, C, C, V, V}},
    {"AAC", {AV_CODEC_ID_AAC}, {C, C, C, C, V, C}},
    {"AAC in LATM", {AV_CODEC_ID_AAC_LATM}, {C, V, V, V, V, V}},
    {"AC-3, E-AC-3", {AV_CODEC_ID_AC3, AV_CODEC_ID_EAC3}, {C, C, C, C, V, C}},
    {"DTS", {AV_CODEC_ID_DTS}, {C, C, V, C, V, V}},
    {"TrueHD", {AV_CODEC_ID_TRUEHD}, {C, V, V, C, V, V}},
    {"Opus", {AV_CODEC_ID_OPUS}, {C, C, V, C, V, V}},
    {"FLAC", {AV_CODEC_ID_FLAC}, {V, V, V, C, V, V}},
    {"Vorbis", {AV_CODEC_ID_VORBIS}, {V, V, V, C, V, V}},
    {"ALAC", {AV_CODEC_ID_ALAC}, {V, C, C, C, V, V}},
    {"PCM",
     {AV_CODEC_ID_PCM_S16LE, AV_CODEC_ID_PCM_S16BE, AV_CODEC_ID_PCM_S24LE, AV_CODEC_ID_PCM_S24BE,
      AV_CODEC_ID_PCM_S32LE, AV_CODEC_ID_PCM_F32LE, AV_CODEC_ID_PCM_U8},
     {V, V, C, C, V, V}},
    {"PCM by SMPTE 302M", {AV_CODEC_ID_S302M}, {C, V, V, V, V, V}},
    {"DVB subtitles", {AV_CODEC_ID_DVB_SUBTITLE}, {C, N, N, C, N, N}},
    {"Teletext", {AV_CODEC_ID_DVB_TELETEXT}, {C, N, N, N, N, N}},
    {"SubRip, ASS, WebVTT, plain text",
     {AV_CODEC_ID_SUBRIP, AV_CODEC_ID_ASS, AV_CODEC_ID_WEBVTT, AV_CODEC_ID_TEXT},
     {N, V, V, C, N, N}},
    {"MPEG-4 timed text", {AV_CODEC_ID_MOV_TEXT}, {N, C, C, V, N, N}},
    {"DVD subtitles", {AV_CODEC_ID_DVD_SUBTITLE}, {N, C, N, C, N, N}},
    {"PGS subtitles", {AV_CODEC_ID_HDMV_PGS_SUBTITLE}, {N, N, N, C, N, N}},
    {"KLV metadata", {AV_CODEC_ID_SMPTE_KLV}, {C, N, N, N, N, N}},
    // libavformat's reader takes the first five bytes of a tag for a header, and drops them.
    {"Timed ID3", {AV_CODEC_ID_TIMED_ID3}, {N, N, N, N, N, N}},
    {"SCTE 35", {AV_CODEC_ID_SCTE_35}, {N, N, N, N, N, N}},
    {"Fonts and other attachments", {AV_CODEC_ID_TTF, AV_CODEC_ID_OTF}, {N, N, N, C, N, N}},
};

}  // namespace

std::string_view name_of(Container container) {
    constexpr std::array<std::string_view, kContainers.size()> kNames = {"TS",  "MP4", "MOV",
                                                                         "MKV", "MXF", "HLS"};
    return container == Container::kElementary ? "elementary stream" : kNames[static_cast<size_t>(container)];
}

std::vector<TreatmentRow> treatment_rows() {
    std::vector<TreatmentRow> rows;
    for (const StreamKind& kind : kKinds) rows.push_back({.kind = kind.name, .treatments = kind.treatments});
    return rows;
}

Treatment treatment_of(const AVCodecParameters& stream, Container container) {
    if (container == Container::kElementary) return N;
    const auto kind = std::find_if(kKinds.begin(), kKinds.end(), [&](const StreamKind& k) {
        return std::find(k.codecs.begin(), k.codecs.end(), stream.codec_id) != k.codecs.end();
    });
    const Treatment treatment = kind != kKinds.end() ? kind->treatments[static_cast<size_t>(container)]
                                : stream.codec_type == AVMEDIA_TYPE_AUDIO ? V
                                                                          : N;
    return treatment == V && !avcodec_find_decoder(stream.codec_id) ? N : treatment;
}

std::string_view conversion_of(AVMediaType type, Container container) {
    if (type == AVMEDIA_TYPE_SUBTITLE) return container == Container::kMatroska ? "subrip" : "mov_text";
    return container == Container::kMxf ? "pcm_s24le" : "aac";
}

}  // namespace gsve::programme
