#include "captions/text_file.h"

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/scratch.h"

namespace gsve::captions {
namespace {

std::string error_of_file(const std::string& path) {
    try {
        read_file(path);
    } catch (const FileError& error) {
        return error.what();
    }
    return "read";
}

TEST(FileError, NamesTheLineWhereThereIsOne) {
    EXPECT_STREQ(FileError("a.scc", 0, "is bad").what(), "a.scc: is bad");
    EXPECT_STREQ(FileError("a.scc", 1, "is bad").what(), "a.scc:1: is bad");
    EXPECT_EQ(FileError("a.scc", 17, "is bad").line(), 17);
}

TEST(PassOn, GivesTheFaultsInTheOrderOfTheirLines) {
    Report faults, report;
    faults.add(WarningKind::kFaultyLine, "a", 3, "third");
    faults.add(WarningKind::kParity, "a", 1, "first");
    faults.add(WarningKind::kFaultyLine, "a", 3, "third, too");
    pass_on(faults, true, "nothing", report);
    EXPECT_EQ(report.lines(), (std::vector<std::string>{"a:1: first", "a:3: third", "a:3: third, too"}));
    EXPECT_EQ(report.warnings()[0].kind, WarningKind::kParity);
}

TEST(PassOn, ThrowsTheFirstFaultWhereNothingIsLeft) {
    Report faults, report;
    EXPECT_NO_THROW(pass_on(faults, false, "nothing", report));
    faults.add(WarningKind::kFaultyLine, "a", 3, "third");
    faults.add(WarningKind::kFaultyLine, "a", 2, "second");
    try {
        pass_on(faults, false, "nothing else", report);
        FAIL() << "accepted";
    } catch (const FileError& error) {
        EXPECT_STREQ(error.what(), "a:2: second (nothing else)");
        EXPECT_EQ(error.line(), 2);
    }
    EXPECT_TRUE(report.empty());
}

TEST(Counted, HasAPluralForAllNumbersButOne) {
    EXPECT_EQ(counted(0, "line"), "0 lines");
    EXPECT_EQ(counted(1, "line"), "1 line");
    EXPECT_EQ(counted(2, "line"), "2 lines");
}

TEST(ReadFile, GivesAllBytesOfAFile) {
    const test::ScratchDirectory directory;
    const std::string path = directory / "bytes";
    for (const std::size_t size : {0U, 1U, 4095U, 4096U, 4097U, 100000U}) {
        std::string bytes(size, '\0');
        for (std::size_t at = 0; at < size; ++at) bytes[at] = static_cast<char>(at * 7 + at / 256);
        std::ofstream(path, std::ios::binary) << bytes;
        EXPECT_EQ(read_file(path), bytes) << size;
    }
}

TEST(ReadFile, SaysWhyItCannot) {
    const test::ScratchDirectory directory;
    const std::string path = directory / "";
    EXPECT_EQ(error_of_file(path), path + ": cannot be read: it is a directory");
    EXPECT_EQ(error_of_file(path + "none"), path + "none: cannot be read: No such file or directory");
}

// Page 0 of a process is not mapped.
TEST(ReadFile, SaysThatReadingFailedAfterOpening) {
    EXPECT_EQ(error_of_file("/proc/self/mem"), "/proc/self/mem: cannot be read: Input/output error");
}

struct LinesCase {
    const char* text;
    std::vector<std::string> lines;
};

class SplitLines : public testing::TestWithParam<LinesCase> {};

TEST_P(SplitLines, TakesEveryKindOfLineEnd) {
    EXPECT_EQ(split_lines(GetParam().text, "a"), GetParam().lines);
}

INSTANTIATE_TEST_SUITE_P(TextFile, SplitLines,
                         testing::Values(LinesCase{"", {}}, LinesCase{"a", {"a"}}, LinesCase{"a\n", {"a"}},
                                         LinesCase{"a\nb\rc\r\nd", {"a", "b", "c", "d"}},
                                         LinesCase{"\n\na\r\r", {"", "", "a", ""}},
                                         LinesCase{"a\n\rb", {"a", "", "b"}},
                                         LinesCase{"a\r\n\r\n", {"a", ""}},
                                         LinesCase{"\xEF\xBB\xBF"
                                                   "a\n\xEF\xBB\xBF",
                                                   {"a", "\xEF\xBB\xBF"}}));

TEST(SplitLines, RefusesBothOrdersOfUtf16) {
    EXPECT_THROW(split_lines("\xFF\xFE"
                             "a",
                             "a"),
                 FileError);
    EXPECT_THROW(split_lines("\xFE\xFF"
                             "a",
                             "a"),
                 FileError);
    EXPECT_EQ(split_lines("\xFF", "a").size(), 1U);
}

TEST(Trim, TakesSpacesAndTabsFromBothEnds) {
    EXPECT_EQ(trim(""), "");
    EXPECT_EQ(trim(" \t "), "");
    EXPECT_EQ(trim("a"), "a");
    EXPECT_EQ(trim("\t a \tb\t "), "a \tb");
}

TEST(LowerCase, ChangesAsciiLettersAlone) {
    EXPECT_EQ(lower_case("@AMZ[`amz{\xC3\x84 09"), "@amz[`amz{\xC3\x84 09");
}

std::string utf8_error_of(const std::string& text) {
    try {
        decode_utf8(text, "a", 7);
    } catch (const FileError& error) {
        return error.what();
    }
    return "accepted";
}

TEST(Utf8, HasTheFirstAndTheLastOfEachLength) {
    const std::pair<char32_t, std::string> characters[] = {
        {0x00, std::string(1, '\0')},  {0x7F, "\x7F"},           {0x80, "\xC2\x80"},
        {0x7FF, "\xDF\xBF"},           {0x800, "\xE0\xA0\x80"},  {0xD7FF, "\xED\x9F\xBF"},
        {0xE000, "\xEE\x80\x80"},      {0xFFFF, "\xEF\xBF\xBF"}, {0x10000, "\xF0\x90\x80\x80"},
        {0x10FFFF, "\xF4\x8F\xBF\xBF"}};
    for (const auto& [character, bytes] : characters) {
        EXPECT_EQ(encode_utf8(std::u32string(1, character)), bytes) << static_cast<unsigned>(character);
        EXPECT_EQ(decode_utf8(bytes, "a", 1), std::u32string(1, character))
            << static_cast<unsigned>(character);
    }
}

TEST(Utf8, ReadsBackWhatItWrote) {
    std::u32string text;
    for (char32_t character = 1; character < 0x110000; character += character < 0x3000 ? 1 : 0x3B)
        if (character < 0xD800 || character >= 0xE000) text.push_back(character);
    EXPECT_EQ(decode_utf8(encode_utf8(text), "a", 1), text);
}

TEST(Utf8, NamesTheByteThatIsNone) {
    const std::string wrong[] = {"\x80",
                                 "\xBF",
                                 "\xC0\x80",
                                 "\xC1\xBF",
                                 "\xE0\x9F\xBF",
                                 "\xED\xA0\x80",
                                 "\xED\xBF\xBF",
                                 "\xF0\x8F\xBF\xBF",
                                 "\xF4\x90\x80\x80",
                                 "\xF7\xBF\xBF\xBF",
                                 "\xF8\x88\x80\x80",
                                 "\xFF",
                                 "\xC3",
                                 "\xE2\x82",
                                 "\xF0\x9F\x98",
                                 "\xC3"
                                 "a",
                                 "\xE2\x82"
                                 "a",
                                 "\xE2"
                                 "a\x82",
                                 "\xF0\x9F\x98"
                                 "a",
                                 "\xC3\xC3"};
    for (const std::string& bytes : wrong) {
        constexpr const char* kDigits = "0123456789ABCDEF";
        const auto lead = static_cast<unsigned char>(bytes[0]);
        EXPECT_EQ(
            utf8_error_of("\xC3\xA9x" + bytes),
            std::string("a:7: the text is not UTF-8 (byte 0x") + kDigits[lead / 16] + kDigits[lead % 16] +
                " after 2 characters): convert the file, for example with iconv -f WINDOWS-1252 -t UTF-8");
    }
}

}  // namespace
}  // namespace gsve::captions
