#include "mcc.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <span>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

#include "cc_data.h"
#include "cdp.h"
#include "text_file.h"
#include "timed_lines.h"

namespace gsve::captions {

namespace {

struct Abbreviation {
    char letter;
    int repeat;
    std::string_view bytes;
};
using namespace std::string_view_literals;
constexpr Abbreviation kAbbreviations[] = {
    {'G', 1, "\xFA\0\0"sv},     {'H', 2, "\xFA\0\0"sv},     {'I', 3, "\xFA\0\0"sv},
    {'J', 4, "\xFA\0\0"sv},     {'K', 5, "\xFA\0\0"sv},     {'L', 6, "\xFA\0\0"sv},
    {'M', 7, "\xFA\0\0"sv},     {'N', 8, "\xFA\0\0"sv},     {'O', 9, "\xFA\0\0"sv},
    {'P', 1, "\xFB\x80\x80"sv}, {'Q', 1, "\xFC\x80\x80"sv}, {'R', 1, "\xFD\x80\x80"sv},
    {'S', 1, "\x96\x69"sv},     {'T', 1, "\x61\x01"sv},     {'U', 1, "\xE1\0\0\0"sv},
    {'Z', 1, "\0"sv},
};

struct TimecodeRate {
    std::string_view name;
    FrameRate usual;
    bool drop_frame;
};
constexpr TimecodeRate kTimecodeRates[] = {
    {"24", kRate23_976, false}, {"25", kRate25, false}, {"30", kRate29_97, false},
    {"30DF", kRate29_97, true}, {"50", kRate50, false}, {"60", kRate59_94, false},
    {"60DF", kRate59_94, true},
};

constexpr std::string_view kFormat = "File Format=MacCaption_MCC V";
constexpr std::string_view kRateKey = "Time Code Rate=";
constexpr std::uint8_t kCaptionDid = 0x61, kCaptionSdid = 0x01;

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

enum class AncillaryFault { kNone, kCount, kNoChecksum, kChecksum };

// User data words of an ancillary packet (SMPTE ST 291: DID, SDID, count, words, checksum), and what is wrong
// with it.
struct Ancillary {
    std::span<const std::uint8_t> data;
    AncillaryFault fault = AncillaryFault::kNone;
    std::string text;
};

Ancillary ancillary_data(std::span<const std::uint8_t> packet) {
    constexpr std::size_t kHeader = 3, kAround = kHeader + 1;
    if (packet.size() < kAround)
        throw std::invalid_argument("the line ends within the ancillary packet's header");
    const std::size_t count = packet[2];
    if (packet.size() == kHeader + count)
        return {packet.subspan(kHeader), AncillaryFault::kNoChecksum,
                "the ancillary packet's checksum is missing"};
    if (packet.size() != count + kAround) {
        // The caption packet knows its own length.
        const std::span<const std::uint8_t> rest = packet.subspan(kHeader);
        const std::size_t own = rest.size() > 2 ? std::min<std::size_t>(rest[2], rest.size()) : rest.size();
        return {rest.first(own), AncillaryFault::kCount,
                fmt::format("the ancillary packet's count byte says {} bytes, {} are given", count,
                            packet.size() - kAround)};
    }
    Ancillary whole{packet.subspan(kHeader, count), AncillaryFault::kNone, ""};
    const auto expected = static_cast<std::uint8_t>(-zero_sum_checksum(packet.first(packet.size() - 1)));
    if (packet.back() != expected) {
        whole.fault = AncillaryFault::kChecksum;
        whole.text = fmt::format("the ancillary packet's checksum is 0x{:02X}, its bytes need 0x{:02X}",
                                 packet.back(), expected);
    }
    return whole;
}

class MccParser {
public:
    MccParser(const std::string& name, const MccReadOptions& options, Report& report)
        : name_(name), options_(options), report_(report) {}

