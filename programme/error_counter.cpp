#include "programme/error_counter.h"

#include <atomic>

extern "C" {
#include <libavutil/log.h>
}

namespace gsve::programme {
namespace {

// The callback has no argument of its own, and runs on the decoder's threads.
std::atomic<const void*> watched = nullptr;
std::atomic<uint64_t> count = 0;

void count_error(void* object, int level, const char*, va_list) {
    if (level <= AV_LOG_ERROR && object && object == watched) count++;
}

}  // namespace

ErrorCounter::ErrorCounter() {
    count = 0;
    av_log_set_callback(count_error);
}

ErrorCounter::~ErrorCounter() {
    av_log_set_callback(av_log_default_callback);
    watched = nullptr;
}

void ErrorCounter::watch(const void* object) { watched = object; }

uint64_t ErrorCounter::errors() const { return count; }

}  // namespace gsve::programme
