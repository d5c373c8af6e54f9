#include "eia608_decoder.h"

#include <algorithm>

#include "parity.h"
#include "text_file.h"

namespace gsve::captions {

namespace {

constexpr std::uint8_t kLastExtendedDataCode = 0x0F;

bool is_tab(Word word) {
    return (first_byte(word) & 0xF7) == 0x17 && second_byte(word) >= 0x21 && second_byte(word) <= 0x23;
}

bool is_mid_row(Word word) {
    return (first_byte(word) & 0xF7) == 0x11 && second_byte(word) >= 0x20 && second_byte(word) <= 0x2F;
}

}  // namespace

std::string_view name_of(CaptionMode mode) {
    constexpr std::string_view kNames[] = {"pop-on", "paint-on", "roll-up"};
    return kNames[static_cast<std::size_t>(mode)];
}

std::string TimedText::text() const {
    std::string text;
    for (const std::string& row : rows) text += (text.empty() ? "" : "\n") + row;
    return text;
}

Eia608Decoder::Eia608Decoder(FrameRate rate) : step_(FieldSlots(rate, 0).step()) {}

void Eia608Decoder::feed(std::int64_t frame, int index, Word word) {
    Field& field = fields_[static_cast<std::size_t>(index)];
    // Where the fields alternate, the other field's pictures may carry null pairs between neighbours.
    if (is_null(word) && step_ == 2) return;
    const bool neighbour = frame - field.newest_frame <= step_;
    const Word repeated = neighbour ? field.newest_control : Word{0};
    field.newest_frame = frame;
    field.newest_control = 0;
    if (is_null(word)) return;

    const Word taken = received(word, repeated);
    parity_errors_ += !has_parity(word);
    if (is_null(taken)) return;

    if (is_control(taken)) {
        field.in_extended_data = false;
        if (taken == repeated) return;
        field.newest_control = taken;
        control(frame, index, taken);
        return;
    }
    if (index == 1 && first_byte(taken) > 0 && first_byte(taken) <= kLastExtendedDataCode) {
        services_.extended_data = true;
        field.in_extended_data = first_byte(taken) != kLastExtendedDataCode;
        return;
    }
    if (field.in_extended_data) return;
    const int channel = index * 2 + field.channel;
    for (const std::uint8_t byte : {first_byte(taken), second_byte(taken)})
        if (byte >= 0x20) put(frame, channel, basic_character(byte));
}

void Eia608Decoder::feed(const Schedule& schedule) {
    for (const Eia608Event& event : schedule.eia608) {
        if (event.idle_before) feed(event.frame, event.field, kNullPair);
        feed(event.frame, event.field, event.word);
        if (event.idle_after) feed(event.frame, event.field, kNullPair);
    }
}

std::vector<TimedText> Eia608Decoder::finish(std::int64_t end_frame) {
    for (int channel = 0; channel < 4; ++channel) {
        close(end_frame, channel);
        end_text_row(channel);
    }
    std::stable_sort(text_rows_.begin(), text_rows_.end(),
                     [](const TextRow& a, const TextRow& b) { return a.frame < b.frame; });
    std::stable_sort(captions_.begin(), captions_.end(),
                     [](const TimedText& a, const TimedText& b) { return a.begin < b.begin; });
    return std::move(captions_);
}

void Eia608Decoder::control(std::int64_t frame, int field, Word word) {
    fields_[static_cast<std::size_t>(field)].channel = first_byte(word) >> 3 & 1;
    const int index = field * 2 + fields_[static_cast<std::size_t>(field)].channel;
    Channel& channel = channels_[static_cast<std::size_t>(index)];
    if (const std::optional<Command> code = command_of(word)) {
        command(frame, index, *code);
    } else if (const std::optional<Preamble> preamble = preamble_of(word)) {
        address(channel, *preamble);
    } else if (is_tab(word) && channel.style == Style::kText) {
        put(frame, index, U' ');
    } else if (is_tab(word)) {
        channel.column = std::min(channel.column + (second_byte(word) & 0x03), kColumns - 1);
    } else if (is_mid_row(word)) {
        put(frame, index, U' ');
    } else if (const char32_t special = special_character(word)) {
        put(frame, index, special == U'\u00A0' ? U' ' : special);
    } else if (const char32_t extended = extended_character(word)) {
        backspace(channel);
        put(frame, index, extended);
    }
}

void Eia608Decoder::command(std::int64_t frame, int index, Command code) {
    Channel& channel = channels_[static_cast<std::size_t>(index)];
    switch (code) {
        case kResumeCaptionLoading: channel.style = Style::kPopOn; break;
        case kResumeDirectCaptioning:
            if (channel.style == Style::kRollUp) close(frame, index);
            channel.style = Style::kPaintOn;
            channel.displayed_mode = CaptionMode::kPaintOn;
            break;
        case kRollUp2:
        case kRollUp3:
        case kRollUp4: select_roll_up(frame, index, code - kRollUp2 + 2); break;
        case kTextRestart: end_text_row(index); [[fallthrough]];
        case kResumeTextDisplay:
            channel.style = Style::kText;
            services_.text[static_cast<std::size_t>(index)] = true;
            return;
        case kBackspace: backspace(channel); break;
        case kDeleteToEndOfRow:
            if (channel.style != Style::kNone && channel.style != Style::kText) {
                Row& row = written_memory(channel)[static_cast<std::size_t>(channel.row - 1)];
                std::fill(row.begin() + std::min(channel.column, kColumns), row.end(), U'\0');
            }
            break;
        case kEraseDisplayedMemory:
            close(frame, index);
            channel.displayed = Memory{};
            break;
        case kEraseNonDisplayedMemory: channel.hidden = Memory{}; break;
        case kCarriageReturn: carriage_return(frame, index); break;
        case kEndOfCaption: end_of_caption(frame, index); break;
        default: break;
    }
    if (channel.style != Style::kNone && channel.style != Style::kText)
        services_.captions[static_cast<std::size_t>(index)] = true;
}

void Eia608Decoder::select_roll_up(std::int64_t frame, int index, int rows) {
    Channel& channel = channels_[static_cast<std::size_t>(index)];
    if (channel.style != Style::kRollUp) {
        close(frame, index);
        channel.displayed = Memory{};
        channel.hidden = Memory{};
        channel.row = kRows;
        channel.column = 0;
    }
    channel.style = Style::kRollUp;
    channel.displayed_mode = CaptionMode::kRollUp;
    // Fewer rows than before: those above the new window leave the screen.
    for (int row = 1; row <= channel.row - rows; ++row) {
        close_row(frame, index, row);
        channel.displayed[static_cast<std::size_t>(row - 1)] = Row{};
    }
    channel.roll_up_rows = rows;
    channel.row = std::max(channel.row, rows);
}

void Eia608Decoder::carriage_return(std::int64_t frame, int index) {
    Channel& channel = channels_[static_cast<std::size_t>(index)];
    if (channel.style == Style::kText) end_text_row(index);
    if (channel.style != Style::kRollUp) return;
    const int top = channel.row - channel.roll_up_rows + 1;
    close_row(frame, index, top);
    for (int row = top; row < channel.row; ++row) {
        const auto at = static_cast<std::size_t>(row - 1);
        channel.displayed[at] = channel.displayed[at + 1];
        channel.row_begin[at] = channel.row_begin[at + 1];
    }
    channel.displayed[static_cast<std::size_t>(channel.row - 1)] = Row{};
    channel.row_begin[static_cast<std::size_t>(channel.row - 1)].reset();
    channel.column = 0;
}

// In roll-up the address moves the whole window to another base row.
void Eia608Decoder::address(Channel& channel, const Preamble& preamble) {
    if (channel.style == Style::kText) return;
    if (channel.style == Style::kRollUp) {
        const int base = std::max(preamble.row, channel.roll_up_rows);
        Memory moved{};
        std::array<std::optional<std::int64_t>, kRows> moved_begin{};
        for (int up = 0; up < channel.roll_up_rows; ++up) {
            const auto from = static_cast<std::size_t>(channel.row - up - 1);
            const auto to = static_cast<std::size_t>(base - up - 1);
            moved[to] = channel.displayed[from];
            moved_begin[to] = channel.row_begin[from];
        }
        channel.displayed = moved;
        channel.row_begin = moved_begin;
        channel.row = base;
    } else {
        channel.row = preamble.row;
    }
    channel.column = preamble.column;
}

void Eia608Decoder::end_of_caption(std::int64_t frame, int index) {
    Channel& channel = channels_[static_cast<std::size_t>(index)];
    close(frame, index);
    std::swap(channel.displayed, channel.hidden);
    channel.style = Style::kPopOn;
    channel.displayed_mode = CaptionMode::kPopOn;
    channel.begin = channel.displayed == Memory{} ? std::nullopt : std::optional(frame);
}

void Eia608Decoder::put(std::int64_t frame, int index, char32_t character) {
    Channel& channel = channels_[static_cast<std::size_t>(index)];
    if (channel.style == Style::kNone) return;
    if (channel.style == Style::kText) {
        if (channel.text_row.empty()) channel.text_begin = frame;
        channel.text_row.push_back(character);
        return;
    }
    channel.column = std::min(channel.column, kColumns - 1);
    const auto row = static_cast<std::size_t>(channel.row - 1);
    written_memory(channel)[row][static_cast<std::size_t>(channel.column++)] = character;
    if (channel.style == Style::kPopOn) return;
    if (!channel.begin) channel.begin = frame;
    if (!channel.row_begin[row]) channel.row_begin[row] = frame;
}

void Eia608Decoder::backspace(Channel& channel) {
    if (channel.style == Style::kText && !channel.text_row.empty()) channel.text_row.pop_back();
    if (channel.column == 0 || channel.style == Style::kNone || channel.style == Style::kText) return;
    --channel.column;
    written_memory(
        channel)[static_cast<std::size_t>(channel.row - 1)][static_cast<std::size_t>(channel.column)] = 0;
}

// Everything that is displayed ends at `frame`. The displayed memory itself stays.
void Eia608Decoder::close(std::int64_t frame, int index) {
    Channel& channel = channels_[static_cast<std::size_t>(index)];
    if (channel.displayed_mode == CaptionMode::kRollUp) {
        for (int row = 1; row <= kRows; ++row) close_row(frame, index, row);
    } else if (channel.begin) {
        TimedText caption{index + 1, channel.displayed_mode, *channel.begin, frame, {}, {}};
        for (int row = 1; row <= kRows; ++row) {
            std::string text = row_text(channel.displayed[static_cast<std::size_t>(row - 1)]);
            if (text.empty()) continue;
            if (caption.rows.empty()) caption.first_row = row;
            caption.rows.push_back(std::move(text));
        }
        if (!caption.rows.empty()) captions_.push_back(std::move(caption));
    }
    channel.begin.reset();
    channel.row_begin.fill(std::nullopt);
}

void Eia608Decoder::close_row(std::int64_t frame, int index, int row) {
    Channel& channel = channels_[static_cast<std::size_t>(index)];
    const auto at = static_cast<std::size_t>(row - 1);
    std::string text = row_text(channel.displayed[at]);
    if (channel.row_begin[at] && !text.empty())
        captions_.push_back(
            {index + 1, CaptionMode::kRollUp, *channel.row_begin[at], frame, row, {std::move(text)}});
    channel.row_begin[at].reset();
}

void Eia608Decoder::end_text_row(int index) {
    Channel& channel = channels_[static_cast<std::size_t>(index)];
    std::string text(trim(encode_utf8(channel.text_row)));
    if (!text.empty()) text_rows_.push_back({index + 1, channel.text_begin, std::move(text)});
    channel.text_row.clear();
}

Eia608Decoder::Memory& Eia608Decoder::written_memory(Channel& channel) {
    return channel.style == Style::kPopOn ? channel.hidden : channel.displayed;
}

std::string Eia608Decoder::row_text(const Row& row) {
    std::u32string text;
    for (const char32_t character : row) text.push_back(character == 0 ? U' ' : character);
    return std::string(trim(encode_utf8(text)));
}

}  // namespace gsve::captions
