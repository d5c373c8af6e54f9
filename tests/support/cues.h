#pragma once

// Caption programmes to put into streams.

#include <string>
#include <utility>
#include <vector>

#include "captions/pop_on.h"
#include "captions/report.h"
#include "captions/schedule.h"
#include "captions/subtitles.h"

namespace gsve::test {

inline captions::Cue cue(int begin_ms, int end_ms, const std::string& text) {
    captions::Cue made;
    made.begin_ms = begin_ms;
    made.end_ms = end_ms;
    captions::StyledLine line;
    for (const char character : text) line.push_back({static_cast<char32_t>(character), false});
    made.lines = {line};
    return made;
}

/// Pop-on captions in the first channel of a field: CC1 (0) or CC3 (1).
inline captions::Schedule pop_on(const std::vector<captions::Cue>& cues, int field,
                                 captions::FrameRate rate = captions::kRate29_97) {
    captions::Report report;
    return captions::encode_pop_on(cues, "cues", {.rate = rate, .rows = 2, .field = field}, report);
}

/// The same captions in the field's second channel: bit 3 of a control pair's first byte tells the two apart.
inline captions::Schedule in_second_channel(captions::Schedule schedule) {
    for (captions::Eia608Event& event : schedule.eia608)
        if (captions::is_control(event.word)) event.word = captions::with_parity(event.word | 0x0800);
    return schedule;
}

inline captions::Schedule later(captions::Schedule schedule, int64_t frames) {
    for (captions::Eia608Event& event : schedule.eia608) event.frame += frames;
    return schedule;
}

/// Roll-up captions in CC1, two rows, a row at each of `frames`.
inline captions::Schedule roll_up(const std::vector<std::pair<int64_t, std::string>>& rows) {
    captions::Schedule schedule;
    for (const auto& [first, text] : rows) {
        int64_t frame = first;
        const auto put = [&](captions::Word word) {
            schedule.eia608.push_back({frame++, 0, captions::with_parity(word)});
        };
        for (const captions::Command command : {captions::kRollUp2, captions::kCarriageReturn})
            for (int twice = 0; twice < 2; twice++) put(captions::command_word(command, 0));
        for (size_t at = 0; at < text.size(); at += 2)
            put(captions::make_word(static_cast<uint8_t>(text[at]),
                                    at + 1 < text.size() ? static_cast<uint8_t>(text[at + 1]) : 0));
    }
    return schedule;
}

}  // namespace gsve::test
