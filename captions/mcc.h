#pragma once

/// MacCaption files, versions 1.0 and 2.0: one ancillary-data packet of SMPTE ST 334 per frame, with a
/// caption distribution packet inside, in hexadecimal with abbreviations:
///
///     File Format=MacCaption_MCC V1.0
///     Time Code Rate=30DF
///     00:00:00;00<TAB>T52S524F67ZZ72F4QROO7391UC13FFF74ZZAEB4
///
///     G to O   1 to 9 times FA 00 00        P   FB 80 80     Q   FC 80 80     R   FD 80 80
///     S  96 69       T  61 01       U  E1 00 00 00       Z  00
///
/// Version 2.0 may add field and line to the time code ("00:00:00;00.0,9"), which are not needed here.
///
/// Example:
///     Schedule schedule = read_mcc("programme.mcc", {}, report);

#include <optional>
#include <string>
#include <string_view>

#include "report.h"
#include "schedule.h"

namespace gsve::captions {

struct MccReadOptions {
    /// The time code of the video's first picture, counted as the file counts; by default zero.
    std::optional<Timecode> start{};
};

/// Reads a file's text; `name` stands for it in errors and warnings. The schedule's rate is the one in the
/// packets, where it agrees with "Time Code Rate", else the nearest broadcast rate (24 to 23.976, 30 and 60
/// to 29.97 and 59.94). Time codes that begin again go on after midnight. Left out and reported: lines that
/// cannot be read, captions before the start, and ancillary data of other kinds. Of lines whose packet is
/// damaged, by a wrong checksum or a missing footer for example, what is whole is kept, and each fault is
/// reported once. Put right and reported: wrong parity, and the order of the lines. Throws FileError for
/// another kind of file and when the faults leave nothing, and std::invalid_argument for a start time code
/// that the file's counting does not have.
Schedule parse_mcc(std::string_view text, const std::string& name, const MccReadOptions& options,
                   Report& report);

/// Reads the file at `path` likewise.
Schedule read_mcc(const std::string& path, const MccReadOptions& options, Report& report);

/// The bytes of one packet in the file's hexadecimal notation. Throws std::invalid_argument, with a text
/// that names the character, for anything else.
std::vector<std::uint8_t> expand_mcc_bytes(std::string_view text);

}  // namespace gsve::captions
