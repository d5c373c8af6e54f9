#pragma once

// An open encoder whose codec answers by script, for tests that follow one picture byte by byte.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

#include "support/call_log_host.h"
#include "support/scripted_exchange.h"
#include "support/stderr_capture.h"
#include "support/test_picture.h"

namespace gsve::test {

using Settings = std::vector<std::pair<const char*, const char*>>;

inline constexpr uint64_t kAllOnes = UINT64_MAX;

/// Opens `host` with a 64x48 4:2:0 source of 25 pictures/s, unless described otherwise before, and one codec
/// thread; what it says on the way is swallowed.
inline void open_encoder(GeneralStreamingVideoEncoder& host, const char* codec,
                         const Settings& settings = {}) {
    if (host.input_width == 0) describe_source(host, 64, 48, 25, 1);
    configure(host, {{"encoder", codec}, {"bitrate", "1000000"}, {"maximum threads", "1"}, {"enable", "1"}});
    configure(host, settings);
    bool open = false;
    const std::string said = stderr_of([&] { open = host.client_addref(); });
    ASSERT_TRUE(open && host.encoder_open) << host.last_error << "\n" << said;
}

class ScriptedEncoder : public testing::Test {
protected:
    ScriptedEncoder() {
        av_log_set_level(AV_LOG_QUIET);
        surroundings() = Surroundings{};
    }
    ~ScriptedEncoder() override { surroundings() = Surroundings{}; }

    /// Opens the host with the real codec, then lets the script answer.
    void open(const char* codec, const Settings& settings = {}) {
        open_encoder(host, codec, settings);
        surroundings().scripted = true;
    }

    bool write(uint64_t timestamp, int flags = -1) { return write_to(host, timestamp, flags); }
    bool write_to(GeneralStreamingVideoEncoder& encoder, uint64_t timestamp, int flags = -1) {
        return encoder.write_video(picture.y.data(), 64, picture.u.data(), 32, picture.v.data(), 32, flags,
                                   timestamp);
    }

    /// The codec's next answers.
    void script(std::vector<Outcome> outcomes) {
        for (Outcome& outcome : outcomes) surroundings().outcomes.push_back(std::move(outcome));
    }

    const SentPicture& sent(size_t number) const { return surroundings().pictures.at(number); }

    CallLogHost host;
    TestPicture picture{64, 48, 1, 1, 0};
};

}  // namespace gsve::test
