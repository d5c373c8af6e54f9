#pragma once

// The encoded pictures and what goes with them on their way into the output: sound is made in one thread, and
// the output is written in another.
//
// All that is handed over passes both threads in one line. What is written, and in which order, therefore is
// the same however fast they are.

#include <cstdint>
#include <functional>
#include <utility>
#include <variant>
#include <vector>

#include "encoding/encoded_unit.h"
#include "programme/ahead.h"
#include "programme/av.h"
#include "programme/companions.h"
#include "programme/output.h"

namespace gsve::programme {

class Delivery {
public:
    /// `failed` is called, from another thread, where nothing more can be delivered.
    Delivery(CompanionStreams& companions, Output& output, std::function<void()> failed);

    /// Both throw Failure where something could not be delivered that was handed over before.
    void pass(std::vector<PacketPtr> packets);
    void write(const encoding::EncodedUnit& unit);

    /// Waits until all of it has been written. Throws Failure.
    void finish();

private:
    struct Unit {
        encoding::EncodedUnit unit;
        std::vector<uint8_t> bytes;
    };
    using ReadPackets = std::vector<PacketPtr>;
    using MadePackets = std::vector<std::pair<size_t, PacketPtr>>;

    MadePackets make(ReadPackets packets);
    void write(Unit unit);
    void write(MadePackets packets);

    CompanionStreams& companions_;
    Output& output_;
    Behind<std::variant<Unit, MadePackets>> writing_;
    Behind<std::variant<Unit, ReadPackets>> sound_;
};

}  // namespace gsve::programme
