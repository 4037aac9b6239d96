// A stand-in for libFuzzer's main where the compiler has none (GCC): runs a
// fuzz target's entry point over seed files and over deterministic variants
// of each seed.
//
// Usage: <target> <file or directory>...
//
// For every seed it runs the seed itself, every prefix of it (a message cut
// short anywhere), and a fixed number of copies with a few bytes overwritten
// by a seeded generator, so the same run always feeds the same inputs. It
// prints how many inputs ran and fails only when no seed was found; a crash
// or a sanitizer report ends the process as it would under libFuzzer.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

constexpr int kCorruptedCopiesPerSeed = 200;
constexpr int kMaxBytesCorrupted = 4;
constexpr std::uint32_t kGeneratorSeed = 20240601;

// Printable JSON punctuation and digits, which reach deeper into the parsers
// than random bytes.
const std::string kInterestingBytes = "{}[]\":,-.0123456789eE \\ntf\x00\xff";

std::size_t runOne(const std::string& input) {
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    return 1;
}

std::size_t runVariants(const std::string& seed, std::mt19937& generator) {
    std::size_t runs = runOne(seed);
    for (std::size_t length = 0; length < seed.size(); ++length) runs += runOne(seed.substr(0, length));
    if (seed.empty()) return runs;
    std::uniform_int_distribution<std::size_t> position(0, seed.size() - 1);
    std::uniform_int_distribution<std::size_t> byte(0, kInterestingBytes.size() - 1);
    std::uniform_int_distribution<int> count(1, kMaxBytesCorrupted);
    for (int copy = 0; copy < kCorruptedCopiesPerSeed; ++copy) {
        std::string variant = seed;
        for (int n = count(generator); n > 0; --n) variant[position(generator)] = kInterestingBytes[byte(generator)];
        runs += runOne(variant);
    }
    return runs;
}

std::vector<std::filesystem::path> seedFiles(int argc, char** argv) {
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path path(argv[i]);
        if (std::filesystem::is_directory(path)) {
            for (const auto& entry : std::filesystem::directory_iterator(path)) {
                if (entry.is_regular_file()) files.push_back(entry.path());
            }
        } else if (std::filesystem::is_regular_file(path)) {
            files.push_back(path);
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::filesystem::path> files = seedFiles(argc, argv);
    if (files.empty()) {
        std::cerr << "no seed files found" << std::endl;
        return 1;
    }
    std::mt19937 generator(kGeneratorSeed);
    std::size_t runs = 0;
    for (const auto& file : files) {
        std::ifstream stream(file, std::ios::binary);
        const std::string seed((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
        runs += runVariants(seed, generator);
    }
    std::cout << "ran " << runs << " inputs from " << files.size() << " seeds" << std::endl;
    return 0;
}
