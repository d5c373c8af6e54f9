#include "programme/buffer_checker.h"

#include <algorithm>

#include "encoding/coded_unit.h"
#include "encoding/start_codes.h"

namespace gsve::programme {
namespace {

/// H.265 has to have a buffering period, SEI message 0 (ITU-T H.265, D.2.2), where it declares a hypothetical
/// reference decoder, in whichever of its parameter sets.
bool begins_h265_period(std::span<const uint8_t> unit) {
    constexpr int kPrefixSei = 39;
    const auto nals = encoding::nal_units(unit);
    return std::any_of(nals.begin(), nals.end(), [](const encoding::Section& nal) {
        return (nal.bytes[0] >> 1 & 0x3F) == kPrefixSei && nal.bytes.size() > 2 && nal.bytes[2] == 0;
    });
}

}  // namespace

void BufferChecker::unit(std::span<const uint8_t> bytes) {
    const int64_t number = units_++;
    if (encoding::is_mpeg_video(codec_)) placed_ += vbv_.unit(bytes, number);
    if (codec_ == AV_CODEC_ID_H264) placed_ += hrd_.unit(bytes, number);
    if (codec_ == AV_CODEC_ID_HEVC && !periods_) periods_ = begins_h265_period(bytes);
}

BufferVerdict BufferChecker::finish() const {
    using State = BufferVerdict::State;
    BufferVerdict verdict;
    verdict.units = units_;
    verdict.accounts = codec_ == AV_CODEC_ID_H264 ? hrd_.finish() : vbv_.finish();
    if (!verdict.accounts.empty()) {
        verdict.state = State::kChecked;
        verdict.unreadable = units_ - placed_;
    } else if (hrd_.declared()) {
        verdict.state = State::kUntimed;
    } else if (periods_) {
        verdict.state = State::kUnsupported;
    }
    return verdict;
}

}  // namespace gsve::programme
