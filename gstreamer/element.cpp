#include "gstreamer/element.h"

#include <new>

#include "encoding/error.h"
#include "gstreamer/caps.h"
#include "gstreamer/log.h"
#include "gstreamer/properties.h"
#include "gstreamer/repeater.h"
#include "gstreamer/session.h"

using gsve::gstreamer::CapsPtr;
using gsve::gstreamer::CodecFramePtr;
using gsve::gstreamer::Repeater;
using gsve::gstreamer::Session;

struct GsveEnc {
    GstVideoEncoder parent;
    Session* session;
    Repeater* repeater;
    GstPadChainFunction chain_one;  ///< the base class's
};

struct GsveEncClass {
    GstVideoEncoderClass parent;
};

// NOLINTNEXTLINE: the macro's own casts
G_DEFINE_TYPE(GsveEnc, gsve_enc, GST_TYPE_VIDEO_ENCODER)

namespace {

/// Ids of properties that are no settings, behind those.
guint adapt_id = 0, status_id = 0, longest_repeat_id = 0;

Session& session_of(gpointer object) { return *reinterpret_cast<GsveEnc*>(object)->session; }
Repeater& repeater_of(gpointer object) { return *reinterpret_cast<GsveEnc*>(object)->repeater; }

/// No exception may cross GStreamer's C. `failed` is what it hears instead.
template <class Result, class Body>
Result guarded(gpointer object, Result failed, Body body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        GST_ELEMENT_ERROR(object, RESOURCE, FAILED, ("Memory ran out."), (nullptr));
    } catch (const std::exception& error) {
        GST_ELEMENT_ERROR(object, LIBRARY, FAILED, ("%s", error.what()), (nullptr));
    }
    return failed;
}

void set_property(GObject* object, guint id, const GValue* value, GParamSpec* spec) {
    guarded(object, false, [&] {
        if (id == adapt_id)
            session_of(object).set_adapt(g_value_get_boolean(value));
        else if (id == longest_repeat_id)
            repeater_of(object).set_longest(g_value_get_uint64(value));
        else if (id < adapt_id)
            session_of(object).set_setting(id, *value);
        else
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
        return true;
    });
}

void get_property(GObject* object, guint id, GValue* value, GParamSpec* spec) {
    guarded(object, false, [&] {
        if (id == adapt_id)
            g_value_set_boolean(value, session_of(object).adapt());
        else if (id == status_id)
            g_value_take_boxed(value, session_of(object).status().release());
        else if (id == longest_repeat_id)
            g_value_set_uint64(value, repeater_of(object).longest());
        else if (id < adapt_id)
            session_of(object).get_setting(id, *value);
        else
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
        return true;
    });
}

void finalize(GObject* object) {
    delete reinterpret_cast<GsveEnc*>(object)->session;
    delete reinterpret_cast<GsveEnc*>(object)->repeater;
    G_OBJECT_CLASS(gsve_enc_parent_class)->finalize(object);
}

gboolean start(GstVideoEncoder* encoder) {
    session_of(encoder).start();
    return TRUE;
}

gboolean stop(GstVideoEncoder* encoder) {
    repeater_of(encoder).forget();
    return guarded(encoder, FALSE, [&] {
        session_of(encoder).stop();
        return TRUE;
    });
}

gboolean set_format(GstVideoEncoder* encoder, GstVideoCodecState* state) {
    return guarded(encoder, FALSE, [&] { return session_of(encoder).set_format(state) ? TRUE : FALSE; });
}

GstFlowReturn handle_frame(GstVideoEncoder* encoder, GstVideoCodecFrame* frame) {
    CodecFramePtr owned(frame);
    return guarded(encoder, GST_FLOW_ERROR, [&] { return session_of(encoder).handle(std::move(owned)); });
}

GstFlowReturn finish(GstVideoEncoder* encoder) {
    return guarded(encoder, GST_FLOW_ERROR, [&] { return session_of(encoder).finish(); });
}

