// What GStreamer loads.

#include <gst/gst.h>
#include <gsve.h>

#include "gstreamer/element.h"

#define PACKAGE "gsve"  // for the macro below

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, gsve, "Broadcast video encoder",
                  gsve::gstreamer::register_element, gsve_version, "unknown", "gsve", "gsve")
