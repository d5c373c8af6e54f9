#include "programme/caption_inventory.h"

#include <algorithm>
#include <numeric>

#include <fmt/format.h>

#include "captions/cc_data.h"

namespace gsve::programme {
namespace {

/// Collects what one carriage brings, picture by picture.
class CarriageReader {
public:
    CarriageReader(std::string name, std::string where, captions::FrameRate rate)
        : decoder_(rate), parity_(rate) {
        carriage_.name = std::move(name);
        carriage_.where = std::move(where);
        carriage_.schedule.rate = rate;
    }

    /// Picture `number` carries it. The numbers rise, but for "CC", which is read in coding order.
    void present(int64_t number) {
        if (carriage_.units == 0) carriage_.first = carriage_.last = number;
        gaps_ += number > carriage_.last + 1;
        carriage_.first = std::min(carriage_.first, number);
        carriage_.last = std::max(carriage_.last, number);
        carriage_.units++;
    }

    void take(int64_t frame, const captions::PictureCaptions& words) {
        for (int field = 0; field < 2; field++)
            for (const captions::Word word : words.fields[field]) {
                carriage_.pairs += !captions::is_null(word);
                carriage_.parity_errors += !captions::is_null(word) && !captions::has_parity(word);
                decoder_.feed(frame, field, word);
            }
        captions::append(carriage_.schedule, frame, parity_.repair(words));
    }

    void finish(int64_t pictures, bool in_every_picture, std::vector<CaptionCarriage>& carriages) {
        if (carriage_.units == 0) return;
        if (in_every_picture) carriage_.gaps = gaps_;
        carriage_.texts = decoder_.finish(pictures);
        carriage_.text_rows = decoder_.text_rows();
        carriage_.services = decoder_.services();
        carriage_.parity_damage = parity_.damage();
        carriages.push_back(std::move(carriage_));
    }

private:
    CaptionCarriage carriage_;
    captions::Eia608Decoder decoder_;
    captions::ParityRepair parity_;
    int64_t gaps_ = 0;
};

/// Field numbers count in the order of display, as the picture flags it: 1 and 3 are the field that is shown
/// first. Progressive sequences have the flag clear.
captions::PictureCaptions line21_pairs(const std::vector<captions::Scte20Construct>& constructs,
                                       bool top_field_first) {
    captions::PictureCaptions pairs;
    for (const captions::Scte20Construct& construct : constructs) {
        const bool second = (construct.field_number == 2) == top_field_first;
        pairs.fields[second ? 1 : 0].push_back(construct.word);
    }
    return pairs;
}

/// "CC" user data holds the pairs of successive pictures in the order of display, some pictures' worth at a
/// time: the n-th pair of the stream belongs to picture n.
void read_cc(const InspectedStream& stream, CarriageReader& reader) {
    std::vector<size_t> coding_order(stream.pictures.size());
    std::iota(coding_order.begin(), coding_order.end(), 0);
    std::stable_sort(coding_order.begin(), coding_order.end(),
                     [&](size_t a, size_t b) { return stream.pictures[a].unit < stream.pictures[b].unit; });
    int64_t frame = 0;
    for (const size_t number : coding_order) {
        const auto& pairs = stream.pictures[number].captions.cc;
        if (!pairs) continue;
        reader.present(static_cast<int64_t>(number));
        for (const auto& [field_1, field_2] : *pairs) {
            captions::PictureCaptions words;
            words.fields[0] = {field_1};
            words.fields[1] = {field_2};
            reader.take(frame++, words);
        }
    }
}

}  // namespace

CaptionInventory take_inventory(const InspectedStream& stream) {
    CarriageReader a53("A/53", stream.mpeg_video ? "picture user data" : "SEI", stream.rate);
    CarriageReader scte20("SCTE-20", "picture user data", stream.rate);
    CarriageReader cc("CC", "picture user data", stream.rate);
    captions::DtvccDecoder cea708;
    CaptionInventory inventory;

    const auto pictures = static_cast<int64_t>(stream.pictures.size());
    for (int64_t number = 0; number < pictures; number++) {
        const InspectedPicture& picture = stream.pictures[static_cast<size_t>(number)];
        if (picture.captions.cc_data) {
            const captions::CcData data = captions::parse_cc_data(*picture.captions.cc_data);
            a53.present(number);
            a53.take(number, data.captions);
            cea708.feed(number, data.captions.cea708);
        }
        if (picture.captions.scte20) {
            scte20.present(number);
            scte20.take(number, line21_pairs(*picture.captions.scte20, picture.top_field_first));
        }
        inventory.damaged_user_data += picture.captions.damaged;
    }
    read_cc(stream, cc);

    a53.finish(pictures, true, inventory.carriages);
    scte20.finish(pictures, false, inventory.carriages);
    cc.finish(pictures, false, inventory.carriages);
    cea708.finish();
    inventory.cea708_services = cea708.services();
    inventory.cea708_texts = cea708.texts();
    inventory.damaged_cea708_packets = cea708.damaged_packets();
    return inventory;
}

bool same_texts(const CaptionCarriage& a, const CaptionCarriage& b) {
    return std::equal(a.texts.begin(), a.texts.end(), b.texts.begin(), b.texts.end(),
                      [](const captions::TimedText& left, const captions::TimedText& right) {
                          return left.channel == right.channel && left.mode == right.mode &&
                                 left.first_row == right.first_row && left.rows == right.rows;
                      });
}

std::vector<std::string> service_names(const captions::Line21Services& services) {
    std::vector<std::string> names;
    for (size_t n = 0; n < services.captions.size(); n++)
        if (services.captions[n]) names.push_back(fmt::format("CC{}", n + 1));
    for (size_t n = 0; n < services.text.size(); n++)
        if (services.text[n]) names.push_back(fmt::format("T{}", n + 1));
    if (services.extended_data) names.push_back("XDS");
    return names;
}

}  // namespace gsve::programme
