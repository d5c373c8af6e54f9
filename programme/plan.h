#pragma once

// One programme for many machines: what each of them is to encode, decided before any of them begins.
//
// A part begins where the programme as a whole would have an I-picture, and is encoded from some GOPs before
// that, which it throws away, so that the rate control is where the whole programme's would be. Captions are
// placed over the whole programme. Sound is a task of its own, so that it has no joins.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "programme/encode_job.h"
#include "programme/encode_programme.h"

namespace gsve::programme {

/// By which a file is known again.
struct SourceIdentity {
    uint64_t size = 0;     ///< bytes
    int64_t modified = 0;  ///< nanoseconds since 1970
    std::string hash;      ///< of its coded pictures and their times

    friend bool operator==(const SourceIdentity&, const SourceIdentity&) = default;
};

struct Plan {
    std::string software;  ///< that made it: with another, a part may have other bytes
    EncodeJob job;         ///< of the whole programme
    SourceIdentity source;
    captions::FrameRate frame_rate = captions::kRate25;  ///< of the pictures
    uint64_t divider = 1;                                ///< one of so many is encoded
    uint64_t pictures = 0;                               ///< that the encoder is offered
    uint64_t gop = 0;                                    ///< a part begins with one of so many of them
    std::vector<EncodeJob> chunks;                       ///< each with its pictures and captions, in order
    bool has_sound = false;                              ///< or anything else beside the picture
    std::vector<std::string> caption_services;           ///< as playlists name them

    /// Seconds from one encoded picture to the next.
    double period() const { return static_cast<double>(divider) / frame_rate.per_second(); }

    friend bool operator==(const Plan&, const Plan&) = default;
};

/// The word that names the task of the sound.
inline constexpr std::string_view kSoundTask = "sound";

/// Looks at the whole input once. Chunks last so many seconds, in whole GOPs. `plan.software` is the
/// caller's. Throws UsageError for what cannot be divided, with the reason, and Failure.
Plan make_plan(const EncodeJob& job, double chunk_seconds, Observer& observer);

/// Throws UsageError for a job that reads or writes what its plan does not show.
void check_harmless(const EncodeJob& job);

/// Throws Failure where the input is not the one that the plan was made from. Where only its time is another,
/// as a copy's, its coded pictures decide.
void check_source(const Plan& plan);

/// Where the tasks of a plan's file leave what they made: its name without ".json", or with ".d".
std::string work_directory(const std::string& plan_path);

/// In that directory, of a chunk by its number, or of the sound. `task`: "17", or kSoundTask.
std::string manifest_path(const std::string& directory, std::string_view task);
std::string data_path(const std::string& directory, const Plan& plan, std::string_view task);

/// All of a plan's, in order.
std::vector<std::string> tasks_of(const Plan& plan);

}  // namespace gsve::programme
