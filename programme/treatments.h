#pragma once

// What each kind of container does with each kind of stream, as a table for readers.

#include <array>
#include <cstddef>
#include <string_view>
#include <vector>

namespace gsve::programme {

/// The containers that differ in what they take.
enum class Container { kTransportStream, kMp4, kMov, kMatroska, kMxf, kHls, kElementary };

inline constexpr std::array kContainers = {Container::kTransportStream, Container::kMp4, Container::kMov,
                                           Container::kMatroska,        Container::kMxf, Container::kHls};

/// As in the heads of tables: "TS", "MP4", ...
std::string_view name_of(Container container);

enum class Treatment {
    kCarried,    ///< its packets go into the output as they are
    kConverted,  ///< it is encoded anew, in a form that the container takes
    kNamed,      ///< it is left out, and its name said
};

using Treatments = std::array<Treatment, kContainers.size()>;

struct TreatmentRow {
    std::string_view kind;
    Treatments treatments;
};

/// The whole table.
std::vector<TreatmentRow> treatment_rows();

}  // namespace gsve::programme
