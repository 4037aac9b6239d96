// LogManager::printArray: one log line for a whole pose or joint array.
#pragma once

#include <sstream>
#include <string>

#include "log_manager.h"

namespace kelm {

template <typename ArrayT>
void LogManager::printArray(const char* file, int line, LogLevel level, const char* label, const ArrayT& values,
                            int precision, const char* separator) {
    std::string result;
    std::ostringstream stream;
    const size_t count = values.size();
    for (size_t i = 0; i < count; ++i) {
        stream.str(std::string());
        stream.clear();
        // Only large positive values switch to scientific notation; a large
        // negative value stays fixed, and NaN takes the fixed branch too.
        if (values[i] > 1000000.0) {
            stream << std::scientific;
        } else {
            stream << std::fixed;
        }
        stream.precision(precision);
        stream << values[i];
        result += stream.str();
        if (i + 1 != count) result += separator;
    }
    log(file, line, level, "%s : %s", label, result.c_str());
}

}  // namespace kelm
