// Files that appear under their name once they are complete, and the kinds of output.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "encoding/error.h"
#include "programme/output.h"
#include "programme/output_file.h"
#include "support/failure_of.h"
#include "support/media_files.h"
#include "support/scratch.h"

namespace {

using namespace gsve::programme;
using gsve::Failure;
using gsve::encoding::PictureEncoder;
using gsve::test::failure_of;
using gsve::test::read_file;
using gsve::test::write_bytes;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace fs = std::filesystem;

class Writing : public testing::Test {
protected:
    std::string path(const std::string& name) const { return directory / name; }
    std::string part(const std::string& name, int n) const {
        return path("." + name + "." + std::to_string(getpid()) + "-" + std::to_string(n) + ".part");
    }
    std::vector<std::string> files() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(path(""))) names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }
    gsve::test::ScratchDirectory directory;
};

TEST_F(Writing, AFileAppearsUnderItsNameOnceItIsComplete) {
    OutputFile file(path("out.ts"));
    EXPECT_EQ(file.path(), path("out.ts"));
    EXPECT_EQ(file.written_path(), part("out.ts", 0));
    EXPECT_TRUE(fs::exists(file.written_path()));
    EXPECT_FALSE(fs::exists(path("out.ts")));
    write_bytes(file.written_path(), "complete");
    file.commit();
    EXPECT_THAT(files(), ElementsAre("out.ts"));
    EXPECT_EQ(read_file(path("out.ts")), "complete");
}

TEST_F(Writing, AFileThatIsNotCompletedLeavesWhatWasThere) {
    write_bytes(path("out.ts"), "before");
    {
        OutputFile file(path("out.ts"));
        write_bytes(file.written_path(), "half of");
    }
    EXPECT_THAT(files(), ElementsAre("out.ts"));
    EXPECT_EQ(read_file(path("out.ts")), "before");
}

