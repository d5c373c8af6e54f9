#pragma once

// What an encoder owes its host: every item that it was given, less the losses at the bounds that its
// interface states. A model of the queues with serial numbers in the place of captions.

#include <array>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "support/caption_blocks.h"
#include "support/serial_numbers.h"

namespace gsve::test {

/// The items of one picture.
struct PictureLoad {
    std::optional<Serial> words[2];
    std::vector<Serial> constructs;
    std::optional<Serial> block;
    Bytes block_body;
    std::optional<Serial> timecode;
    std::optional<Serial> tag;
};

/// Where the items of one kind went.
struct Account {
    uint64_t given = 0;
    uint64_t read = 0;
    uint64_t refused = 0;      ///< given while closed, or beyond what one call takes
    uint64_t overflowed = 0;   ///< the oldest of a full queue
    uint64_t replaced = 0;     ///< by a later one for the same picture
    uint64_t left_behind = 0;  ///< on pictures that were in the codec at its end, or whose turn never came
    uint64_t not_carried = 0;  ///< by this codec, with these services, or on a picture of this type
    uint64_t elsewhere = 0;    ///< tags that only the unit of another picture showed, under a divider

    uint64_t accounted() const {
        return read + refused + overflowed + replaced + left_behind + not_carried + elsewhere;
    }
    Account& operator+=(const Account& other) {
        for (uint64_t Account::*field :
             {&Account::given, &Account::read, &Account::refused, &Account::overflowed, &Account::replaced,
              &Account::left_behind, &Account::not_carried, &Account::elsewhere})
            this->*field += other.*field;
        return *this;
    }
};

struct Accounts {
    Account words[2], constructs, blocks, timecodes, tags;

    std::array<Account*, 6> all() { return {&words[0], &words[1], &constructs, &blocks, &timecodes, &tags}; }
    Accounts& operator+=(Accounts other) {
        for (size_t i = 0; i < all().size(); i++) *all()[i] += *other.all()[i];
        return *this;
    }
};

inline constexpr std::array<Kind, 6> kKinds = {kField1, kField2, kConstruct, kBlock, kTimecode, kTag};

class IntakeModel {
public:
    /// Nothing is padding.
    void word(bool open, unsigned field, std::optional<Serial> serial) {
        if (serial) accounts.words[field].given++;
        if (!open) {
            if (serial) accounts.words[field].refused++;
            return;
        }
        auto& queue = words_[field];
        while (!queue.empty() && !queue.front()) queue.pop_front();
        if (queue.size() > 32) word_overflows++;
        while (queue.size() > 32) {
            if (queue.front()) accounts.words[field].overflowed++;
            queue.pop_front();
        }
        queue.push_back(serial);
    }

    /// Nothing is a construct that is none of CEA-708.
    void constructs(bool open, const std::vector<std::optional<Serial>>& batch) {
        const auto count = [&](uint64_t Account::*where, const std::optional<Serial>& serial) {
            if (serial) accounts.constructs.*where += 1;
        };
        for (const auto& serial : batch) count(&Account::given, serial);
        if (!open) {
            for (const auto& serial : batch) count(&Account::refused, serial);
            return;
        }
        if (batch.size() > 256) construct_truncations++;
        if (constructs_.size() > 192) construct_overflows++;
        for (; constructs_.size() > 192; constructs_.pop_front())
            count(&Account::overflowed, constructs_.front());
        for (size_t i = 0; i < batch.size(); i++) {
            if (i < 256)
                constructs_.push_back(batch[i]);
            else
                count(&Account::refused, batch[i]);
        }
    }

    /// An empty body cancels the one that waits.
    void block(Serial serial, const Bytes& body) {
        if (!body.empty()) accounts.blocks.given++;
        if (body.size() > 1024) {
            accounts.blocks.refused++;
            return;
        }
        if (block_) accounts.blocks.replaced++;
        block_.reset();
        if (!body.empty()) block_ = serial;
        block_body_ = body;
    }

    void timecode(Serial serial) { replace(timecode_, serial, accounts.timecodes); }
    void tag(Serial serial) { replace(tag_, serial, accounts.tags); }

    /// The encoder was closed: a tag lasts as long as the run.
    void close() {
        if (tag_) accounts.tags.left_behind++;
        tag_.reset();
    }

    /// One picture's share. `number` counts the pictures taken since the encoder was opened.
    PictureLoad take(const Rate& rate, uint64_t number) {
        PictureLoad load;
        for (const unsigned field : {0u, 1u}) {
            if (rate.whole() > 39 && number % 2 != field) continue;
            if (words_[field].empty()) continue;
            load.words[field] = words_[field].front();
            words_[field].pop_front();
        }
        const unsigned room = cc_count(rate) - (rate.real() >= 49.0 ? 1 : 2);
        while (load.constructs.size() < room && !constructs_.empty()) {
            if (constructs_.front()) load.constructs.push_back(*constructs_.front());
            constructs_.pop_front();
        }
        std::swap(load.block, block_);
        load.block_body = block_body_;
        std::swap(load.timecode, timecode_);
        std::swap(load.tag, tag_);
        return load;
    }

    /// Counts what still waits as left behind.
    void end() {
        for (const unsigned field : {0u, 1u})
            for (const auto& word : words_[field])
                if (word) accounts.words[field].left_behind++;
        for (const auto& construct : constructs_)
            if (construct) accounts.constructs.left_behind++;
        accounts.blocks.left_behind += block_.has_value();
        accounts.timecodes.left_behind += timecode_.has_value();
        close();
    }

    Accounts accounts;
    uint64_t word_overflows = 0;  ///< each of these counts has its line on standard error
    uint64_t construct_overflows = 0;
    uint64_t construct_truncations = 0;

private:
    static void replace(std::optional<Serial>& waiting, Serial serial, Account& account) {
        account.given++;
        if (waiting) account.replaced++;
        waiting = serial;
    }

    std::deque<std::optional<Serial>> words_[2];
    std::deque<std::optional<Serial>> constructs_;
    std::optional<Serial> block_;
    Bytes block_body_;
    std::optional<Serial> timecode_;
    std::optional<Serial> tag_;
};

}  // namespace gsve::test
