#pragma once

// The element between two pads that the test holds, without a pipeline or a clock around it.

#include <gst/check/gstharness.h>
#include <gst/video/video.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/bytes.h"
#include "support/test_picture.h"

namespace gsve::test {

/// The element puts the first picture here, so that those decoded before it have times, too.
inline constexpr GstClockTime kOrigin = 1000 * 3600 * GST_SECOND;

struct ElementUnit {
    Bytes bytes;
    GstClockTime pts = GST_CLOCK_TIME_NONE, dts = GST_CLOCK_TIME_NONE, duration = GST_CLOCK_TIME_NONE;
    bool key = false;
    bool has_caption_meta = false;

    /// From the first picture's time, in nanoseconds.
    int64_t shown() const { return static_cast<int64_t>(pts - kOrigin); }
    int64_t decoded() const { return static_cast<int64_t>(dts) - static_cast<int64_t>(kOrigin); }
};

struct FreeStructure {
    void operator()(GstStructure* structure) const { gst_structure_free(structure); }
};
using StructurePtr = std::unique_ptr<GstStructure, FreeStructure>;

/// What came to the bus.
struct ElementMessage {
    GstMessageType type;
    std::string name;  ///< of the structure; for errors and warnings, their text
    std::string text;  ///< the structure as text
    StructurePtr structure;
};

struct Source {
    int width = 64, height = 48;
    int rate_num = 30, rate_den = 1;
    std::string format = "I420";
    std::string more = {};  ///< further caps, from a comma on

    std::string caps() const {
        return "video/x-raw, format=" + format + ", width=" + std::to_string(width) +
               ", height=" + std::to_string(height) + ", framerate=" + std::to_string(rate_num) + "/" +
               std::to_string(rate_den) + more;
    }
    GstClockTime time_of(uint64_t picture) const {
        return gst_util_uint64_scale(picture, GST_SECOND * static_cast<guint64>(rate_den),
                                     static_cast<guint64>(rate_num));
    }
    int shift_x() const { return format == "Y444" ? 0 : format == "Y41B" ? 2 : 1; }
    int shift_y() const { return format == "I420" ? 1 : 0; }
};

inline std::string media_type(const std::string& codec) {
    return codec == "mpeg-2" ? "video/mpeg" : codec == "h.264" ? "video/x-h264" : "video/x-h265";
}

using Properties = std::vector<std::pair<std::string, std::string>>;

class HarnessedElement {
public:
    using Change = std::function<void(GstBuffer*)>;

    /// `properties` are written over what makes small pictures quick and reproducible.
    explicit HarnessedElement(const std::string& codec, const Properties& properties = {}, Source source = {})
        : source_(std::move(source)), harness_(gst_harness_new("gsveenc")), bus_(gst_bus_new()) {
        if (!harness_) throw std::runtime_error("there is no gsveenc");
        gst_element_set_bus(harness_->element, bus_);
        for (const auto& [name, value] : Properties{{"bitrate", "1000000"},
                                                    {"maximum-threads", "1"},
                                                    {"adapt", "false"},
                                                    {"h-264-preset", "ultrafast"}})
            set(name, value);
        for (const auto& [name, value] : properties) set(name, value);
        gst_harness_set_sink_caps_str(harness_, codec.empty() ? "ANY" : media_type(codec).c_str());
        if (!source_.format.empty()) gst_harness_set_src_caps_str(harness_, source_.caps().c_str());
    }
    ~HarnessedElement() {
        gst_element_set_bus(harness_->element, nullptr);
        gst_harness_teardown(harness_);
        gst_bus_set_flushing(bus_, TRUE);
        gst_object_unref(bus_);
    }
    HarnessedElement(const HarnessedElement&) = delete;
    HarnessedElement& operator=(const HarnessedElement&) = delete;

    void set(const std::string& name, const std::string& value) {
        gst_util_set_object_arg(G_OBJECT(harness_->element), name.c_str(), value.c_str());
    }

    /// Pictures of another kind from now on.
    void change_source(const Source& source) {
        source_ = source;
        gst_harness_set_src_caps_str(harness_, source.caps().c_str());
    }

    TestPicture picture(unsigned look) const {
        return TestPicture(source_.width, source_.height, source_.shift_x(), source_.shift_y(), look);
    }

