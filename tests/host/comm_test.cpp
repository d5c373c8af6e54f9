// The reference host's status packet.

#include <cstdlib>
#include <new>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <orb_utils_v4/comm.h>
#include <orb_utils_v4/reference/comm_packet.h>

// The memory that the packet may still have: allocations before one fails, or -1 for no end.
static thread_local int allocations_before_failure = -1;

// Not inlined, or GCC sees new's malloc meet the library's delete and warns.
[[gnu::noinline]] void* operator new(size_t size) {
    if (allocations_before_failure == 0) throw std::bad_alloc();
    if (allocations_before_failure > 0) allocations_before_failure--;
    if (void* const memory = std::malloc(size)) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { std::free(memory); }

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

TEST(StatusPacket, IsEmptyAtFirst) {
    const comm_socket_v4_packet packet;
    EXPECT_THAT(packet.pairs, IsEmpty());
    EXPECT_EQ(packet.find(""), nullptr);
}

TEST(StatusPacket, KeepsPairsInTheOrderWrittenRepeatedNamesIncluded) {
    comm_socket_v4_packet packet;
    EXPECT_TRUE(comm_socket_v4_packet_write_nv_pair(&packet, "*b", "1"));
    EXPECT_TRUE(comm_socket_v4_packet_write_nv_pairf(&packet, "*a", "%d of %s", 2, "three"));
    EXPECT_TRUE(comm_socket_v4_packet_write_nv_pair(&packet, "*b", ""));
    EXPECT_THAT(packet.pairs, ElementsAre(Pair("*b", "1"), Pair("*a", "2 of three"), Pair("*b", "")));
}

TEST(StatusPacket, CopiesNameAndValue) {
    comm_socket_v4_packet packet;
    std::string name = "name", value = "value";
    ASSERT_TRUE(comm_socket_v4_packet_write_nv_pair(&packet, name.c_str(), value.c_str()));
    name = value = "other";
    EXPECT_THAT(packet.pairs, ElementsAre(Pair("name", "value")));
}

TEST(StatusPacket, FindsTheFirstPairOfAName) {
    comm_socket_v4_packet packet;
    comm_socket_v4_packet_write_nv_pair(&packet, "*enc, active", "first");
    comm_socket_v4_packet_write_nv_pair(&packet, "*enc, active", "second");
    ASSERT_NE(packet.find("*enc, active"), nullptr);
    EXPECT_EQ(*packet.find("*enc, active"), "first");
    EXPECT_EQ(packet.find("*enc"), nullptr);
    EXPECT_EQ(packet.find("*enc, active "), nullptr);
}

TEST(StatusPacket, DoesNotInterpretAPlainValueAsAFormat) {
    comm_socket_v4_packet packet;
    ASSERT_TRUE(comm_socket_v4_packet_write_nv_pair(&packet, "%s", "%n%s%d"));
    EXPECT_THAT(packet.pairs, ElementsAre(Pair("%s", "%n%s%d")));
}

TEST(StatusPacket, FormatsValuesOfAnyLength) {
    for (const size_t length : {0, 1, 127, 128, 255, 256, 1023, 1024, 4095, 4096, 65536, 3'000'000}) {
        comm_socket_v4_packet packet;
        const std::string text(length, 'x');
        ASSERT_TRUE(comm_socket_v4_packet_write_nv_pairf(&packet, "n", "<%s>%u", text.c_str(), 7U)) << length;
        ASSERT_EQ(packet.pairs.size(), 1U);
        EXPECT_EQ(packet.pairs[0].second, "<" + text + ">7") << length;
    }
}

TEST(StatusPacket, RefusesNullArgumentsAndAppendsNothing) {
    comm_socket_v4_packet packet;
    const char* const null_format = nullptr;
    EXPECT_FALSE(comm_socket_v4_packet_write_nv_pair(nullptr, "n", "v"));
    EXPECT_FALSE(comm_socket_v4_packet_write_nv_pair(&packet, nullptr, "v"));
    EXPECT_FALSE(comm_socket_v4_packet_write_nv_pair(&packet, "n", nullptr));
    EXPECT_FALSE(comm_socket_v4_packet_write_nv_pairf(nullptr, "n", "%d", 1));
    EXPECT_FALSE(comm_socket_v4_packet_write_nv_pairf(&packet, nullptr, "%d", 1));
    EXPECT_FALSE(comm_socket_v4_packet_write_nv_pairf(&packet, "n", null_format));
    EXPECT_THAT(packet.pairs, IsEmpty());
}

TEST(StatusPacket, RefusesWhatCannotBeFormattedAndKeepsTheOtherPairs) {
    comm_socket_v4_packet packet;
    ASSERT_TRUE(comm_socket_v4_packet_write_nv_pair(&packet, "kept", "1"));
    // The C locale has no multibyte form of this character.
    EXPECT_FALSE(comm_socket_v4_packet_write_nv_pairf(&packet, "n", "%ls", L"\x20AC"));
    EXPECT_THAT(packet.pairs, ElementsAre(Pair("kept", "1")));
}

TEST(StatusPacket, IsAsItWasWhenMemoryRunsOut) {
    const std::string text(100, 'x');
    int refused = 0;
    for (const bool formatted : {false, true}) {
        for (int allocations = 0;; allocations++) {
            comm_socket_v4_packet packet;
            ASSERT_TRUE(comm_socket_v4_packet_write_nv_pair(&packet, "kept", "1"));
            allocations_before_failure = allocations;
            const bool written =
                formatted ? comm_socket_v4_packet_write_nv_pairf(&packet, text.c_str(), "%s", text.c_str())
                          : comm_socket_v4_packet_write_nv_pair(&packet, text.c_str(), text.c_str());
            allocations_before_failure = -1;
            if (written) {
                EXPECT_THAT(packet.pairs, ElementsAre(Pair("kept", "1"), Pair(text, text)));
                break;
            }
            EXPECT_THAT(packet.pairs, ElementsAre(Pair("kept", "1")));
            refused++;
        }
    }
    EXPECT_EQ(refused, 3 + 4) << "name, value and the list itself; the formatted text besides";
}

}  // namespace
