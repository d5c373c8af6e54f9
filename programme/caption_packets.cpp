#include "programme/caption_packets.h"

#include <string.h>

#include <algorithm>
#include <new>
#include <string_view>

#include "encoding/coded_unit.h"

namespace gsve::programme {
namespace {

using namespace std::string_view_literals;

// From the user data start code on.
constexpr std::string_view kAtscUserData = "\x00\x00\x01\xB2GA94\x03"sv;
constexpr std::string_view kLine21UserData =
    "\x00\x00\x01\xB2"
    "CC\x01\xF8"sv;
constexpr std::string_view kScte20UserData[] = {"\x00\x00\x01\xB2\x03\x81"sv, "\x00\x00\x01\xB2\x03\x01"sv};
constexpr size_t kStartCodeSize = 4;

// A registered ITU-T T.35 message: country and provider code, then as in MPEG-2.
constexpr std::string_view kAtscMessage = "\xB5\x00\x31GA94\x03"sv;

std::string_view text(std::span<const uint8_t> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/// As find() of std::string_view, which stops at every zero of a start code or of stuffing, and takes minutes
/// for a film.
size_t find(std::string_view packet, std::string_view pattern, size_t from = 0) {
    if (packet.empty()) return std::string_view::npos;
    const void* found = memmem(packet.data() + from, packet.size() - from, pattern.data(), pattern.size());
    return found ? static_cast<size_t>(static_cast<const char*>(found) - packet.data())
                 : std::string_view::npos;
}

bool contains(std::string_view packet, std::string_view pattern) {
    return find(packet, pattern) != std::string_view::npos;
}

/// Changes the first byte of the identifier, so that no reader knows the user data any more.
void disguise(AVPacket& packet, std::string_view pattern) {
    constexpr uint8_t kLetterCase = 0x20;
    for (size_t at = 0;; at += pattern.size()) {
        at = find(text(bytes_of(packet)), pattern, at);
        if (at == std::string_view::npos) return;
        check_memory(av_packet_make_writable(&packet) >= 0);
        packet.data[at + kStartCodeSize] ^= kLetterCase;
    }
}

constexpr std::array kMpegForms = {CaptionForm::kA53, CaptionForm::kScte20, CaptionForm::kCc};

size_t index_of(CaptionForm form) { return static_cast<size_t>(form); }

std::span<const std::string_view> patterns(CaptionForm form) {
    switch (form) {
        case CaptionForm::kA53: return {&kAtscUserData, 1};
        case CaptionForm::kScte20: return kScte20UserData;
        case CaptionForm::kCc: break;
    }
    return {&kLine21UserData, 1};
}

/// The forms of an MPEG-1 or MPEG-2 packet, by form.
std::array<bool, kMpegForms.size()> mpeg_forms(std::string_view packet) {
    std::array<bool, kMpegForms.size()> forms = {};
    const std::string_view start_code = kAtscUserData.substr(0, kStartCodeSize);
    for (size_t at = find(packet, start_code); at != packet.npos;
         at = find(packet, start_code, at + kStartCodeSize))
        for (const CaptionForm form : kMpegForms)
            for (const std::string_view pattern : patterns(form))
                forms[index_of(form)] |= packet.substr(at).starts_with(pattern);
    return forms;
}

}  // namespace

bool may_have_captions(AVCodecID codec) {
    return encoding::is_mpeg_video(codec) || codec == AV_CODEC_ID_H264 || codec == AV_CODEC_ID_HEVC;
}

std::optional<CaptionForm> caption_form(AVCodecID codec, std::span<const uint8_t> packet) {
    if (!encoding::is_mpeg_video(codec))
        return may_have_captions(codec) && contains(text(packet), kAtscMessage)
                   ? std::optional(CaptionForm::kA53)
                   : std::nullopt;
    const auto forms = mpeg_forms(text(packet));
    for (const CaptionForm form : kMpegForms)
        if (forms[index_of(form)]) return form;
    return std::nullopt;
}

std::optional<CcRun> CaptionFormFilter::filter(AVCodecID codec, AVPacket& packet) {
    packets_++;
    const auto forms = mpeg_forms(text(bytes_of(packet)));
    for (const CaptionForm form : kMpegForms)
        if (forms[index_of(form)]) seen_in_[index_of(form)] = packets_;

    std::optional<CcRun> run;
    if (forms[index_of(CaptionForm::kCc)] && !in_use(CaptionForm::kA53) && !in_use(CaptionForm::kScte20))
        run = encoding::read_unit(codec, bytes_of(packet), false).captions.cc;
    for (const CaptionForm form : {CaptionForm::kScte20, CaptionForm::kCc})
        if (forms[index_of(form)] && (form == CaptionForm::kCc || in_use(CaptionForm::kA53)))
            for (const std::string_view pattern : patterns(form)) disguise(packet, pattern);
    return run;
}

bool CaptionFormFilter::in_use(CaptionForm form) const {
    // SCTE 20 comes with the pictures that have pairs, and "CC" up to 63 pictures later.
    constexpr int64_t kRemembered = 300;
    const std::optional<int64_t> seen = seen_in_[index_of(form)];
    return seen && packets_ - *seen < kRemembered;
}

int64_t CcClock::begin(int64_t next_shown, int64_t pairs) {
    // A decoder shows pictures one to a few behind the packet that it was given, as it reorders them.
    constexpr int64_t kReordering = 4;
    const int64_t earliest = next_shown - pairs - kReordering, latest = next_shown + kReordering;
    int64_t begin = expected_.value_or(0);
    if (begin < earliest) begin = expected_ ? next_shown + end_after_shown_ - pairs : next_shown;
    begin = std::max<int64_t>(std::min(begin, latest), 0);
    expected_ = begin + pairs;
    end_after_shown_ = *expected_ - next_shown;
    return begin;
}

}  // namespace gsve::programme
