#pragma once

/// Looks into CEA-708 captions (CTA-708): which services a stream has, and their plain text.
///
/// DTVCC packets are put together from cc_data constructs, service blocks are taken apart, and of each
/// service the characters of the G0 set (and G1, Latin-1) are collected. Windows, pens and timing are not
/// interpreted: a piece of text ends where a window is cleared, hidden, shown, toggled or deleted, at a
/// carriage return, a form feed and the end-of-text code. Characters of G2 and G3 come out as "_".
///
/// Example:
///     DtvccDecoder decoder;
///     for (...) decoder.feed(frame, picture.cea708);
///     decoder.finish();
///     for (const ServiceText& text : decoder.texts()) print(text.service, text.text);

#include <cstdint>
#include <map>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "schedule.h"

namespace gsve::captions {

struct ServiceText {
    int service;         ///< 1 is the primary caption service; up to 63
    std::int64_t frame;  ///< on which its first character arrived
    std::string text;    ///< UTF-8

    friend bool operator==(const ServiceText&, const ServiceText&) = default;
};

class DtvccDecoder {
public:
    /// Takes a picture's constructs in; headers other than 0xFE and 0xFF are passed over.
    void feed(std::int64_t frame, std::span<const Cea708Construct> constructs);

    /// Feeds a whole schedule.
    void feed(const Schedule& schedule);

    /// Ends the texts that are still open.
    void finish();

    /// Service numbers for which a service block was seen.
    const std::set<int>& services() const { return services_; }

    const std::vector<ServiceText>& texts() const { return texts_; }

    /// Packets shorter than their length says, service blocks longer than their packet, and extended service
    /// numbers below 7, which are not allowed.
    int damaged_packets() const { return damaged_packets_; }

private:
    struct Service {
        std::vector<std::uint8_t> codes;  // not yet interpreted
        ServiceText open{};
    };

    void end_packet();
    void interpret(int number, Service& service);
    void end_text(int number, Service& service);

    std::vector<std::uint8_t> packet_;
    std::size_t packet_size_{};
    std::int64_t frame_{};
    std::map<int, Service> open_;
    std::set<int> services_;
    std::vector<ServiceText> texts_;
    int damaged_packets_ = 0;
};

}  // namespace gsve::captions
