#pragma once

// What the encoder and libavcodec say, in GStreamer's log: category "gsveenc".
//
// The encoder's lines come on the thread that calls it, and so are taken for as long as the call lasts. Those
// of libavcodec have one place for the whole process, in which other elements' and the application's end up,
// too, and which can be taken over but not shared: FFmpeg tells nobody who had it before. So it is taken
// once, for good, and only where GStreamer's log does not get those lines already. From then on lines are
// ours where they come during a call, or from a thread of one of our codecs; all others go where FFmpeg
// itself would send them.

#include <gst/gst.h>

GST_DEBUG_CATEGORY_EXTERN(gsveenc_debug);

struct AVCodecContext;

namespace gsve::gstreamer {

/// As long as it lives, what the thread's calls into the encoder say goes to GStreamer's log, as said by
/// `object`.
class LogScope {
public:
    explicit LogScope(GstObject* object);
    ~LogScope();
    LogScope(const LogScope&) = delete;
    LogScope& operator=(const LogScope&) = delete;

private:
    GstObject* object_before_;
    void (*take_before_)(void*, const char*);
    void* taker_before_;
};

/// As long as it lives, what threads of the codec say goes there, too.
class CodecLog {
public:
    CodecLog(const AVCodecContext* codec, GstObject* object);
    ~CodecLog();
    CodecLog(const CodecLog&) = delete;
    CodecLog& operator=(const CodecLog&) = delete;

private:
    const AVCodecContext* codec_;
};

}  // namespace gsve::gstreamer