    Schedule parse(std::string_view text) {
        const std::vector<std::string> lines = split_lines(text, name_);
        const std::string_view format = lines.empty() ? "" : trim(lines[0]);
        if (format != fmt::format("{}1.0", kFormat) && format != fmt::format("{}2.0", kFormat))
            throw FileError(name_, 1,
                            fmt::format("not an MCC file: the first line must be \"{}1.0\" or \"{}2.0\"",
                                        kFormat, kFormat));
        std::vector<TimedLine> timed;
        for (std::size_t i = 1; i < lines.size(); ++i) {
            const std::string_view line = trim(lines[i]);
            const int number = static_cast<int>(i) + 1;
            if (line.starts_with(kRateKey))
                set_rate(line.substr(kRateKey.size()), number);
            else if (has_captions(line))
                take_line(timed, line, number);
        }
        const std::int64_t day = rate_ ? frames_per_day(rate_->usual, rate_->drop_frame) : 0;
        for (const TimedLine& line : in_order(std::move(timed), day, start_frame_, name_, report_))
            parse_line(line);
        pass_on(left_out_, packets_ > 0, "nothing else is in the file: export it again", report_);
        report_totals();
        return std::move(schedule_);
    }

private:
    // Comments and "Key=value" stand above. What follows the rate and is neither was meant for a time code.
    bool has_captions(std::string_view line) const {
        if (line.empty() || line.starts_with("//")) return false;
        const bool time_code = line[0] >= '0' && line[0] <= '9';
        return time_code || (rate_ != nullptr && line.find('=') == line.npos);
    }

    void set_rate(std::string_view name, int number) {
        const auto rate = std::find_if(std::begin(kTimecodeRates), std::end(kTimecodeRates),
                                       [&](const TimecodeRate& r) { return r.name == name; });
        if (rate == std::end(kTimecodeRates))
            throw FileError(
                name_, number,
                fmt::format("\"{}\" is not a time code rate: use 24, 25, 30, 30DF, 50, 60 or 60DF", name));
        rate_ = rate;
        schedule_.rate = rate->usual;
        if (options_.start) start_frame_ = frame_counted(*options_.start, rate->usual, rate->drop_frame);
    }

    void take_line(std::vector<TimedLine>& lines, std::string_view text, int number) {
        if (rate_ == nullptr)
            throw FileError(
                name_, number,
                fmt::format(
                    "captions begin before the time code rate is known: add a line such as \"{}30DF\" above",
                    kRateKey));
        const std::size_t end = std::min(text.find_first_of(" \t"), text.size());
        try {
            lines.push_back({line_frame(text.substr(0, end)), trim(text.substr(end)), number});
        } catch (const std::invalid_argument& error) {
            leave_out(number, error.what());
        }
    }

    void parse_line(const TimedLine& line) try {
        if (line.data.empty()) throw std::invalid_argument("the line has a time code but no data");
        const std::vector<std::uint8_t> packet = expand_mcc_bytes(line.data);
        const Ancillary ancillary = ancillary_data(packet);
        if (packet[0] == kCaptionDid && packet[1] == kCaptionSdid)
            take_packet(ancillary, line);
        else
            ++ignored_packets_;
        ++packets_;
    } catch (const std::invalid_argument& error) {
        leave_out(line.number, error.what());
    }

    void take_packet(const Ancillary& ancillary, const TimedLine& line) {
        const Cdp cdp = packet_in(ancillary);
        take_rate(cdp);
        add(cdp, line.frame);
        if (ancillary.fault != AncillaryFault::kNone)
            note_fault({true, static_cast<int>(ancillary.fault)}, ancillary.text, line.number);
        for (const CdpDamage& damage : cdp.damage)
            note_fault({false, static_cast<int>(damage.fault)}, damage.text, line.number);
    }

    // Where nothing of it can be used, the outermost fault is the one to name.
    static Cdp packet_in(const Ancillary& ancillary) try {
        return parse_cdp(ancillary.data);
    } catch (const std::invalid_argument&) {
        if (ancillary.fault == AncillaryFault::kNone) throw;
        throw std::invalid_argument(ancillary.text);
    }

    void note_fault(std::pair<bool, int> kind, const std::string& text, int number) {
        Fault& fault = faults_[kind];
        if (fault.lines++ > 0 && fault.first <= number) return;
        fault.first = number;
        fault.text = text;
    }

    void leave_out(int number, std::string_view why) {
        left_out_.add(WarningKind::kFaultyLine, name_, number, fmt::format("{}; the line is left out", why));
    }

