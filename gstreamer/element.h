#pragma once

// The element gsveenc.

#include <gst/video/gstvideoencoder.h>

namespace gsve::gstreamer {

/// Registers the element. It ranks below the usual encoders, so that no pipeline that chooses by itself
/// changes.
gboolean register_element(GstPlugin* plugin);

}  // namespace gsve::gstreamer
