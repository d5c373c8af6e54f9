// Where the library's lines go: to standard error, or to a program's own log.

#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <gsve.h>
#include <orb_utils_v4/reference/diagnostics.h>

#include "support/recording_host.h"
#include "support/stderr_capture.h"

namespace gsve::test {
namespace {

using orb_utils_v4::reference::exchange_line_taker;
using testing::HasSubstr;
using testing::Not;

void append(void* taker, const char* text) { *static_cast<std::string*>(taker) += text; }

void open_and_close(const char* codec) {
    RecordingHost host;
    describe_source(host, 176, 144, 25, 1);
    configure(host, {{"encoder", codec}, {"enable", "1"}, {"bitrate", "1000000"}});
    EXPECT_TRUE(host.client_addref()) << host.last_error;
    host.client_unref();
}

TEST(Diagnostics, GoToWhoTakesTheThreadsLines) {
    std::string taken;
    const auto before = exchange_line_taker({append, &taken});
    EXPECT_EQ(stderr_of([] { open_and_close("mpeg-2"); }), "");
    exchange_line_taker(before);
    EXPECT_THAT(taken, HasSubstr("MPEG video init\n"));
    EXPECT_THAT(taken, HasSubstr("Source frame rate 25.000000 (25/1)"));
}

TEST(Diagnostics, GoToStandardErrorWhereNobodyTakesThem) {
    std::string taken;
    const auto before = exchange_line_taker({append, &taken});
    std::string printed;
    std::thread other([&] { printed = stderr_of([] { open_and_close("mpeg-2"); }); });
    other.join();
    exchange_line_taker(before);
    EXPECT_THAT(printed, HasSubstr("MPEG video init\n"));
    EXPECT_EQ(taken, "") << "of another thread";
    EXPECT_THAT(stderr_of([] { open_and_close("mpeg-2"); }), HasSubstr("MPEG video init\n"));
}

TEST(Diagnostics, SilenceLibx265WhichKnowsNoLog) {
    av_log_set_level(AV_LOG_QUIET);
    for (const char* preset : {"", "veryfast"}) {
        std::string taken;
        const auto before = exchange_line_taker({append, &taken});
        RecordingHost host;
        describe_source(host, 176, 144, 25, 1);
        configure(host, {{"encoder", "h.265"}, {"enable", "1"}, {"h.264 preset", preset}});
        EXPECT_EQ(stderr_of([&] {
                      EXPECT_TRUE(host.client_addref()) << host.last_error;
                      host.client_unref();
                  }),
                  "")
            << preset;
        exchange_line_taker(before);
    }
    EXPECT_THAT(stderr_of([] { open_and_close("h.265"); }), HasSubstr("x265 [info]"));
}

}  // namespace
}  // namespace gsve::test