    GstBuffer* buffer(uint64_t number) const {
        GstVideoInfo info;
        GstCaps* const caps = gst_caps_from_string(source_.caps().c_str());
        gst_video_info_from_caps(&info, caps);
        gst_caps_unref(caps);
        GstBuffer* const buffer = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&info), nullptr);
        GstVideoFrame frame;
        gst_video_frame_map(&frame, &info, buffer, GST_MAP_WRITE);
        const TestPicture look = picture(static_cast<unsigned>(number));
        const std::vector<uint8_t>* const planes[] = {&look.y, &look.u, &look.v};
        for (int plane = 0; plane < 3; plane++) {
            const int width = GST_VIDEO_FRAME_COMP_WIDTH(&frame, plane);
            for (int row = 0; row < GST_VIDEO_FRAME_COMP_HEIGHT(&frame, plane); row++)
                std::memcpy(static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, plane)) +
                                static_cast<ptrdiff_t>(row) * GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane),
                            planes[plane]->data() + static_cast<ptrdiff_t>(row) * width,
                            static_cast<size_t>(width));
        }
        gst_video_frame_unmap(&frame);
        GST_BUFFER_PTS(buffer) = source_.time_of(number);
        GST_BUFFER_DURATION(buffer) = source_.time_of(number + 1) - source_.time_of(number);
        return buffer;
    }

    GstFlowReturn push(uint64_t number, const Change& change = {}) {
        GstBuffer* const picture = buffer(number);
        if (change) change(picture);
        return gst_harness_push(harness_, picture);
    }

    void push_range(uint64_t begin, uint64_t end) {
        for (uint64_t n = begin; n < end; n++) push(n);
    }

    void end() { gst_harness_push_event(harness_, gst_event_new_eos()); }

    /// The units that have come since the last call.
    std::vector<ElementUnit> take() {
        std::vector<ElementUnit> units;
        while (GstBuffer* const buffer = gst_harness_try_pull(harness_)) {
            GstMapInfo map;
            gst_buffer_map(buffer, &map, GST_MAP_READ);
            units.push_back({Bytes(map.data, map.data + map.size), GST_BUFFER_PTS(buffer),
                             GST_BUFFER_DTS(buffer), GST_BUFFER_DURATION(buffer),
                             !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT),
                             gst_buffer_get_video_caption_meta(buffer) != nullptr});
            gst_buffer_unmap(buffer, &map);
            gst_buffer_unref(buffer);
        }
        return units;
    }

    /// All pictures from 0 on, and the end.
    std::vector<ElementUnit> encode(uint64_t pictures, const Change& change = {}) {
        for (uint64_t n = 0; n < pictures; n++) push(n, change);
        end();
        return take();
    }

    std::vector<ElementMessage> messages(GstMessageType types) {
        std::vector<ElementMessage> found;
        while (GstMessage* const message = gst_bus_pop_filtered(bus_, types)) {
            ElementMessage entry = {GST_MESSAGE_TYPE(message), {}, {}, nullptr};
            const GstStructure* const structure = gst_message_get_structure(message);
            if (structure) {
                entry.structure.reset(gst_structure_copy(structure));
                entry.name = gst_structure_get_name(structure);
                gchar* const text = gst_structure_to_string(structure);
                entry.text = text;
                g_free(text);
            }
            GError* error = nullptr;
            if (entry.type == GST_MESSAGE_ERROR) gst_message_parse_error(message, &error, nullptr);
            if (entry.type == GST_MESSAGE_WARNING) gst_message_parse_warning(message, &error, nullptr);
            if (error) {
                entry.name = error->message;
                g_error_free(error);
            }
            gst_message_unref(message);
            found.push_back(std::move(entry));
        }
        return found;
    }

    std::vector<ElementMessage> messages_named(const std::string& name) {
        std::vector<ElementMessage> named;
        for (ElementMessage& message : messages(GST_MESSAGE_ELEMENT))
            if (message.name == name) named.push_back(std::move(message));
        return named;
    }

    /// A field of the caps of the units so far; empty: there is none.
    std::string caps_field(const std::string& field) const {
        GstCaps* const caps = gst_pad_get_current_caps(harness_->sinkpad);
        if (!caps) return "";
        const GValue* const value = gst_structure_get_value(gst_caps_get_structure(caps, 0), field.c_str());
        std::string text;
        if (value) {
            gchar* const written =
                G_VALUE_HOLDS_STRING(value) ? g_value_dup_string(value) : gst_value_serialize(value);
            text = written;
            g_free(written);
        }
        gst_caps_unref(caps);
        return text;
    }

    GstHarness* harness() const { return harness_; }
    GstElement* element() const { return harness_->element; }
    const Source& source() const { return source_; }

private:
    Source source_;
    GstHarness* harness_;
    GstBus* bus_;
};

}  // namespace gsve::test
