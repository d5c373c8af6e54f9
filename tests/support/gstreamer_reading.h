#pragma once

// A stream as GStreamer's parsers read it.

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace gsve::test {

/// What GStreamer tells of a picture, in coding order.
struct GStreamerPicture {
    std::optional<int> afd;
    std::optional<GstVideoBarMeta> bars;
    size_t caption_bytes = 0;  ///< of cc_data
    std::string timecode;      ///< empty: none
};

struct GStreamerReading {
    std::string colorimetry;  ///< of the caps
    std::vector<GStreamerPicture> pictures;
};

inline GStreamerPicture picture_of(GstBuffer* buffer) {
    GStreamerPicture picture;
    if (const GstMeta* meta = gst_buffer_get_meta(buffer, GST_VIDEO_AFD_META_API_TYPE))
        picture.afd = reinterpret_cast<const GstVideoAFDMeta*>(meta)->afd;
    if (const GstMeta* meta = gst_buffer_get_meta(buffer, GST_VIDEO_BAR_META_API_TYPE))
        picture.bars = *reinterpret_cast<const GstVideoBarMeta*>(meta);
    if (const GstVideoCaptionMeta* meta = gst_buffer_get_video_caption_meta(buffer))
        picture.caption_bytes = meta->size;
    if (GstVideoTimeCodeMeta* meta = gst_buffer_get_video_time_code_meta(buffer)) {
        const std::unique_ptr<gchar, decltype(&g_free)> text(gst_video_time_code_to_string(&meta->tc),
                                                             g_free);
        picture.timecode = text.get();
    }
    return picture;
}

/// The element that takes a file's container apart; empty for an elementary stream.
inline std::string demultiplexer(const std::string& path) {
    const std::string extension = path.substr(path.rfind('.'));
    if (extension == ".ts") return "tsdemux";
    if (extension == ".mp4" || extension == ".mov") return "qtdemux";
    if (extension == ".mkv") return "matroskademux";
    if (extension == ".mxf") return "mxfdemux";
    return {};
}

/// `parser`: "h264parse" and the like.
inline GStreamerReading read_by_gstreamer(const std::string& path, const std::string& parser) {
    gst_init(nullptr, nullptr);
    GStreamerReading reading;
    GError* error = nullptr;
    const std::string demux = demultiplexer(path);
    const std::string description = "filesrc location=\"" + path + "\" ! " +
                                    (demux.empty() ? "" : demux + " name=d d. ! ") + parser +
                                    " ! appsink name=sink sync=false";
    const std::unique_ptr<GstElement, decltype(&gst_object_unref)> pipeline(
        gst_parse_launch(description.c_str(), &error), gst_object_unref);
    if (!pipeline || error) {
        ADD_FAILURE() << description << ": " << (error ? error->message : "no pipeline")
                      << "; install gstreamer1.0-plugins-bad";
        return reading;
    }
    const std::unique_ptr<GstElement, decltype(&gst_object_unref)> sink(
        gst_bin_get_by_name(GST_BIN(pipeline.get()), "sink"), gst_object_unref);
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    while (GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink.get()), 10 * GST_SECOND)) {
        if (const char* colorimetry = gst_structure_get_string(
                gst_caps_get_structure(gst_sample_get_caps(sample), 0), "colorimetry"))
            reading.colorimetry = colorimetry;
        reading.pictures.push_back(picture_of(gst_sample_get_buffer(sample)));
        gst_sample_unref(sample);
    }
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    return reading;
}

}  // namespace gsve::test
