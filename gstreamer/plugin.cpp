// What GStreamer loads.

#include <gst/gst.h>

#include "gstreamer/element.h"

#define PACKAGE "gsve"  // for the macro below

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, gsve, "Broadcast video encoder",
                  gsve::gstreamer::register_element, GSVE_VERSION, "unknown", "gsve", "gsve")
