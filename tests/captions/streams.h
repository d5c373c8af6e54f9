#pragma once

// Streams of captions, picture by picture, and what receivers make of them.

#include <algorithm>
#include <deque>
#include <random>
#include <vector>

#include "captions/eia608_decoder.h"
#include "captions/repacer.h"

namespace gsve::captions {

inline constexpr FrameRate kRates[] = {kRate23_976, kRate24, kRate25,    kRate29_97,
                                       kRate30,     kRate50, kRate59_94, kRate60};

inline Word control(Command command, int field = 0) { return with_parity(command_word(command, field)); }

inline Word text(char a, char b) {
    return with_parity(make_word(static_cast<unsigned char>(a), static_cast<unsigned char>(b)));
}

// One source picture per entry, all at consecutive frames from 0.
using Source = std::vector<PictureCaptions>;

// A field's pair at every slot: mostly text, doubled and single control pairs, equal control pairs with and
// without slack between them, and slack.
class RandomField {
public:
    RandomField(std::mt19937& random, int field, double slack)
        : random_(random), field_(field), slack_(slack) {}

    Word next() {
        if (queued_.empty()) refill();
        const Word word = queued_.front();
        queued_.pop_front();
        return word;
    }

private:
    void refill() {
        if (std::uniform_real_distribution<>(0, 1)(random_) < slack_) {
            queued_.assign(1 + random_() % 4, kNullPair);
            return;
        }
        constexpr Command kCommands[] = {kEndOfCaption, kBackspace, kCarriageReturn};
        const Word word = control(kCommands[random_() % 3], field_);
        switch (random_() % 6) {
            case 0: queued_ = {word, word}; break;
            case 1: queued_ = {word}; break;
            case 2: queued_ = {word, word, kNullPair, word, word}; break;
            case 3: queued_ = {word, kNullPair, word}; break;
            default:
                queued_ = {
                    text(static_cast<char>('A' + serial_ % 26), static_cast<char>('a' + serial_ % 25))};
                serial_++;
        }
    }

    std::mt19937& random_;
    int field_;
    double slack_;
    std::deque<Word> queued_;
    int serial_ = 0;
};

inline Source random_source(FrameRate rate, int pictures, double slack, std::mt19937& random) {
    RandomField fields[] = {{random, 0, slack}, {random, 1, slack}};
    const PictureBudget budget = picture_budget(rate);
    Source source(static_cast<std::size_t>(pictures));
    int serial = 0;
    for (int picture = 0; picture < pictures; ++picture) {
        PictureCaptions& captions = source[static_cast<std::size_t>(picture)];
        for (int field = 0; field < 2; ++field)
            if (FieldSlots(rate, field).on_picture(picture))
                captions.fields[field].push_back(fields[field].next());
        const int constructs =
            static_cast<int>(random() % static_cast<unsigned>(budget.cea708_constructs + 1));
        for (int i = 0; i < constructs; ++i, ++serial)
            captions.cea708.push_back({static_cast<std::uint8_t>(random() % 2 ? 0xFE : 0xFF),
                                       static_cast<std::uint8_t>(serial >> 8),
                                       static_cast<std::uint8_t>(serial)});
    }
    return source;
}

// What a receiver acts upon: a control pair in the slot after an equal one is its repetition.
class Receiver {
public:
    void slot(Word word) {
        const bool repetition = is_control(word) && word == newest_control_;
        newest_control_ = is_control(word) && !repetition ? word : Word{0};
        if (word != 0 && !is_null(word) && !repetition) acted.push_back(word);
    }

    std::vector<Word> acted;

private:
    Word newest_control_ = 0;
};

struct Carried {
    std::vector<Word> pairs[2];
    std::vector<Cea708Construct> cea708;
    Receiver receivers[2];
};

inline Carried carried_by(const Source& source) {
    Carried carried;
    for (std::size_t picture = 0; picture < source.size(); ++picture) {
        for (int field = 0; field < 2; ++field)
            for (const Word word : source[picture].fields[field]) {
                carried.receivers[field].slot(word);
                if (!is_null(word)) carried.pairs[field].push_back(word);
            }
        carried.cea708.insert(carried.cea708.end(), source[picture].cea708.begin(),
                              source[picture].cea708.end());
    }
    return carried;
}

// What is seen when a receiver has the captions of a source.
inline std::vector<TimedText> seen(const Source& source, FrameRate rate) {
    Eia608Decoder decoder(rate);
    for (std::size_t picture = 0; picture < source.size(); ++picture)
        for (int field = 0; field < 2; ++field)
            for (const Word word : source[picture].fields[field])
                decoder.feed(static_cast<std::int64_t>(picture), field, word);
    return decoder.finish(static_cast<std::int64_t>(source.size()));
}

}  // namespace gsve::captions
