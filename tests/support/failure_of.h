#pragma once

// What work that fails says.

#include <string>

#include "encoding/error.h"

namespace gsve::test {

/// The text of the error of this kind that the function throws; empty: it throws none.
template <class Error, class Function>
std::string error_of(Function function) {
    try {
        function();
    } catch (const Error& error) {
        return error.what();
    }
    return "";
}

/// The text of the Failure.
template <class Function>
std::string failure_of(Function function) {
    return error_of<Failure>(function);
}

/// The text of the UsageError.
template <class Function>
std::string refusal_of(Function function) {
    return error_of<UsageError>(function);
}

}  // namespace gsve::test
