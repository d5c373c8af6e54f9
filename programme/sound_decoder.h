#pragma once

// A track of sound as samples of one form, on one time line without pauses.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "programme/av.h"
#include "programme/sound_form.h"

namespace gsve::programme {

class SoundDecoder {
public:
    using Sink = std::function<void(AVFrame&)>;

    /// Throws Failure where the stream cannot be decoded.
    explicit SoundDecoder(const AVStream& source);

    /// What the decoder gives.
    SampleForm source_form() const;

    /// What goes to `sink`, until the next call only: samples of this form, at this level. Where the times of
    /// the source leave a pause, they are silent; where it is slower or faster than its times, they are
    /// stretched. `begin`: the place of the first sample; nothing: that of the source's.
    void give(const SampleForm& form, const Level& level, std::optional<int64_t> begin, Sink sink);

    /// Takes the next packet, with times on the input's time line in the source's unit; null: there is none
    /// any more. Throws Failure.
    void push(const AVPacket* packet);

    /// Where the first sample lies, in samples on the input's time line; nothing before it was given.
    std::optional<int64_t> begin() const { return begin_; }

    /// Packets that could not be decoded.
    uint64_t refused() const { return refused_; }

private:
    void decode(const AVPacket* packet);
    void filter(AVFrame* frame);
    void build_graph(const SampleForm& decoded);
    void close_graph();
    void take_filtered();

    const AVStream& source_;
    CodecContextPtr decoder_;
    SampleForm form_;
    Level level_;
    Sink sink_;
    FilterGraphPtr graph_;
    SampleForm decoded_form_;  ///< that graph_ takes
    AVFilterContext* in_ = nullptr;
    AVFilterContext* out_ = nullptr;
    FramePtr frame_ = new_frame();
    FramePtr filtered_ = new_frame();
    std::optional<int64_t> begin_;
    int64_t given_ = 0;  ///< samples
    uint64_t refused_ = 0;
};

/// Two filters of a graph, by which frames go in and come out.
struct GraphEnds {
    AVFilterContext* in = nullptr;
    AVFilterContext* out = nullptr;
};

/// Makes `graph` of a chain of filters that begins with "abuffer" and ends with "abuffersink". Returns 0, or
/// FFmpeg's error.
int make_sound_graph(AVFilterGraph& graph, const std::string& filters, GraphEnds& ends);

}  // namespace gsve::programme
