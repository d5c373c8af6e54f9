// Runs a fuzz target once over every file that the command line names, or that lies in a directory that it
// names: the seeds as a regression test, and single findings, with any compiler and sanitizer.

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <vector>

#include "input.h"

extern "C" [[gnu::weak]] int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> files_of(const fs::path& path) {
    if (!fs::is_directory(path)) return {path};
    std::vector<fs::path> files;
    for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
        if (entry.is_regular_file()) files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    if (files.empty()) throw std::runtime_error("there is no file in " + path.string());
    return files;
}

void run(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    const std::vector<char> content(std::istreambuf_iterator<char>(stream), {});
    if (!stream) throw std::runtime_error("cannot read " + file.string());
    // Names the input in the log of a run that ends in the middle of it.
    std::fprintf(stderr, "replay: %s\n", file.c_str());
    // Exactly as long as the input: a sanitizer sees one byte read behind it.
    const auto exact = std::make_unique<uint8_t[]>(content.size());
    std::copy(content.begin(), content.end(), exact.get());
    LLVMFuzzerTestOneInput(exact.get(), content.size());
}

}  // namespace

int main(int argc, char** argv) try {
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
    int runs = 0;
    for (int i = 1; i < argc; i++) {
        for (const fs::path& file : files_of(argv[i])) {
            run(file);
            runs++;
        }
    }
    if (runs == 0) throw std::runtime_error("name files or directories of inputs");
    std::fprintf(stderr, "replay: %d inputs\n", runs);
    return EXIT_SUCCESS;
} catch (const std::exception& error) {
    std::fprintf(stderr, "replay: %s\n", error.what());
    return EXIT_FAILURE;
}
