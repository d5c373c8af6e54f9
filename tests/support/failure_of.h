#pragma once

// What work that fails says.

#include <string>

#include "encoding/error.h"

namespace gsve::test {

/// The text of the Failure that the function throws; empty: it throws none.
template <class Function>
std::string failure_of(Function function) {
    try {
        function();
    } catch (const Failure& failure) {
        return failure.what();
    }
    return "";
}

}  // namespace gsve::test
