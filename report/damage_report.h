#pragma once

// What of an input is damaged or missing, in words and as JSON.

#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

#include "programme/damage.h"

namespace gsve::report {

/// "damaged", "missing" or "undecodable".
std::string_view name_of(programme::DamagedRange::Kind kind);

/// One line without its end: how much, and where, as far as it fits. Empty where nothing is.
std::string damage_text(const programme::Damage& damage);

nlohmann::ordered_json damage_json(const programme::Damage& damage);

}  // namespace gsve::report
