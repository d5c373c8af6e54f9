#pragma once

// Captions in packets that are not decoded yet.

#include <cstdint>
#include <span>

#include "av.h"

namespace gsve::cli {

/// Whether streams of the codec may have A/53 captions at all.
bool may_have_captions(AVCodecID codec);

/// Whether a packet has caption user data in it, idle ones included.
bool has_captions(AVCodecID codec, std::span<const uint8_t> packet);

/// Some MPEG-2 streams have the same EIA-608 captions several times: as A/53 cc_data, as SCTE 20 and as "CC"
/// user data. FFmpeg's decoder puts them all into one list, in which every byte pair would then come twice.
/// Where a packet has A/53 data, the others are made unreadable. Throws std::bad_alloc.
void keep_one_kind_of_captions(AVPacket& packet);

}  // namespace gsve::cli
