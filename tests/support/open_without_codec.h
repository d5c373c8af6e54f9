#pragma once

// What comes in between pictures needs an open encoder and no codec.

#include <gtest/gtest.h>

#include "support/recording_host.h"

namespace gsve::test {

/// An encoder that counts as open with a client, without a codec.
class OpenWithoutCodec : public testing::Test {
protected:
    OpenWithoutCodec() {
        host.encoder_open = true;
        host.refcount = 1;
    }
    ~OpenWithoutCodec() override {
        host.encoder_open = false;
        host.refcount = 0;
    }
    RecordingHost host;
};

}  // namespace gsve::test
