#include "programme/packet_log.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <fmt/format.h>

#include "encoding/error.h"

namespace gsve::programme {
namespace {

// On the machines that this runs on, numbers are stored with the lowest byte first.
struct Header {
    uint32_t stream = 0, flags = 0;
    int64_t pts = 0, dts = 0, duration = 0;
    uint32_t size = 0, side_data = 0;
};
struct SideHeader {
    uint32_t type = 0, size = 0;
};

constexpr uint32_t kMostBytes = 1u << 30;  ///< of a packet

}  // namespace

PacketLog::PacketLog(const std::string& path)
    : output_(path), file_(std::fopen(output_.written_path().c_str(), "wb")) {
    if (!file_) fail_to_write(output_.path(), AVERROR(errno));
}

void PacketLog::put(const void* data, size_t size) {
    if (size == 0) return;
    hash_.add({static_cast<const uint8_t*>(data), size});
    bytes_ += size;
    if (std::fwrite(data, 1, size, file_.get()) != size) fail_to_write(output_.path(), AVERROR(errno));
}

void PacketLog::pass(size_t stream, PacketPtr packet) {
    const Header header = {.stream = static_cast<uint32_t>(stream),
                           .flags = static_cast<uint32_t>(packet->flags),
                           .pts = packet->pts,
                           .dts = packet->dts,
                           .duration = packet->duration,
                           .size = static_cast<uint32_t>(packet->size),
                           .side_data = static_cast<uint32_t>(packet->side_data_elems)};
    put(&header, sizeof header);
    for (int n = 0; n < packet->side_data_elems; n++) {
        const AVPacketSideData& data = packet->side_data[n];
        const SideHeader side = {.type = static_cast<uint32_t>(data.type),
                                 .size = static_cast<uint32_t>(data.size)};
        put(&side, sizeof side);
        put(data.data, data.size);
    }
    put(packet->data, static_cast<size_t>(packet->size));
}

void PacketLog::finish() {
    if (std::fclose(file_.release()) != 0) fail_to_write(output_.path(), AVERROR(errno));
    output_.commit();
}

PacketLogReader::PacketLogReader(const std::string& path)
    : path_(path), file_(std::fopen(path.c_str(), "rb")) {
    if (!file_) throw Failure(fmt::format("cannot read {}: {}", path, std::strerror(errno)));
}

void PacketLogReader::get(void* data, size_t size) {
    if (std::fread(data, 1, size, file_.get()) != size)
        throw Failure(fmt::format("{} ends within a packet", path_));
}

PacketPtr PacketLogReader::next() {
    const int first = std::fgetc(file_.get());
    if (first == EOF) return nullptr;
    std::ungetc(first, file_.get());
    Header header;
    get(&header, sizeof header);
    PacketPtr packet = new_packet();
    constexpr uint32_t kMostSideData = 64;
    if (header.size > kMostBytes || header.side_data > kMostSideData)
        throw Failure(fmt::format("{} has a packet that cannot be", path_));
    for (uint32_t n = 0; n < header.side_data; n++) {
        SideHeader side;
        get(&side, sizeof side);
        if (side.size > kMostBytes) throw Failure(fmt::format("{} has a packet that cannot be", path_));
        uint8_t* data =
            av_packet_new_side_data(packet.get(), static_cast<AVPacketSideDataType>(side.type), side.size);
        check_memory(data != nullptr);
        get(data, side.size);
    }
    check_memory(av_grow_packet(packet.get(), static_cast<int>(header.size)) >= 0);
    get(packet->data, header.size);
    packet->stream_index = static_cast<int>(header.stream);
    packet->flags = static_cast<int>(header.flags);
    packet->pts = header.pts;
    packet->dts = header.dts;
    packet->duration = header.duration;
    return packet;
}

}  // namespace gsve::programme
