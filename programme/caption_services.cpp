#include "programme/caption_services.h"

#include <fmt/format.h>

namespace gsve::programme {

void SentServices::note(int64_t picture, const captions::PictureWrites& writes) {
    for (int field = 0; field < 2; field++)
        if (writes.words[field]) line21_.feed(picture, field, writes.words[field]);
    if (writes.has_third) line21_.feed(picture, writes.first_field, writes.third);
    dtvcc_.feed(picture, writes.cea708);
}

std::vector<std::string> SentServices::names() const {
    std::vector<std::string> names;
    const auto& channels = line21_.services().captions;
    for (size_t n = 0; n < channels.size(); n++)
        if (channels[n]) names.push_back(fmt::format("CC{}", n + 1));
    for (const int service : dtvcc_.services()) names.push_back(fmt::format("SERVICE{}", service));
    return names;
}

}  // namespace gsve::programme
