#include "encoding/picture_shape.h"

#include <string.h>

#include <algorithm>
#include <string_view>

#include "captions/bits.h"
#include "encoding/coded_unit.h"

namespace gsve::encoding {
namespace {

using namespace std::string_view_literals;

constexpr std::string_view kAfdIdentifier = "DTG1"sv, kBarIdentifier = "GA94\x06"sv;
constexpr std::string_view kUserData = "\x00\x00\x01\xB2"sv, kAtscMessage = "\xB5\x00\x31"sv;
constexpr unsigned kActiveFormatFlag = 0x41;
constexpr int kNumberBits = 14;

/// What follows the identifier behind the first `carriage`; empty where there is none.
std::span<const uint8_t> find(std::span<const uint8_t> unit, std::string_view carriage,
                              std::string_view identifier) {
    std::string pattern(carriage);
    pattern += identifier;
    if (unit.empty()) return {};
    const void* found = memmem(unit.data(), unit.size(), pattern.data(), pattern.size());
    if (!found) return {};
    return unit.subspan(static_cast<size_t>(static_cast<const uint8_t*>(found) - unit.data()) +
                        pattern.size());
}

std::optional<int> read_afd(std::span<const uint8_t> data) {
    if (data.size() < 2 || data[0] != kActiveFormatFlag) return std::nullopt;
    return data[1] & 0x0F;
}

std::optional<Bars> read_bars(std::span<const uint8_t> data) {
    captions::BitReader bits(data);
    bool flags[4];
    for (bool& flag : flags) flag = bits.flag();
    bits.get(4);
    Bars bars;
    std::optional<int>* const numbers[] = {&bars.top_end, &bars.bottom_begin, &bars.left_end,
                                           &bars.right_begin};
    for (size_t n = 0; n < std::size(flags); n++) {
        if (!flags[n]) continue;
        if (bits.get(2) != 3) return std::nullopt;
        *numbers[n] = static_cast<int>(bits.get(kNumberBits));
    }
    if (bits.overrun() || bars == Bars()) return std::nullopt;
    return bars;
}

std::vector<uint8_t> bytes_of(std::string_view text) { return {text.begin(), text.end()}; }

}  // namespace

Bars scaled(const Bars& bars, PictureSize from, PictureSize to) {
    const auto scale = [](int length, int before, int after) {
        return static_cast<int>(int64_t{length} * after / before);
    };
    const auto end = [&](std::optional<int> last, int before, int after) -> std::optional<int> {
        if (!last || before <= 0 || before == after) return last;
        return std::max(scale(std::min(*last + 1, before), before, after) - 1, 0);
    };
    const auto begin = [&](std::optional<int> first, int before, int after) -> std::optional<int> {
        if (!first || before <= 0 || before == after) return first;
        return after - scale(before - std::min(*first, before), before, after);
    };
    return {.top_end = end(bars.top_end, from.height, to.height),
            .bottom_begin = begin(bars.bottom_begin, from.height, to.height),
            .left_end = end(bars.left_end, from.width, to.width),
            .right_begin = begin(bars.right_begin, from.width, to.width)};
}

PictureShape read_shape(AVCodecID codec, std::span<const uint8_t> unit) {
    const bool has_nal_units = codec == AV_CODEC_ID_H264 || codec == AV_CODEC_ID_HEVC;
    if (!has_nal_units && !is_mpeg_video(codec)) return {};
    const std::string_view carriage = has_nal_units ? kAtscMessage : kUserData;
    return {.afd = read_afd(find(unit, carriage, kAfdIdentifier)),
            .bars = read_bars(find(unit, carriage, kBarIdentifier))};
}

std::vector<uint8_t> afd_data(int active_format) {
    std::vector<uint8_t> data = bytes_of(kAfdIdentifier);
    data.push_back(kActiveFormatFlag);
    data.push_back(static_cast<uint8_t>(0xF0 | (active_format & 0x0F)));
    return data;
}

std::vector<uint8_t> bar_data(const Bars& bars) {
    const std::optional<int> numbers[] = {bars.top_end, bars.bottom_begin, bars.left_end, bars.right_begin};
    captions::BitWriter bits;
    for (const char letter : kBarIdentifier) bits.put(static_cast<uint8_t>(letter), 8);
    for (const std::optional<int>& number : numbers) bits.put(number.has_value(), 1);
    bits.put(15, 4);
    for (const std::optional<int>& number : numbers) {
        if (!number) continue;
        bits.put(3, 2);
        bits.put(static_cast<unsigned>(*number), kNumberBits);
    }
    return bits.take();
}

}  // namespace gsve::encoding