/// Repetitions are pictures as any other: the base class gives each a frame.
GstFlowReturn chain(GstPad* pad, GstObject* parent, GstBuffer* buffer) {
    GsveEnc* const enc = reinterpret_cast<GsveEnc*>(parent);
    const GstClockTime duration = session_of(enc).known_picture_duration();
    while (GST_CLOCK_TIME_IS_VALID(duration)) {
        GstBuffer* const repetition = enc->repeater->before(buffer, duration);
        if (!repetition) break;
        const GstFlowReturn flow = enc->chain_one(pad, parent, repetition);
        if (flow == GST_FLOW_OK) continue;
        gst_buffer_unref(buffer);
        return flow;
    }
    if (GST_CLOCK_TIME_IS_VALID(duration) && enc->repeater->is_past(buffer, duration)) {
        gst_buffer_unref(buffer);
        return GST_FLOW_OK;
    }
    enc->repeater->remember(buffer);
    return enc->chain_one(pad, parent, buffer);
}

gboolean flush(GstVideoEncoder* encoder) {
    return guarded(encoder, FALSE, [&] {
        session_of(encoder).flush();
        return TRUE;
    });
}

/// Whether what comes behind an event goes on with what came before. Another source may say the same caps
/// again.
bool begins_anew(GstVideoEncoder* encoder, GstEvent* event) {
    if (GST_EVENT_TYPE(event) == GST_EVENT_FLUSH_STOP) return true;
    if (GST_EVENT_TYPE(event) == GST_EVENT_SEGMENT) {
        const GstSegment* segment = nullptr;
        gst_event_parse_segment(event, &segment);
        return !gst_segment_is_equal(segment, &encoder->input_segment);
    }
    if (GST_EVENT_TYPE(event) != GST_EVENT_CAPS) return false;
    GstCaps* caps = nullptr;
    gst_event_parse_caps(event, &caps);
    GstVideoInfo info;
    return !gst_video_info_from_caps(&info, caps) || !session_of(encoder).has_format(info);
}

/// Pictures of another segment have other times: those of the one before leave first.
gboolean sink_event(GstVideoEncoder* encoder, GstEvent* event) {
    if (begins_anew(encoder, event)) repeater_of(encoder).forget();
    if (GST_EVENT_TYPE(event) == GST_EVENT_SEGMENT) {
        const GstSegment* segment = nullptr;
        gst_event_parse_segment(event, &segment);
        GST_VIDEO_ENCODER_STREAM_LOCK(encoder);
        if (!gst_segment_is_equal(segment, &encoder->input_segment))
            guarded(encoder, GST_FLOW_ERROR, [&] { return session_of(encoder).end_times(); });
        GST_VIDEO_ENCODER_STREAM_UNLOCK(encoder);
    }
    return GST_VIDEO_ENCODER_CLASS(gsve_enc_parent_class)->sink_event(encoder, event);
}

/// 4:1:1 is no format of the codecs'; it has to be told what becomes of it. And where the size or the rate
/// are changed here, what those downstream take says nothing of what comes in.
GstCaps* get_caps(GstVideoEncoder* encoder, GstCaps* filter) {
    return guarded(encoder, static_cast<GstCaps*>(nullptr), [&] {
        const Session& session = session_of(encoder);
        CapsPtr caps(gst_pad_get_pad_template_caps(GST_VIDEO_ENCODER_SINK_PAD(encoder)));
        if (session.given("chroma format").empty())
            caps.reset(gst_caps_from_string(GST_VIDEO_CAPS_MAKE("{ I420, Y42B, Y444 }")));
        const bool changes_pictures =
            !session.given("resize").empty() || !session.given("frame rate limit").empty();
        if (!changes_pictures) return gst_video_encoder_proxy_getcaps(encoder, caps.get(), filter);
        return filter ? gst_caps_intersect_full(filter, caps.get(), GST_CAPS_INTERSECT_FIRST)
                      : caps.release();
    });
}

/// Planes may lie anywhere, with any stride.
gboolean propose_allocation(GstVideoEncoder* encoder, GstQuery* query) {
    gst_query_add_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr);
    return GST_VIDEO_ENCODER_CLASS(gsve_enc_parent_class)->propose_allocation(encoder, query);
}