    // The packets know 29.97 from 30, the time code does not.
    void take_rate(const Cdp& cdp) {
        if (!rate_is_exact_ && cdp.rate && nominal_rate(*cdp.rate) == nominal_rate(rate_->usual) &&
            (!rate_->drop_frame || has_drop_frame(*cdp.rate)))
            schedule_.rate = *cdp.rate;
        rate_is_exact_ = true;
    }

    std::int64_t line_frame(std::string_view text) const {
        std::string timecode(text.substr(0, text.find_first_of(".,")));
        if (rate_->drop_frame)  // some writers keep ':' and leave the rest to the header
            std::replace(
                timecode.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(8, timecode.size())),
                timecode.end(), ':', ';');
        return timecode_to_frame(parse_timecode(timecode, rate_->usual), rate_->usual);
    }

    void add(const Cdp& cdp, std::int64_t frame) {
        const CcData cc = parse_cc_data(cdp.cc_data);
        wrong_parity_ += static_cast<std::size_t>(cc.parity_errors);
        if (frame >= 0)
            append(schedule_, frame, cc.captions);
        else
            ++before_start_;
    }

    void report_totals() {
        for (const auto& [kind, fault] : faults_)
            report_.add(WarningKind::kFaultyLine, name_, fault.first,
                        fmt::format("{}; what is whole of the line is kept{}", fault.text,
                                    fault.lines > 1 ? fmt::format(", and of {} with the same fault",
                                                                  counted(fault.lines - 1, "other line"))
                                                    : ""));
        if (ignored_packets_ > 0)
            report_.add(WarningKind::kIgnoredData, name_, 0,
                        fmt::format("left out: {} with ancillary data other than captions",
                                    counted(ignored_packets_, "line")));
        if (before_start_ > 0)
            report_.add(
                WarningKind::kBeforeStart, name_, 0,
                fmt::format("left out: {} before the start of the video", counted(before_start_, "line")));
        if (wrong_parity_ > 0)
            report_.add(WarningKind::kParity, name_, 0,
                        fmt::format("wrong parity of {} is put right", counted(wrong_parity_, "byte pair")));
    }

    // Lines of which a part could be used.
    struct Fault {
        std::size_t lines = 0;
        int first{};
        std::string text;  // of the first one
    };

    const std::string& name_;
    const MccReadOptions& options_;
    Report& report_;
    Report left_out_;
    std::map<std::pair<bool, int>, Fault> faults_;  // those of ancillary packets last
    Schedule schedule_;
    const TimecodeRate* rate_ = nullptr;
    bool rate_is_exact_ = false;
    std::optional<std::int64_t> start_frame_;
    std::size_t packets_ = 0;
    std::size_t ignored_packets_ = 0;
    std::size_t before_start_ = 0;
    std::size_t wrong_parity_ = 0;
};

}  // namespace

std::vector<std::uint8_t> expand_mcc_bytes(std::string_view text) {
    std::vector<std::uint8_t> bytes;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const auto entry = std::find_if(std::begin(kAbbreviations), std::end(kAbbreviations),
                                        [&](const Abbreviation& a) { return a.letter == text[at]; });
        if (entry != std::end(kAbbreviations)) {
            for (int i = 0; i < entry->repeat; ++i)
                bytes.insert(bytes.end(), entry->bytes.begin(), entry->bytes.end());
            continue;
        }
        const int high = hex_value(text[at]);
        const int low = at + 1 < text.size() ? hex_value(text[at + 1]) : -1;
        if (high < 0)
            throw std::invalid_argument(
                fmt::format("'{}' is neither a hexadecimal digit nor an abbreviation", text[at]));
        if (low < 0)
            throw std::invalid_argument(
                fmt::format("the hexadecimal digit '{}' has no second one", text[at]));
        bytes.push_back(static_cast<std::uint8_t>(high << 4 | low));
        ++at;
    }
    return bytes;
}

Schedule parse_mcc(std::string_view text, const std::string& name, const MccReadOptions& options,
                   Report& report) {
    return MccParser(name, options, report).parse(text);
}

Schedule read_mcc(const std::string& path, const MccReadOptions& options, Report& report) {
    return parse_mcc(read_file(path), path, options, report);
}

}  // namespace gsve::captions
