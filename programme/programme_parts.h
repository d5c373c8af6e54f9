#pragma once

// What every work on a programme begins with: its input, its encoder, its captions and time codes, and the
// output, opened as the job has them.

#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "captions/report.h"
#include "encoding/caption_forms.h"
#include "encoding/caption_track.h"
#include "encoding/picture_encoder.h"
#include "encoding/timecode_track.h"
#include "programme/companions.h"
#include "programme/encode_job.h"
#include "programme/encode_programme.h"
#include "programme/input.h"
#include "programme/output.h"

namespace gsve::programme {

/// What a picture signals, as yet without captions and time code.
encoding::Ancillary signalled_by(const Picture& picture);

class ProgrammeParts {
protected:
    /// Opens the input.
    ProgrammeParts(const EncodeJob& job, Observer& observer);
    ~ProgrammeParts() = default;

    /// In the order in which they are to be called. All throw UsageError and Failure.
    void open_encoder();
    void open_captions();
    void open_timecodes();
    void open_companions(std::map<int, Loudness> loudness);
    void open_output();

    /// Of each track that is to be brought to another: what a first reading of the whole input tells.
    std::map<int, Loudness> measured_loudness();

    /// For who watches, and for the report.
    void note(const std::string& lines);
    void warn(const std::string& line);

    StopRequest stop_request() {
        return [this] { return given_up_ || observer_.stop_reason() != 0; };
    }
    InputOptions input_options() const;
    void open_input_again();
    bool has_files() const { return !job_.captions.files.empty(); }

    EncodeJob job_;  ///< with the number of threads that are used
    Observer& observer_;
    const OutputFormat format_;
    std::atomic<bool> given_up_ = false;  ///< since something failed: what the input still gives is of no use
    std::optional<Input> input_;
    encoding::PictureEncoder encoder_;
    encoding::CaptionForms forms_;
    std::optional<encoding::CaptionTrack> captions_;
    std::string caption_source_ = "none";
    captions::Report caption_report_;
    std::optional<encoding::TimecodeTrack> timecodes_;
    std::string first_timecode_;
    std::optional<CompanionStreams> companions_;
    std::unique_ptr<Output> output_;
    std::string notes_;

private:
    void configure_encoder();
    void check_mux_rate(const Companions& companions);
    void check_mxf_rate() const;
};

}  // namespace gsve::programme