/// Captions and bars stand in the stream, where they may have moved and been scaled.
gboolean transform_meta(GstVideoEncoder* encoder, GstVideoCodecFrame* frame, GstMeta* meta) {
    const GType api = meta->info->api;
    if (api == GST_VIDEO_CAPTION_META_API_TYPE || api == GST_VIDEO_BAR_META_API_TYPE) return FALSE;
    return GST_VIDEO_ENCODER_CLASS(gsve_enc_parent_class)->transform_meta(encoder, frame, meta);
}

void install_properties(GObjectClass* object_class) {
    constexpr auto kReadWrite =
        static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);
    adapt_id = gsve::gstreamer::install_settings(object_class);
    g_object_class_install_property(
        object_class, adapt_id,
        g_param_spec_boolean(
            "adapt", "adapt",
            "Let the load of the processor coarsen MPEG-2 pictures, as is right on air. Off, the "
            "same pictures give the same bytes.",
            TRUE, kReadWrite));
    status_id = adapt_id + 1;
    g_object_class_install_property(
        object_class, status_id,
        g_param_spec_boxed("status", "status", "What the encoder reports of itself, now.", GST_TYPE_STRUCTURE,
                           static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));
    longest_repeat_id = status_id + 1;
    g_object_class_install_property(
        object_class, longest_repeat_id,
        g_param_spec_uint64("longest-repeat", "longest repeat",
                            "Fill pauses of the pictures of up to so many nanoseconds with the last one, and "
                            "leave out pictures that are as much behind it; 0: neither.",
                            0, G_MAXUINT64, 0, kReadWrite));
}

}  // namespace

static void gsve_enc_class_init(GsveEncClass* enc_class) {
    auto* const object_class = G_OBJECT_CLASS(enc_class);
    object_class->set_property = set_property;
    object_class->get_property = get_property;
    object_class->finalize = finalize;
    install_properties(object_class);

    auto* const element_class = GST_ELEMENT_CLASS(enc_class);
    gst_element_class_set_static_metadata(
        element_class, "Broadcast video encoder", "Codec/Encoder/Video",
        "Encodes to MPEG-2, H.264 or H.265, with captions, time codes, active format and bars",
        "The gsve developers");
    const auto add_pad = [&](const char* name, GstPadDirection direction, const char* text) {
        const CapsPtr caps(gst_caps_from_string(text));
        gst_element_class_add_pad_template(element_class,
                                           gst_pad_template_new(name, direction, GST_PAD_ALWAYS, caps.get()));
    };
    add_pad("sink", GST_PAD_SINK, gsve::gstreamer::kSinkCaps);
    add_pad("src", GST_PAD_SRC, gsve::gstreamer::kSrcCaps);

    auto* const encoder_class = GST_VIDEO_ENCODER_CLASS(enc_class);
    encoder_class->start = start;
    encoder_class->stop = stop;
    encoder_class->set_format = set_format;
    encoder_class->handle_frame = handle_frame;
    encoder_class->finish = finish;
    encoder_class->flush = flush;
    encoder_class->sink_event = sink_event;
    encoder_class->getcaps = get_caps;
    encoder_class->propose_allocation = propose_allocation;
    encoder_class->transform_meta = transform_meta;
}

static void gsve_enc_init(GsveEnc* enc) {
    enc->session = new Session(GST_VIDEO_ENCODER(enc));
    enc->repeater = new Repeater;
    GstPad* const sink = GST_VIDEO_ENCODER_SINK_PAD(enc);
    enc->chain_one = GST_PAD_CHAINFUNC(sink);
    gst_pad_set_chain_function(sink, chain);
}

namespace gsve::gstreamer {

gboolean register_element(GstPlugin* plugin) {
    GST_DEBUG_CATEGORY_INIT(gsveenc_debug, "gsveenc", 0, "broadcast video encoder");
    return gst_element_register(plugin, "gsveenc", GST_RANK_SECONDARY, gsve_enc_get_type());
}

}  // namespace gsve::gstreamer
