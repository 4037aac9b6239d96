// StateFrameWriter: writes the "webSendRobotState" frame as JSON text.
//
// The text is built by hand into one buffer that is reused from frame to
// frame, so that a frame of the same shape as the last allocates nothing.
// Key names and JSON types are those the clients read: `count` is a string
// of digits, `Unix_time_stamp` a string holding seconds, the per-axis
// `servo` an integer and the arm-level `servo` a boolean.
//
// Owned by one thread (the frame loop); not synchronised.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim_arm.h"

namespace kelm {
namespace sim {

struct FrameHeader {
    std::uint64_t count = 0;
    double unix_time = 0.0;  // [s]
    bool debug = false;
    int error = 0;  // 0, or the code of the first arm reporting one
    int error_arm_index = 0;
    const std::string* error_msg = nullptr;
};

class StateFrameWriter {
public:
    // The frame text; valid until the next call.
    const std::string& write(const FrameHeader& header, const std::vector<const ArmTelemetry*>& arms);

private:
    void writeArm(const ArmTelemetry& arm);
    void key(const char* name);
    void text(const std::string& value);
    void number(double value);
    void integer(long long value);
    void boolean(bool value);
    void numbers(const double* values, size_t count);
    void numbers(const std::vector<double>& values) { numbers(values.data(), values.size()); }

    std::string out_;
};

}  // namespace sim
}  // namespace kelm