TEST_F(Writing, NewFilesHaveTheModeThatTheProcessGivesThem) {
    const mode_t mask = umask(027);
    write_file(path("out.scc"), "x");
    umask(mask);
    struct stat status = {};
    ASSERT_EQ(stat(path("out.scc").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
}

TEST_F(Writing, ReplacedFilesKeepTheirModeAndTheirLinks) {
    write_bytes(path("target.ts"), "before");
    chmod(path("target.ts").c_str(), 0604);
    fs::create_symlink("target.ts", path("link.ts"));
    const mode_t mask = umask(077);
    write_file(path("link.ts"), "after");
    umask(mask);
    EXPECT_TRUE(fs::is_symlink(path("link.ts")));
    EXPECT_EQ(read_file(path("target.ts")), "after");
    struct stat status = {};
    ASSERT_EQ(stat(path("target.ts").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0604u);
    EXPECT_THAT(files(), ElementsAre("link.ts", "target.ts"));
}

TEST_F(Writing, TemporaryFilesStepAsideForOthers) {
    write_bytes(part("out.ts", 0), "somebody's");
    write_bytes(part("out.ts", 1), "somebody's");
    EXPECT_EQ(OutputFile(path("out.ts")).written_path(), part("out.ts", 2));
    EXPECT_EQ(read_file(part("out.ts", 0)), "somebody's");
    for (int n = 2; n < 100; n++) write_bytes(part("out.ts", n), "");
    EXPECT_THAT(failure_of([&] { OutputFile(path("out.ts")); }), HasSubstr("out.ts: File exists"));
}

TEST_F(Writing, NamesThatCannotBeAreRefused) {
    EXPECT_THAT(failure_of([&] { OutputFile(path(std::string(300, 'n'))); }),
                HasSubstr("File name too long; name another file"));
    EXPECT_THAT(failure_of([&] { OutputFile(path("none/out.ts")); }),
                HasSubstr("none/out.ts: No such file or directory; create its directory"));
    fs::create_symlink("b.ts", path("a.ts"));
    fs::create_symlink("a.ts", path("b.ts"));
    EXPECT_THAT(failure_of([&] { OutputFile(path("a.ts")); }),
                HasSubstr("a.ts: Too many levels of symbolic"));
    EXPECT_THAT(files(), ElementsAre("a.ts", "b.ts"));
}

TEST_F(Writing, AFileIsNotPutInPlaceOfADirectory) {
    {
        OutputFile file(path("out.ts"));
        fs::create_directory(path("out.ts"));
        EXPECT_THAT(failure_of([&] { file.commit(); }), HasSubstr("Is a directory; name a file in it"));
    }
    EXPECT_THAT(files(), ElementsAre("out.ts"));
}

TEST_F(Writing, DevicesAreWrittenAsTheyAre) {
    OutputFile file("/dev/null");
    EXPECT_EQ(file.written_path(), "/dev/null");
    file.commit();
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
    EXPECT_THAT(failure_of([] { write_file("/dev/full", "x"); }),
                HasSubstr("No space left on device; make room"));
    EXPECT_THAT(failure_of([&] { write_file(path(""), "x"); }), HasSubstr("Is a directory"));
}

TEST_F(Writing, ADyingProcessRemovesWhatIsNotComplete) {
    write_file(path("done.ts"), "complete");
    const OutputFile first(path("first.ts")), second(path("second.ts"));
    auto third = std::make_unique<OutputFile>(path("third.ts"));
    third.reset();
    write_bytes(part("third.ts", 0), "another's now");
    EXPECT_EQ(files().size(), 4u);
    remove_temporary_files();
    EXPECT_THAT(files(), ElementsAre(fs::path(part("third.ts", 0)).filename().string(), "done.ts"));
}

TEST_F(Writing, MoreFilesThanADyingProcessKnowsAreRemovedInTheOrdinaryWay) {
    {
        std::vector<std::unique_ptr<OutputFile>> open;
        for (int n = 0; n < 20; n++)
            open.push_back(std::make_unique<OutputFile>(path("out" + std::to_string(n) + ".ts")));
        EXPECT_EQ(files().size(), 20u);
        remove_temporary_files();
        EXPECT_EQ(files().size(), 4u) << "it knows sixteen";
    }
    EXPECT_THAT(files(), IsEmpty());
}

// Kinds of output

gsve::encoding::EncodedUnit unit_of(const std::vector<uint8_t>& bytes) {
    return {bytes, 0, 0, true, 'I', false};
}

TEST_F(Writing, ElementaryStreamsAreTheirUnits) {
    PictureEncoder encoder("out");
    for (const char* name : {"out.m2v", "out.h264", "out.hevc"}) {
        const auto output = open_output(output_format(name), path(name), encoder);
        output->write(unit_of({1, 2, 3}));
        output->write(unit_of({}));
        output->write(unit_of({4}));
        EXPECT_FALSE(fs::exists(path(name)));
        output->finish();
        EXPECT_EQ(read_file(path(name)), "\1\2\3\4") << name;
    }
}

TEST_F(Writing, AnElementaryStreamThatCannotBeWrittenIsAFailure) {
    PictureEncoder encoder("out");
    const OutputFormat format = output_format("out.h264");
    EXPECT_THAT(failure_of([&] { open_output(format, path(""), encoder); }), HasSubstr("Is a directory"));
    const auto full = open_output(format, "/dev/full", encoder);
    full->write(unit_of({1}));  // into the buffer
    EXPECT_THAT(failure_of([&] { full->finish(); }), HasSubstr("No space left on device"));
    const auto larger = open_output(format, "/dev/full", encoder);
    EXPECT_THAT(failure_of([&] { larger->write(unit_of(std::vector<uint8_t>(1 << 20))); }),
                HasSubstr("No space left on device"));
}

TEST(OutputFormat, KnowsContainersThatWantParameterSetsInTheirHeader) {
    const std::vector<std::pair<const char*, bool>> names = {
        {"a.mp4", true}, {"a.mkv", true}, {"a.ts", false}, {"a.h264", false}, {"a.m2v", false}};
    for (const auto& [name, wants] : names)
        EXPECT_EQ(output_format(name).wants_global_header(), wants) << name;
}

}  // namespace
