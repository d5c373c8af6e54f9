#pragma once

// One owner per kind of GStreamer object.

#include <gst/gst.h>
#include <gst/video/video.h>

#include <memory>

namespace gsve::gstreamer {

/// Deleter for objects that a plain function releases.
template <auto kRelease>
struct ReleaseBy {
    template <class Object>
    void operator()(Object* object) const {
        kRelease(object);
    }
};

/// GStreamer has their release in its headers, where each source has one of its own.
struct ReleaseCaps {
    void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
};

struct ReleaseBuffer {
    void operator()(GstBuffer* buffer) const { gst_buffer_unref(buffer); }
};

using BufferPtr = std::unique_ptr<GstBuffer, ReleaseBuffer>;
using CapsPtr = std::unique_ptr<GstCaps, ReleaseCaps>;
using StructurePtr = std::unique_ptr<GstStructure, ReleaseBy<gst_structure_free>>;
using CodecFramePtr = std::unique_ptr<GstVideoCodecFrame, ReleaseBy<gst_video_codec_frame_unref>>;
using CodecStatePtr = std::unique_ptr<GstVideoCodecState, ReleaseBy<gst_video_codec_state_unref>>;
using TextPtr = std::unique_ptr<gchar, ReleaseBy<g_free>>;

}  // namespace gsve::gstreamer
