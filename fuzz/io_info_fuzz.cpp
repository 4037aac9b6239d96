// Fuzz target: KelmKernelImpl::parseIOInfo on a parsed message.
//
// The input is parsed as JSON first (inputs that are no JSON end there); the
// tree then goes through parseIOInfo twice, into a fresh vector and again
// into the same vector, so that both the sizing of new records and the reuse
// of earlier ones run. Analog values that are no number, or out of range,
// throw std::invalid_argument or std::out_of_range by design, and a value of
// the wrong JSON type throws Json::LogicError; those are accepted outcomes.
#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <vector>

#include "fuzz_kernel.h"

namespace {

bool parseJson(const std::uint8_t* data, std::size_t size, Json::Value& root) {
    static const std::unique_ptr<Json::CharReader> reader = [] {
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false;
        return std::unique_ptr<Json::CharReader>(builder.newCharReader());
    }();
    const char* begin = reinterpret_cast<const char*>(data);
    return reader->parse(begin, begin + size, &root, nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Json::Value root;
    if (!parseJson(data, size, root)) return 0;
    kelm::KelmKernelImpl& kernel = kelm::fuzz::fuzzedKernel();
    std::vector<kelm::KelmKernelImpl::RtuInfo> stations;
    for (int pass = 0; pass < 2; ++pass) {
        try {
            kernel.parseIOInfo(root, stations);
        } catch (const std::exception&) {
            // Reported by exception by design; the next pass starts afresh.
        }
    }
    return 0;
}
