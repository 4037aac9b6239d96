// The fast frame reader against the jsoncpp path: both run on the seed corpus
// and on seeded random mutations of its real frames (values swapped for
// other types and for numbers at the edges of int, int64, uint64, float and
// double, strings with escapes, keys dropped or given twice, text cut,
// commented or trailed), and must agree on state, callbacks and log lines.
// A disagreement prints the input that caused it.
#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "fast_frame.h"
#include "frame_differential.h"

namespace {

constexpr int kMutationsPerSeed = 1500;
constexpr std::uint32_t kSeed = 20261122;

// Literal JSON values put in place of a value, separated by "|".
constexpr char kLiterals[] =
    "0|-0|-1|2147483647|2147483648|-2147483648|-2147483649|4294967296|9223372036854775807|"
    "9223372036854775808|-9223372036854775808|-9223372036854775809|18446744073709551615|"
    "18446744073709551616|123456789012345678901|1e2|1E2|1.0|-0.0|0.1|3.4028234663852886e38|"
    "3.4028235677973366e38|3.5e38|-3.5e38|1.401298464324817e-45|7e-46|1.7976931348623157e308|"
    "1.7976931348623159e308|1e400|5e-324|2.2250738585072011e-308|"
    "1.00000000000000011102230246251565404236316680908203125|\"\"|\"12\"|\" 42\"|\"-1\"|\"1e3\"|"
    "\"nan\"|\"18446744073709551616\"|\"1700000000.5\"|\"\\u00e9\\n\\\"\\\\ \\/\"|"
    "\"\\ud83d\\ude00\"|\"\\u0000x\"|\"POSITION\"|\"webSendRobotState\"|true|false|null|[]|{}|[1,2]|"
    "{\"a\":1}|[0.5,1,-2,3e1,4,5,6,7]";
const char* const kTextEdits[] = {"//c\n", "/*c*/", " x", "\xef\xbb\xbf", "\xff", "\n\t ", ",", "}", "\0"};

std::vector<std::string> readSeeds() {
    std::vector<std::string> seeds;
    for (const auto& entry : std::filesystem::directory_iterator(KELM_FRAME_CORPUS)) {
        std::ifstream file(entry.path(), std::ios::binary);
        seeds.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    return seeds;
}

// Makes mutated copies of a real frame, reproducibly from one generator.
std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::stringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
    return parts;
}

const std::vector<std::string> kLiteralList = split(kLiterals, '|');

class Mutator {
public:
    explicit Mutator(std::uint32_t seed) : random_(seed) {}

    std::string mutate(const std::string& seed) {
        Json::Value root;
        Json::CharReaderBuilder builder;
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        if (!reader->parse(seed.data(), seed.data() + seed.size(), &root, nullptr)) return seed;
        literals_.clear();
        for (int edits = 1 + pick(3); edits > 0; --edits) editTree(root);
        Json::StreamWriterBuilder writer;
        writer["indentation"] = "";
        std::string text = Json::writeString(writer, root);
        for (size_t i = 0; i < literals_.size(); ++i) {
            const std::string placeholder = "\"@" + std::to_string(i) + "@\"";
            const size_t at = text.find(placeholder);
            if (at != std::string::npos) text.replace(at, placeholder.size(), literals_[i]);
        }
        if (pick(5) == 0) editText(text);
        return text;
    }

private:
    int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(random_); }

    // Every value of the tree with its parent, so that one can be replaced or dropped.
    static void collect(Json::Value& value, Json::Value* parent,
                        std::vector<std::pair<Json::Value*, Json::Value*>>& out) {
        out.emplace_back(&value, parent);
        if (value.isObject()) {
            for (const std::string& name : value.getMemberNames()) collect(value[name], &value, out);
        } else if (value.isArray()) {
            for (Json::Value& element : value) collect(element, &value, out);
        }
    }

    void editTree(Json::Value& root) {
        std::vector<std::pair<Json::Value*, Json::Value*>> values;
        collect(root, nullptr, values);
        auto [value, parent] = values[static_cast<size_t>(pick(static_cast<int>(values.size())))];
        switch (pick(4)) {
            case 0:
            case 1: {  // another type or an edge value, as literal text
                *value = "@" + std::to_string(literals_.size()) + "@";
                literals_.push_back(kLiteralList[static_cast<size_t>(pick(static_cast<int>(kLiteralList.size())))]);
                break;
            }
            case 2:                                                                              // drop it
                if (parent != nullptr && parent->isArray()) parent->resize(parent->size() - 1);  // the last element
                if (parent == nullptr || !parent->isObject()) break;
                for (const std::string& name : parent->getMemberNames()) {
                    if (&(*parent)[name] == value) parent->removeMember(name);
                }
                break;
            default:  // a key given twice: an earlier copy with another value
                if (value->isObject() && !value->empty()) {
                    const std::vector<std::string> names = value->getMemberNames();
                    const std::string& name = names[static_cast<size_t>(pick(static_cast<int>(names.size())))];
                    (*value)["@" + std::to_string(literals_.size()) + "@"] = 0;
                    literals_.push_back("0,\"" + name + "\"");
                }
                break;
        }
    }

    void editText(std::string& text) {
        const size_t at = static_cast<size_t>(pick(static_cast<int>(text.size()) + 1));
        const std::string edit = kTextEdits[pick(static_cast<int>(std::size(kTextEdits)))];
        switch (pick(3)) {
            case 0: text.insert(at, edit.empty() ? std::string(1, '\0') : edit); break;
            case 1: text.resize(at); break;
            default: text.append(edit); break;
        }
    }

    std::mt19937 random_;
    std::vector<std::string> literals_;
};

bool takesFastPath(const std::string& text) { return kelm::fast_frame::read(text).message() != nullptr; }

TEST(FrameDifferentialTest, FastReaderAgreesWithJsoncppOnSeedsAndMutations) {
    const std::vector<std::string> seeds = readSeeds();
    ASSERT_FALSE(seeds.empty());
    kelm::test::FrameDifferential differential;
    Mutator mutator(kSeed);
    size_t inputs = 0;
    size_t fast = 0;
    for (const std::string& seed : seeds) {
        std::vector<std::string> batch{seed};
        for (int i = 0; i < kMutationsPerSeed; ++i) batch.push_back(mutator.mutate(seed));
        for (const std::string& input : batch) {
            ++inputs;
            fast += takesFastPath(input) ? 1 : 0;
            const std::string difference = differential.feed(input);
            ASSERT_TRUE(difference.empty()) << "input: " << input << "\n" << difference;
        }
    }
    std::cout << inputs << " inputs, " << fast << " on the fast reader" << std::endl;
    // Real frames must take the fast reader, or the comparison proves nothing.
    for (const std::string& seed : seeds) {
        if (seed.find("\"task_key\"") == std::string::npos) {
            EXPECT_TRUE(takesFastPath(seed)) << seed;
        }
    }
}

}  // namespace
