// The tests' own GStreamer: the plugin as it was built, and a registry that nobody else reads.

#include <gst/gst.h>

#include <cstdlib>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/scratch.h"

int main(int argc, char** argv) {
    const gsve::test::ScratchDirectory scratch;
    setenv("GST_REGISTRY", (scratch / "registry.bin").c_str(), 1);
    setenv("GST_PLUGIN_PATH", GSVE_PLUGIN_DIRECTORY, 1);
    testing::InitGoogleMock(&argc, argv);
    gst_init(nullptr, nullptr);
    const int result = RUN_ALL_TESTS();
    gst_deinit();
    return result;
}
