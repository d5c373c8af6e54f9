#include "gstreamer/log.h"

#include <map>
#include <mutex>
#include <string_view>

extern "C" {
#include <libavutil/log.h>
}

#include <orb_utils_v4/reference/diagnostics.h>

GST_DEBUG_CATEGORY(gsveenc_debug);

namespace gsve::gstreamer {
namespace {

using orb_utils_v4::reference::exchange_line_taker;
using orb_utils_v4::reference::LineTaker;

thread_local GstObject* speaker = nullptr;

std::mutex codecs_mutex;
std::map<const void*, GstObject*> codecs;

void log(GstDebugLevel level, GstObject* object, std::string_view text) {
    while (text.ends_with('\n')) text.remove_suffix(1);
    if (text.empty()) return;
    GST_CAT_LEVEL_LOG(gsveenc_debug, level, object, "%.*s", static_cast<int>(text.size()), text.data());
}

void take_encoders_line(void* object, const char* text) {
    const std::string_view line = text;
    const bool warns = line.find("WARNING") != line.npos || line.find("BUG") != line.npos;
    log(warns ? GST_LEVEL_WARNING : GST_LEVEL_INFO, static_cast<GstObject*>(object), line);
}

GstDebugLevel level_of(int av_level) {
    if (av_level <= AV_LOG_ERROR) return GST_LEVEL_ERROR;
    if (av_level <= AV_LOG_WARNING) return GST_LEVEL_WARNING;
    if (av_level <= AV_LOG_INFO) return GST_LEVEL_INFO;
    return av_level <= AV_LOG_DEBUG ? GST_LEVEL_DEBUG : GST_LEVEL_TRACE;
}

/// Who says a line: the element whose thread or codec it comes from, or nobody of ours.
GstObject* speaker_of(const void* av_object) {
    if (speaker) return speaker;
    const std::lock_guard lock(codecs_mutex);
    const auto found = codecs.find(av_object);
    return found == codecs.end() ? nullptr : found->second;
}

void take_libavs_line(void* av_object, int av_level, const char* format, va_list arguments) {
    GstObject* const object = speaker_of(av_object);
    if (!object) return av_log_default_callback(av_object, av_level, format, arguments);
    const GstDebugLevel level = level_of(av_level);
    if (level > gst_debug_category_get_threshold(gsveenc_debug)) return;
    constexpr int kLongestLine = 512;
    char line[kLongestLine];
    int print_prefix = 1;
    av_log_format_line2(av_object, av_level, format, arguments, line, sizeof line, &print_prefix);
    log(level, object, line);
}

/// Another plugin that is built on libavcodec has sent its lines to GStreamer's log, ours among them.
bool libavs_lines_are_taken() {
    bool taken = false;
    GSList* const categories = gst_debug_get_all_categories();
    for (const GSList* entry = categories; entry; entry = entry->next)
        taken |= std::string_view(gst_debug_category_get_name(static_cast<GstDebugCategory*>(entry->data))) ==
                 "libav";
    g_slist_free(categories);
    return taken;
}

void take_libavs_lines() {
    static std::once_flag once;
    std::call_once(once, [] {
        if (!libavs_lines_are_taken()) av_log_set_callback(take_libavs_line);
    });
}

}  // namespace

LogScope::LogScope(GstObject* object) : object_before_(speaker) {
    take_libavs_lines();
    const LineTaker before = exchange_line_taker({take_encoders_line, object});
    take_before_ = before.take;
    taker_before_ = before.taker;
    speaker = object;
}

LogScope::~LogScope() {
    speaker = object_before_;
    exchange_line_taker({take_before_, taker_before_});
}

CodecLog::CodecLog(const AVCodecContext* codec, GstObject* object) : codec_(codec) {
    const std::lock_guard lock(codecs_mutex);
    codecs[codec_] = object;
}

CodecLog::~CodecLog() {
    const std::lock_guard lock(codecs_mutex);
    codecs.erase(codec_);
}

}  // namespace gsve::gstreamer
