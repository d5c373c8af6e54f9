#pragma once

// The streams beside the picture on their way from an input to an output: sound, subtitles, data.

#include <cstdint>
#include <string>
#include <vector>

#include "programme/av.h"
#include "programme/input.h"
#include "programme/output.h"

namespace gsve::programme {

class CompanionStreams {
public:
    /// Looks at what the input has read so far: the earliest sound is where the output begins, so that sound
    /// that is heard before the first picture is not lost.
    explicit CompanionStreams(Input& input);

    /// For the output to open with.
    Companions companions() const;

    /// Hands over what the input has read since.
    void pass(Output& output);

private:
    struct Stream {
        int index = 0;  ///< in the input
        const AVStream* source = nullptr;
    };

    const Stream* find(int index) const;
    void place(AVPacket& packet, const Stream& stream) const;

    Input& input_;
    std::vector<Stream> streams_;
    std::vector<PacketPtr> first_;  ///< read before the output was open
    int64_t zero_ = 0;              ///< on the input's time line, where the output's begins
};

}  // namespace gsve::programme
