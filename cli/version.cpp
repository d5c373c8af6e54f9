#include "cli/version.h"

#include <fmt/format.h>
#include <gsve.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/version.h>
}

std::string gsve::cli::version() {
    const unsigned codec = avcodec_version();
    return fmt::format("gsve {} (libavcodec {}.{}.{})", gsve_version, AV_VERSION_MAJOR(codec),
                       AV_VERSION_MINOR(codec), AV_VERSION_MICRO(codec));
}
