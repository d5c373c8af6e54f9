#include "programme/decoder_log.h"

#include <algorithm>
#include <functional>
#include <string_view>

extern "C" {
#include <libavutil/log.h>
}

#include "programme/damage_finder.h"

namespace gsve::programme {
namespace {

// The callback has no argument of its own, and runs on the decoders' threads.
std::mutex logs_mutex;
std::vector<DecoderLog*> logs;

// Lines about pictures that a decoder looks for and has not got.
constexpr std::string_view kAboutReferences[] = {
    "co located POCs unavailable",         "Could not find ref with POC",
    "Missing reference picture",           "mmco: unref short failure",
    "number of reference frames",          "reference picture missing during reorder",
    "warning: first frame is no keyframe",
};

/// Not an error to the decoder, but to who looks at the picture.
constexpr std::string_view kConcealing = "concealing";

unsigned complaint_of(int level, std::string_view format) {
    if (level > AV_LOG_ERROR && !format.starts_with(kConcealing)) return 0;
    const bool about_references =
        std::any_of(std::begin(kAboutReferences), std::end(kAboutReferences),
                    [&](std::string_view head) { return format.starts_with(head); });
    return about_references ? DamageFinder::kOfReferences : DamageFinder::kOfData;
}

}  // namespace

DecoderLog::DecoderLog(Lines lines) : lines_(lines) {
    const std::lock_guard lock(logs_mutex);
    logs.push_back(this);
    av_log_set_callback(hear);
}

DecoderLog::~DecoderLog() {
    const std::lock_guard lock(logs_mutex);
    std::erase(logs, this);
    if (logs.empty()) av_log_set_callback(av_log_default_callback);
}

void DecoderLog::hear(void* object, int level, const char* format, va_list arguments) {
    bool swallowed = false;
    {
        const std::lock_guard lock(logs_mutex);
        for (DecoderLog* log : logs) {
            swallowed |= log->lines_ == Lines::kSwallowed;
            if (level > AV_LOG_INFO || !object) continue;
            if (object == log->container_) {
                const std::lock_guard own(log->mutex_);
                log->container_errors_ += level <= AV_LOG_ERROR;
            } else if (*static_cast<const AVClass* const*>(object) == avcodec_get_class()) {
                log->hear_decoder(*static_cast<const AVCodecContext*>(object), level, format);
            }
        }
    }
    if (!swallowed) av_log_default_callback(object, level, format, arguments);
}

void DecoderLog::hear_decoder(const AVCodecContext& decoder, int level, const char* format) {
    const std::less<const char*> before;
    const auto* place = static_cast<const char*>(decoder.opaque);
    if (!place || before(place, places_.data()) || !before(place, places_.data() + places_.size())) return;
    const unsigned complaint = complaint_of(level, format);
    if (complaint == 0) return;
    const std::lock_guard own(mutex_);
    const auto size = static_cast<int64_t>(places_.size());
    const int64_t behind = (latest_ - (place - places_.data())) % size;
    const std::pair said(latest_ - behind, complaint);
    if (complaints_.empty() || complaints_.back() != said) complaints_.push_back(said);
}

void DecoderLog::expect(AVCodecContext& decoder, int64_t unit) {
    const std::lock_guard own(mutex_);
    latest_ = unit;
    decoder.opaque = &places_[static_cast<size_t>(unit) % places_.size()];
}

std::vector<std::pair<int64_t, unsigned>> DecoderLog::take() {
    const std::lock_guard own(mutex_);
    return std::exchange(complaints_, {});
}

void DecoderLog::watch(const AVFormatContext& container) {
    const std::lock_guard lock(logs_mutex);
    container_ = &container;
}

uint64_t DecoderLog::container_errors() const {
    const std::lock_guard own(mutex_);
    return container_errors_;
}

}  // namespace gsve::programme
