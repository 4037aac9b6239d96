// KelmKernelImpl::parseIOInfo: the remote IO block `rtu` of a message as a
// tree of stations, units and channels.
//
// Runs on the caller's thread; io_mutex serialises calls. The records of an
// earlier call are refilled in place, so what a new message does not
// overwrite stays.
#include <cmath>
#include <string>

#include "kelm_kernel.h"
#include "log_manager.h"

namespace kelm {

namespace {

constexpr int kChannelsPerWord = 16;
// No remote IO unit comes near this; a larger count is a corrupt message and
// would otherwise make the parser allocate gigabytes.
constexpr int kMaxChannelsPerUnit = 4096;
constexpr double kWordsPerChannel = 0.0625;  // 1 / 16

// Words that `channels` packed channels take up, rounded up.
int wordCount(int channels) { return static_cast<int>(std::ceil(channels * kWordsPerChannel)); }

// Unpacks `words` words of `packed`, starting at word `first_word`, into at
// most `out.size()` channels, bit 0 of a word first. Logs `size_error` and
// leaves `out` as it was when `packed` holds too few words. The word counter
// moves on in either case.
void unpackChannels(const Json::Value& packed, int& first_word, int words, std::vector<int>& out,
                    const char* size_error) {
    if (first_word + words > static_cast<int>(packed.size())) {
        KELM_LOG(LOG_ERROR, "%s", size_error);
    } else {
        size_t channel = 0;
        for (int word = 0; word < words; ++word) {
            const int bits = packed[static_cast<Json::ArrayIndex>(first_word + word)].asInt();
            for (int bit = 0; bit < kChannelsPerWord && channel < out.size(); ++bit) {
                out[channel++] = (bits >> bit) & 1;
            }
        }
    }
    first_word += words;
}

// One analog family (`ad`, `da`, `status` or `ctrl`) of unit `unit` of a
// station. Widths are taken only when `widths` has the shape of the values;
// otherwise they are passed over without a word.
void readAnalogValues(const Json::Value& station, const char* key, const char* width_key, Json::ArrayIndex unit,
                      Json::ArrayIndex unit_count, std::vector<KelmKernelImpl::IOValueInfo>& out) {
    if (!station.isMember(key)) return;
    const Json::Value& values = station[key][unit];
    out.resize(values.size());
    const bool has_widths = station.isMember(width_key);
    for (Json::ArrayIndex k = 0; k < values.size(); ++k) {
        out[k].value = std::stoul(values[k].asString());
        if (!has_widths) continue;
        const Json::Value& widths = station[width_key];
        if (widths.size() == unit_count && widths[unit].size() == out.size()) {
            out[k].bits = static_cast<uint8_t>(widths[unit][k].asInt() * 8);
        }
    }
}

void readStation(const Json::Value& station, KelmKernelImpl::RtuInfo& info) {
    if (!station.isMember("size")) return;
    const Json::Value& sizes = station["size"];
    if (sizes.size() % 2 != 0) return;
    const Json::ArrayIndex unit_count = sizes.size() / 2;
    for (Json::ArrayIndex k = 0; k < sizes.size(); ++k) {
        if (sizes[k].asInt() > kMaxChannelsPerUnit) {
            KELM_LOG(LOG_ERROR, "rtu channel count %d above %d, station skipped", sizes[k].asInt(),
                     kMaxChannelsPerUnit);
            return;
        }
    }
    info.units.resize(unit_count);

    int di_word = 0;
    int do_word = 0;
    for (Json::ArrayIndex u = 0; u < unit_count; ++u) {
        KelmKernelImpl::IOUnit& unit = info.units[u];
        const int di_count = sizes[2 * u].asInt();
        const int do_count = sizes[2 * u + 1].asInt();
        // A negative count sizes the vector beyond its maximum, which throws
        // std::length_error to the caller without allocating.
        unit.di_value.resize(static_cast<size_t>(di_count));
        unit.do_value.resize(static_cast<size_t>(do_count));
        unpackChannels(station["di"], di_word, wordCount(di_count), unit.di_value, "di_value_size error");
        unpackChannels(station["do"], do_word, wordCount(do_count), unit.do_value, "do_value_size error");
        readAnalogValues(station, "ad", "ad_type_size", u, unit_count, unit.ad_value);
        readAnalogValues(station, "da", "da_type_size", u, unit_count, unit.da_value);
        readAnalogValues(station, "status", "status_type_size", u, unit_count, unit.status_value);
        readAnalogValues(station, "ctrl", "ctrl_type_size", u, unit_count, unit.ctrl_value);
    }
}

}  // namespace

int KelmKernelImpl::parseIOInfo(const Json::Value& root, std::vector<RtuInfo>& out) {
    if (!root.isMember("rtu")) return 1;
    std::lock_guard<std::mutex> lock(io_mutex);
    const Json::Value& stations = root["rtu"];
    out.resize(stations.size());
    for (Json::ArrayIndex i = 0; i < stations.size(); ++i) readStation(stations[i], out[i]);
    return 1;
}

}  // namespace kelm
