#include "programme/source_glance.h"

#include <fmt/format.h>

#include "encoding/error.h"
#include "programme/open_input.h"

namespace gsve::programme {

SourceGlance glance_at(const std::string& path) {
    const OpenInput input = open_input(path);
    const int stream = av_find_best_stream(input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (stream < 0) throw Failure(fmt::format("{} has no pictures: name a film", path));
    const AVCodecParameters& picture = *input->streams[stream]->codecpar;
    SourceGlance glance{.width = picture.width, .height = picture.height, .seconds = {}};
    if (input->duration != AV_NOPTS_VALUE)
        glance.seconds = static_cast<double>(input->duration) / AV_TIME_BASE;
    return glance;
}

}  // namespace gsve::programme
