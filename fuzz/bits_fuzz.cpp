// Any bytes as a coded unit: what is read from it stays inside, and what is written is read again.

#include "captions/bits.h"
#include "encoding/start_codes.h"
#include "input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace gsve;
    const std::span<const uint8_t> unit(data, size);

    size_t end = 0;
    for (const encoding::Section& section : encoding::sections(unit)) {
        GSVE_FUZZ_REQUIRE(section.begin >= end && section.begin < section.end && section.end <= size);
        GSVE_FUZZ_REQUIRE(!section.bytes.empty());
        end = section.end;
        const std::vector<uint8_t> rbsp = encoding::rbsp_of(section.bytes, 1);
        const std::vector<uint8_t> nal = encoding::make_nal(section.bytes.first(1), rbsp);
        const std::vector<encoding::Section> again = encoding::sections(nal);
        GSVE_FUZZ_REQUIRE(again.size() == 1 && encoding::rbsp_of(again[0].bytes, 1) == rbsp);
    }

    end = 0;
    for (const encoding::Section& nal : encoding::nal_units(unit)) {
        GSVE_FUZZ_REQUIRE(nal.begin >= end && nal.begin < nal.end && nal.end <= size && !nal.bytes.empty());
        end = nal.end;
    }

    captions::BitReader reader(unit);
    captions::BitWriter writer;
    for (int n = 0; !reader.exhausted(); n++) {
        const size_t begin = reader.position();
        const int bits = n % 32 + 1;
        const unsigned value = n % 3 == 0 ? reader.get(bits) : n % 3 == 1 ? reader.unsigned_golomb() : 0;
        const int signed_value = n % 3 == 2 ? reader.signed_golomb() : 0;
        if (reader.overrun()) break;
        if (n % 3 == 0) writer.put(value, bits);
        if (n % 3 == 1) writer.put_unsigned_golomb(value);
        if (n % 3 == 2) writer.put_signed_golomb(signed_value);
        GSVE_FUZZ_REQUIRE(writer.position() == reader.position() && reader.position() > begin);
    }
    const size_t written = writer.position() / 8;
    const std::vector<uint8_t> bytes = writer.take();
    GSVE_FUZZ_REQUIRE(std::equal(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(written), data));
    return 0;
}
