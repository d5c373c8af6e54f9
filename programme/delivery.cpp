#include "programme/delivery.h"

namespace gsve::programme {
namespace {

// A second or so: enough for the pictures of a whole GOP, which a codec may give at once.
constexpr size_t kWaiting = 64;

}  // namespace

Delivery::Delivery(CompanionStreams& companions, Output& output, std::function<void()> failed)
    : companions_(companions),
      output_(output),
      writing_(
          kWaiting, [this](auto what) { std::visit([this](auto& one) { write(std::move(one)); }, what); },
          failed),
      sound_(
          kWaiting,
          [this](auto what) {
              if (auto* packets = std::get_if<ReadPackets>(&what))
                  writing_.put(make(std::move(*packets)));
              else
                  writing_.put(std::get<Unit>(std::move(what)));
          },
          failed) {}

void Delivery::pass(std::vector<PacketPtr> packets) { sound_.put(std::move(packets)); }

void Delivery::write(const encoding::EncodedUnit& unit) {
    sound_.put(Unit{unit, {unit.bytes.begin(), unit.bytes.end()}});
}

void Delivery::finish() {
    sound_.finish();
    writing_.finish();
}

Delivery::MadePackets Delivery::make(ReadPackets packets) {
    MadePackets made;
    companions_.pass(std::move(packets),
                     [&](size_t stream, PacketPtr packet) { made.emplace_back(stream, std::move(packet)); });
    return made;
}

void Delivery::write(Unit unit) {
    unit.unit.bytes = unit.bytes;
    output_.write(unit.unit);
}

void Delivery::write(MadePackets packets) {
    for (auto& [stream, packet] : packets) output_.pass(stream, std::move(packet));
}

}  // namespace gsve::programme
