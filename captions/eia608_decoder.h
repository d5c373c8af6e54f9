#pragma once

/// A receiver for line-21 captions (CTA-608), for looking into a stream: byte pairs in, timed text of CC1
/// to CC4 and the rows of T1 to T4 out.
///
/// Pop-on, roll-up (2, 3, 4 rows) and paint-on captions are decoded. Of the text services T1 to T4 the rows
/// are collected as they were written; how long they are shown is up to the receiver. Extended data
/// services are noticed, not decoded. Pop-on and paint-on captions come out as they stood on
/// the screen when they were taken away. Roll-up captions come out row by row: each row once, from its
/// first character until it leaves the screen.
///
/// A byte with wrong parity is shown as a solid block; a control pair with one is ignored, as receivers do.
///
/// Example:
///     Eia608Decoder decoder(kRate29_97);
///     for (...) decoder.feed(frame, field, word);
///     for (const TimedText& caption : decoder.finish(frame_count)) print(caption.text());

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "line21.h"
#include "schedule.h"

namespace gsve::captions {

enum class CaptionMode { kPopOn, kPaintOn, kRollUp };

std::string_view name_of(CaptionMode mode);  ///< "pop-on", "paint-on", "roll-up"

struct TimedText {
    int channel;  ///< 1 to 4, as in CC1 to CC4
    CaptionMode mode;
    std::int64_t begin;             ///< first frame on which it is seen
    std::int64_t end;               ///< first frame on which it is not
    int first_row;                  ///< 1 to 15
    std::vector<std::string> rows;  ///< UTF-8, from top to bottom; rows without text are left out

    std::string text() const;  ///< the rows, separated by '\n'
    friend bool operator==(const TimedText&, const TimedText&) = default;
};

/// A row of a text service, up to its carriage return.
struct TextRow {
    int service;         ///< 1 to 4, as in T1 to T4
    std::int64_t frame;  ///< on which its first character arrived
    std::string text;    ///< UTF-8

    friend bool operator==(const TextRow&, const TextRow&) = default;
};

struct Line21Services {
    std::array<bool, kChannels> captions{};  ///< CC1 to CC4: a caption mode was chosen
    std::array<bool, kChannels> text{};      ///< T1 to T4
    bool extended_data = false;
};

class Eia608Decoder {
public:
    /// `rate` is that of the frame numbers; it tells whether two pairs are neighbours.
    explicit Eia608Decoder(FrameRate rate);

    /// Takes a pair of field 0 or 1 in; frames ascend within a field. Null pairs may be given or left out.
    void feed(std::int64_t frame, int field, Word word);

    /// Feeds a whole schedule of the same rate.
    void feed(const Schedule& schedule);

    /// Ends what is still displayed at `end_frame`, and gives all captions in the order of their begin.
    std::vector<TimedText> finish(std::int64_t end_frame);

    /// The rows of the text services, once finish() has ended them.
    const std::vector<TextRow>& text_rows() const { return text_rows_; }

    const Line21Services& services() const { return services_; }
    int parity_errors() const { return parity_errors_; }

private:
    using Row = std::array<char32_t, kColumns>;  // 0 where nothing was written
    using Memory = std::array<Row, kRows>;

    enum class Style { kNone, kPopOn, kPaintOn, kRollUp, kText };

    struct Channel {
        Style style = Style::kNone;
        CaptionMode displayed_mode = CaptionMode::kPopOn;
        Memory displayed{};
        Memory hidden{};
        std::optional<std::int64_t> begin;                           // of what is displayed, if anything is
        std::array<std::optional<std::int64_t>, kRows> row_begin{};  // roll-up: of each row
        int row = kRows;                                             // 1 to 15
        int column = 0;                                              // 32 after the last column
        int roll_up_rows{};
        std::u32string text_row;    // of the text service
        std::int64_t text_begin{};  // of its first character
    };

    struct Field {
        int channel{};
        Word newest_control{};
        std::int64_t newest_frame{};
        bool in_extended_data = false;
    };

    void control(std::int64_t frame, int field, Word word);
    void command(std::int64_t frame, int index, Command command);
    void select_roll_up(std::int64_t frame, int index, int rows);
    void carriage_return(std::int64_t frame, int index);
    void address(Channel& channel, const Preamble& preamble);
    void end_of_caption(std::int64_t frame, int index);
    void put(std::int64_t frame, int index, char32_t character);
    void backspace(Channel& channel);
    void close(std::int64_t frame, int index);
    void close_row(std::int64_t frame, int index, int row);
    void end_text_row(int index);
    Memory& written_memory(Channel& channel);
    static std::string row_text(const Row& row);

    int step_;
    std::array<Channel, kChannels> channels_;
    std::array<Field, kFields> fields_;
    std::vector<TimedText> captions_;
    std::vector<TextRow> text_rows_;
    Line21Services services_;
    int parity_errors_ = 0;
};

}  // namespace gsve::captions
