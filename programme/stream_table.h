#pragma once

// What each kind of container can do with each kind of stream.

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "programme/av.h"

namespace gsve::programme {

/// The containers that differ in what they take.
enum class Container { kTransportStream, kMp4, kMov, kMatroska, kMxf, kElementary };

inline constexpr std::array kContainers = {Container::kTransportStream, Container::kMp4, Container::kMov,
                                           Container::kMatroska, Container::kMxf};

/// As in the heads of tables: "TS", "MP4", ...
std::string_view name_of(Container container);

enum class Treatment {
    kCarried,    ///< its packets go into the output as they are
    kConverted,  ///< it is encoded anew, in a form that the container takes
    kNamed,      ///< it is left out, and its name said
};

/// A row of the table: streams that are treated alike.
struct StreamKind {
    std::string_view name;
    std::vector<AVCodecID> codecs;
    std::array<Treatment, kContainers.size()> treatments;
};

/// In the order in which the README lists them.
std::span<const StreamKind> stream_kinds();

/// What becomes of a stream that is no picture. Sound of a kind that the table lacks is converted where it
/// can be decoded; everything else that it lacks is named.
Treatment treatment_of(const AVCodecParameters& stream, Container container);

/// The form that a stream is converted to, as FFmpeg's encoder is called.
std::string_view conversion_of(AVMediaType type, Container container);

}  // namespace gsve::programme
