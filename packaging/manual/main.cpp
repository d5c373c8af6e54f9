// Writes the manual pages and the completion of gsve. usage: gsve_manual README DIRECTORY

#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

#include <fmt/format.h>

#include "cli/parser.h"
#include "packaging/manual/pages.h"

namespace {

std::string read(const char* path) {
    std::ifstream file;
    file.exceptions(std::ios::failbit | std::ios::badbit);
    file.open(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

void write(const std::filesystem::path& path, const std::string& text) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream file;
    file.exceptions(std::ios::failbit | std::ios::badbit);
    file.open(path);
    file << text << std::flush;
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc != 3) {
        fmt::print(stderr, "usage: gsve_manual README DIRECTORY\n");
        return EXIT_FAILURE;
    }
    const gsve::manual::Readme readme(read(argv[1]));
    const std::filesystem::path directory = argv[2];
    std::filesystem::remove_all(directory);  // a command that is gone leaves no page
    gsve::cli::with_parser([&](const CLI::App& program) {
        for (const auto& [file, text] : gsve::manual::pages(program, readme))
            write(directory / "man" / file, text);
        write(directory / "gsve", gsve::manual::bash_completion(program));
    });
    return EXIT_SUCCESS;
} catch (const std::exception& error) {
    fmt::print(stderr, "gsve_manual: {}\n", error.what());
    return EXIT_FAILURE;
}
