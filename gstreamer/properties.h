#pragma once

// The encoder's settings as properties of the element: one for each row of the settings' table, with its
// type, range, default and meaning, and the setting's exact key as nick.

#include <glib-object.h>

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "encoding/settings.h"

namespace gsve::gstreamer {

/// The property of a setting: its key in small letters, digits and dashes. "encoder" is called "codec", as
/// the element is an encoder itself, and "name", which all elements have already, "label".
std::string property_name(std::string_view key);

/// Text that names settings as the program's options, with the element's properties in their place.
std::string in_properties(std::string text);

/// Installs one property for each setting, under the ids from 1 on. Returns the first id that is free.
guint install_settings(GObjectClass* object_class);

/// What was given of the settings, by key, in the order of the table. A value object; callers lock it.
class GivenSettings {
public:
    /// Takes a property's value. Returns the setting as the encoder takes it. Throws UsageError where a text
    /// is none that the setting takes, and keeps what was given before.
    encoding::KeyValue set(guint id, const GValue& value);

    /// The property's value: what was given, or the default.
    void get(guint id, GValue& value) const;

    /// All that was given.
    std::vector<encoding::KeyValue> all() const;

    /// What was given for a key; empty: nothing.
    std::string given(std::string_view key) const;

private:
    std::map<guint, std::string> given_;  ///< by property id
};

}  // namespace gsve::gstreamer
