#include "programme/transport_tables.h"

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <system_error>

namespace gsve::programme {
namespace {

constexpr size_t kPacket = 188;
constexpr uint8_t kSync = 0x47, kProgramAssociation = 0x00, kProgramMap = 0x02;

unsigned bits16(std::span<const uint8_t> bytes, size_t at) {
    return static_cast<unsigned>(bytes[at] << 8 | bytes[at + 1]);
}

/// The part of a packet behind its header and adaptation field.
std::span<const uint8_t> payload_of(std::span<const uint8_t> packet) {
    if (!(packet[3] & 0x10)) return {};
    const size_t begin = packet[3] & 0x20 ? 5 + size_t{packet[4]} : 4;
    return begin < packet.size() ? packet.subspan(begin) : std::span<const uint8_t>();
}

/// The PIDs of the program maps that a program association lists.
void add_maps(std::span<const uint8_t> section, std::set<unsigned>& maps) {
    for (size_t at = 8; at + 8 <= section.size(); at += 4)
        if (bits16(section, at) != 0) maps.insert(bits16(section, at + 2) & 0x1FFF);
}

/// The PIDs that a program map lists more than once.
void add_shared(std::span<const uint8_t> section, std::set<int>& shared) {
    if (section.size() < 12) return;
    std::set<unsigned> seen;
    const size_t end = section.size() - 4;  // the check sum
    for (size_t at = 12 + (bits16(section, 10) & 0xFFF); at + 5 <= end;
         at += 5 + (bits16(section, at + 3) & 0xFFF))
        if (const unsigned pid = bits16(section, at + 1) & 0x1FFF; !seen.insert(pid).second)
            shared.insert(static_cast<int>(pid));
}

}  // namespace

std::vector<int> shared_pids(std::span<const uint8_t> packets) {
    std::set<unsigned> maps;
    std::set<int> shared;
    std::map<unsigned, std::vector<uint8_t>> sections;  // as far as they have come, by PID
    for (size_t at = 0; at + kPacket <= packets.size(); at += kPacket) {
        const std::span<const uint8_t> packet = packets.subspan(at, kPacket);
        if (packet[0] != kSync) return {};
        const unsigned pid = bits16(packet, 1) & 0x1FFF;
        if (pid != 0 && !maps.contains(pid)) continue;
        std::span<const uint8_t> payload = payload_of(packet);
        std::vector<uint8_t>& section = sections[pid];
        if (packet[1] & 0x40) {  // a section begins behind the pointer
            section.clear();
            if (payload.empty() || payload.size() <= 1 + size_t{payload[0]}) continue;
            payload = payload.subspan(1 + size_t{payload[0]});
        } else if (section.empty()) {
            continue;
        }
        section.insert(section.end(), payload.begin(), payload.end());
        if (section.size() < 3) continue;
        const size_t length = 3 + (bits16(section, 1) & 0xFFF);
        if (section.size() < length) continue;
        const auto whole = std::span<const uint8_t>(section).first(length);
        if (pid == 0 && whole[0] == kProgramAssociation) add_maps(whole, maps);
        if (pid != 0 && whole[0] == kProgramMap) add_shared(whole, shared);
        section.clear();
    }
    return {shared.begin(), shared.end()};
}

std::vector<int> shared_pids(const std::string& path) {
    std::error_code none;
    if (!std::filesystem::is_regular_file(path, none)) return {};
    constexpr size_t kSearched = 5000 * kPacket;
    std::vector<uint8_t> bytes(kSearched);
    std::ifstream file(path, std::ios::binary);
    file.read(reinterpret_cast<char*>(bytes.data()), kSearched);
    bytes.resize(static_cast<size_t>(file.gcount()));
    return shared_pids(std::span<const uint8_t>(bytes));
}

}  // namespace gsve::programme
