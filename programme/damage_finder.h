#pragma once

// Makes a stream's damage out of what each witness says: the container, the decoder, and the pictures' times.
// None of them alone tells it: decoders conceal, containers flag what a decoder does not miss, and a stream
// that begins between two key pictures has every decoder complain.

#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

#include "programme/damage.h"

namespace gsve::programme {

class DamageFinder {
public:
    /// `frame_seconds`: how long a picture is shown.
    explicit DamageFinder(double frame_seconds) : frame_seconds_(frame_seconds) {}

    /// Hears of every unit whose picture counts as damaged.
    void on_damaged(std::function<void(int64_t)> hear) { on_damaged_ = std::move(hear); }

    struct Sent {
        bool key = false;      ///< decoding may begin here
        bool flagged = false;  ///< by the container: bytes of it, or of the next one, are missing
    };
    /// The next coded unit goes to the decoder. Returns its number, from 0.
    int64_t sent(Sent unit);

    /// What a decoder complained of.
    enum Complaint : unsigned {
        kOfReferences = 1,  ///< pictures that it should have had, as where a stream begins with an open GOP
        kOfData = 2,
    };
    void complained(int64_t unit, unsigned complaints);

    /// The decoder has given a unit up. A decoder with threads reports it some units later: without a number,
    /// it is the first of late that was complained of.
    void refused();
    void refused(int64_t unit);

    struct Shown {
        double begin = 0;      ///< seconds after the first picture
        int64_t missing = 0;   ///< pictures for which there is time since the one before
        bool damaged = false;  ///< as the decoder flags it
    };
    /// The picture that began with `unit` is shown next.
    void shown(int64_t unit, const Shown& picture);

    /// Once everything is shown.
    Damage finish();

    /// After finish(): the data end within the last unit.
    bool last_unit_incomplete() const { return last_incomplete_; }

private:
    struct Unit {
        int64_t number = 0;
        bool key = false, flagged = false, refused = false, shown = false, damaged = false;
        bool after_flagged = false;  ///< the unit before it is flagged
        unsigned complaints = 0;
        double begin = 0;
    };
    struct Gap {
        int64_t before, after;  ///< units of the pictures around it
        DamagedRange range;
    };

    Unit* find(int64_t number);
    static bool is_incomplete(const Unit& unit, const Unit* after);
    bool witnessed(const Gap& gap);
    void settle_first();
    void settle_gaps(int64_t up_to);
    void add(const Unit& unit, DamagedRange::Kind kind, double begin);

    double frame_seconds_;
    std::function<void(int64_t)> on_damaged_;
    std::deque<Unit> units_;  ///< the latest, in coding order
    std::deque<Gap> gaps_;    ///< not known yet to be loss
    int64_t next_ = 0;
    int64_t keys_ = 0;        ///< of the units that were sent
    int64_t first_key_ = -1;  ///< its number; -1: not sent yet
    int64_t second_key_ = -1;
    int64_t settled_shown_ = 0;  ///< pictures of units that left the window
    bool before_shown_ = false;  ///< so was the last one
    bool before_damaged_ = false;
    double before_begin_ = 0;
    double end_ = 0;  ///< of what was shown by units that left the window
    int64_t last_shown_ = -1;
    bool last_incomplete_ = false;
    std::vector<DamagedRange> ranges_;
};

}  // namespace gsve::programme
