#pragma once

// The reference host's status packet: a value that keeps its pairs in the order in which they were written.
// It belongs to the reference comm library alone; another host reads its own packets in its own way.

#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct comm_socket_v4_packet {
    // Out of line, so that a program built on this header finds no constructor in another host's comm library
    // and stops there, instead of handing that library a packet of the wrong shape.
    comm_socket_v4_packet();

    /// The value of the first pair called `name`, or null.
    const std::string* find(std::string_view name) const;

    std::vector<std::pair<std::string, std::string>> pairs;
};
