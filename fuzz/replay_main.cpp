// Replays fuzz inputs without libFuzzer: feeds every file named on the command line, and every file in every
// directory named there, to the target's LLVMFuzzerTestOneInput. So the corpus runs as an ordinary test in every
// build, whatever the compiler; a failing check aborts the program after naming the input.
#include "fuzz/FuzzCheck.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

namespace {

std::vector<std::filesystem::path> inputsOf(const std::filesystem::path& argument) {
    if (!std::filesystem::is_directory(argument)) return {argument};
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(argument)) {
        if (entry.is_regular_file()) files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

int main(int argc, char** argv) {
    std::size_t replayed = 0;
    for (int i = 1; i < argc; ++i) {
        for (const std::filesystem::path& file : inputsOf(argv[i])) {
            std::ifstream in(file, std::ios::binary);
            if (!in) {
                std::cerr << "cannot read " << file << '\n';
                return 1;
            }
            // Exactly the file's bytes on the heap, so that a sanitizer build sees any read past them.
            const std::vector<std::uint8_t> input((std::istreambuf_iterator<char>(in)),
                                                  std::istreambuf_iterator<char>());
            std::cerr << "replaying " << file.string() << " (" << input.size() << " bytes)\n";
            LLVMFuzzerTestOneInput(input.data(), input.size());
            ++replayed;
        }
    }
    std::cout << replayed << " inputs replayed\n";
    // An empty corpus means a wrong path, not a passed test.
    return replayed > 0 ? 0 : 1;
}
