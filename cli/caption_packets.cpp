#include "caption_packets.h"

#include <string.h>

#include <new>
#include <string_view>

namespace gsve::cli {
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
    const void* found = memmem(packet.data() + from, packet.size() - from, pattern.data(), pattern.size());
    return found ? static_cast<size_t>(static_cast<const char*>(found) - packet.data())
                 : std::string_view::npos;
}

bool contains(std::string_view packet, std::string_view pattern) {
    return find(packet, pattern) != std::string_view::npos;
}

bool is_mpeg12(AVCodecID codec) { return codec == AV_CODEC_ID_MPEG2VIDEO || codec == AV_CODEC_ID_MPEG1VIDEO; }

/// Changes the first byte of the identifier, so that no reader knows the user data any more.
void disguise(AVPacket& packet, std::string_view pattern) {
    constexpr uint8_t kLetterCase = 0x20;
    for (size_t at = 0;; at += pattern.size()) {
        at = find(text({packet.data, static_cast<size_t>(packet.size)}), pattern, at);
        if (at == std::string_view::npos) return;
        if (av_packet_make_writable(&packet) < 0) throw std::bad_alloc();
        packet.data[at + kStartCodeSize] ^= kLetterCase;
    }
}

}  // namespace

bool may_have_captions(AVCodecID codec) {
    return is_mpeg12(codec) || codec == AV_CODEC_ID_H264 || codec == AV_CODEC_ID_HEVC;
}

bool has_captions(AVCodecID codec, std::span<const uint8_t> packet) {
    if (!is_mpeg12(codec)) return may_have_captions(codec) && contains(text(packet), kAtscMessage);
    const std::string_view bytes = text(packet);
    const std::string_view start_code = kAtscUserData.substr(0, kStartCodeSize);
    for (size_t at = find(bytes, start_code); at != bytes.npos;
         at = find(bytes, start_code, at + kStartCodeSize))
        for (const std::string_view pattern :
             {kAtscUserData, kLine21UserData, kScte20UserData[0], kScte20UserData[1]})
            if (bytes.substr(at).starts_with(pattern)) return true;
    return false;
}

void keep_one_kind_of_captions(AVPacket& packet) {
    if (!contains(text({packet.data, static_cast<size_t>(packet.size)}), kAtscUserData)) return;
    for (const std::string_view pattern : {kLine21UserData, kScte20UserData[0], kScte20UserData[1]})
        disguise(packet, pattern);
}

}  // namespace gsve::cli
