#pragma once

// Caps and what they mean to the encoder.

#include <gst/video/video.h>

#include <cstdint>
#include <span>
#include <string>

#include "encoding/picture_encoder.h"
#include "gstreamer/owners.h"

namespace gsve::gstreamer {

/// Of the pads' templates.
inline constexpr const char* kSinkCaps = GST_VIDEO_CAPS_MAKE("{ I420, Y42B, Y444, Y41B }");
extern const char* const kSrcCaps;

/// The codec of the first caps that are taken downstream, by its name in the settings; empty: none of them.
/// `wanted`, where not empty, is the only one.
std::string codec_for(const GstCaps* downstream, const std::string& wanted);

/// "h.264 profile" and "h.264 level" as the caps downstream ask for them; empty: nothing asked.
std::string profile_asked(const GstCaps* downstream, const std::string& codec);
std::string level_asked(const GstCaps* downstream, const std::string& codec);

/// Pictures per second; 25 where the caps leave them open.
AVRational frame_rate_of(const GstVideoInfo& info);

encoding::SourceDescription source_of(const GstVideoInfo& info);

/// Width to height of the whole picture.
AVRational display_aspect(const GstVideoInfo& info);

/// The stream's caps, without size and rate. `first_unit` begins the stream, and tells of profile and level;
/// where it is empty, the caps do not.
CapsPtr stream_caps(int codec_id, std::span<const uint8_t> first_unit);

/// A decoder of a higher profile takes a stream of a lower one: where only the former is taken downstream,
/// that is what the stream is called.
void call_by_profile_taken(GstCaps* caps, const GstCaps* downstream);

/// Makes of the source's description that of the pictures of an opened encoder.
void describe_output(GstVideoInfo& info, const encoding::PictureEncoder& encoder);

}  // namespace gsve::gstreamer
