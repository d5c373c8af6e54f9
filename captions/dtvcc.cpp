#include "dtvcc.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "text_file.h"

namespace gsve::captions {

namespace {

enum Code : std::uint8_t {
    kEndOfText = 0x03,
    kBackspace708 = 0x08,
    kFormFeed = 0x0C,
    kCarriageReturn708 = 0x0D,
    kHorizontalCarriageReturn = 0x0E,
    kExtension = 0x10,
    kClearWindows = 0x88,
    kDeleteWindows = 0x8C,
    kMusicNote = 0x7F,
};

// Lengths of the C1 codes 0x80 to 0x9F, parameters included.
constexpr std::uint8_t kC1Lengths[] = {1, 1, 1, 1, 1, 1, 1, 1, 2, 2, 2, 2, 2, 2, 1, 1,
                                       3, 4, 3, 1, 1, 1, 1, 5, 7, 7, 7, 7, 7, 7, 7, 7};

// Length of an extended code, the extension byte included; as far as it must go at least when more bytes are
// needed to know.
std::size_t extended_length(std::span<const std::uint8_t> codes) {
    if (codes.size() < 2) return 2;
    const std::uint8_t code = codes[1];
    if (code < 0x20) return 2 + code / 8U;
    if (code < 0x80 || code >= 0xA0) return 2;
    if (code < 0x88) return 6;
    if (code < 0x90) return 7;
    return codes.size() < 3 ? 3 : 3 + (codes[2] & 0x3FU);
}

// Length of the code at the front with its parameters, likewise.
std::size_t code_length(std::span<const std::uint8_t> codes) {
    const std::uint8_t code = codes[0];
    if (code == kExtension) return extended_length(codes);
    if (code < 0x20) return code < 0x10 ? 1 : code < 0x18 ? 2 : 3;
    if (code >= 0x80 && code < 0xA0) return kC1Lengths[code - 0x80];
    return 1;
}

bool ends_text(std::uint8_t code) {
    return code == kEndOfText || code == kFormFeed || code == kCarriageReturn708 ||
           code == kHorizontalCarriageReturn || (code >= kClearWindows && code <= kDeleteWindows);
}

bool is_extended_character(std::span<const std::uint8_t> codes) {
    return codes[0] == kExtension && ((codes[1] >= 0x20 && codes[1] < 0x80) || codes[1] >= 0xA0);
}

bool is_character(std::uint8_t code) { return (code >= 0x20 && code < 0x80) || code >= 0xA0; }

char32_t character_of(std::uint8_t code) { return code == kMusicNote ? U'♪' : code; }

void remove_last_character(std::string& text) {
    while (!text.empty() && (static_cast<std::uint8_t>(text.back()) & 0xC0) == 0x80) text.pop_back();
    if (!text.empty()) text.pop_back();
}

}  // namespace

void DtvccDecoder::feed(std::int64_t frame, std::span<const Cea708Construct> constructs) {
    frame_ = frame;
    for (const Cea708Construct& construct : constructs) {
        if (construct.header == kHeaderDtvccStart) {
            damaged_packets_ += !packet_.empty();
            const unsigned code = construct.data_1 & 0x3F;  // packet_size_code; 0 stands for 128 bytes
            packet_size_ = code == 0 ? 128 : code * 2;
            packet_.clear();
        } else if (construct.header != kHeaderDtvccData || packet_.empty()) {
            continue;
        }
        packet_.push_back(construct.data_1);
        packet_.push_back(construct.data_2);
        if (packet_.size() >= packet_size_) end_packet();
    }
}

void DtvccDecoder::feed(const Schedule& schedule) {
    for (const Cea708Event& event : schedule.cea708) feed(event.frame, event.constructs);
}

void DtvccDecoder::finish() {
    damaged_packets_ += !packet_.empty();
    packet_.clear();
    for (auto& [number, service] : open_) end_text(number, service);
    std::stable_sort(texts_.begin(), texts_.end(),
                     [](const ServiceText& a, const ServiceText& b) { return a.frame < b.frame; });
}

// Takes the packet apart into service blocks: service_number (3 bits), block_size (5 bits), and for number
// 7 the extended number, 7 to 63, in another byte. A block of service 0 ends the packet.
void DtvccDecoder::end_packet() {
    const std::vector<std::uint8_t> packet = std::exchange(packet_, {});
    for (std::size_t at = 1; at < packet.size();) {
        int number = packet[at] >> 5;
        const std::size_t size = packet[at] & 0x1F;
        ++at;
        if (number == 0) return;
        if (number == 7 && size > 0) {
            number = at < packet.size() ? packet[at++] & 0x3F : 0;
            if (number < 7) {
                ++damaged_packets_;
                return;
            }
        }
        if (size > packet.size() - at) {
            ++damaged_packets_;
            return;
        }
        services_.insert(number);
        Service& service = open_[number];
        const auto block = packet.begin() + static_cast<std::ptrdiff_t>(at);
        service.codes.insert(service.codes.end(), block, block + static_cast<std::ptrdiff_t>(size));
        interpret(number, service);
        at += size;
    }
}

void DtvccDecoder::interpret(int number, Service& service) {
    std::span<const std::uint8_t> codes = service.codes;
    while (!codes.empty()) {
        const std::size_t length = code_length(codes);
        if (length > codes.size()) break;
        if (is_character(codes[0]) || is_extended_character(codes)) {
            if (service.open.text.empty()) service.open.frame = frame_;
            const char32_t character = is_character(codes[0]) ? character_of(codes[0]) : U'_';
            service.open.text += encode_utf8(std::u32string(1, character));
        } else if (codes[0] == kBackspace708) {
            remove_last_character(service.open.text);
        } else if (ends_text(codes[0])) {
            end_text(number, service);
        }
        codes = codes.subspan(length);
    }
    service.codes.assign(codes.begin(), codes.end());
}

void DtvccDecoder::end_text(int number, Service& service) {
    if (!service.open.text.empty()) texts_.push_back({number, service.open.frame, service.open.text});
    service.open = {};
}

}  // namespace gsve::captions
