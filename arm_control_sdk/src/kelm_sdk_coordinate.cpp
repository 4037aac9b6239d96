// Tool and user coordinate systems of KelmKernelImpl: the selected indices as
// the state frames report them, reading, selecting and overwriting a system,
// and the controller's calibrations. Each request is waited for 1000 ms.
#include <json/json.h>

#include <algorithm>
#include <array>
#include <mutex>
#include <string>
#include <vector>

#include "kelm_kernel.h"
#include "motion_checks.h"

namespace kelm {

using namespace motion_checks;

namespace {

// A coordinate system is written as six values.
constexpr std::size_t kCoordSize = 6;

Json::Value coordinateRequest(const char* command, const char* key, const char* value, int index) {
    Json::Value request;
    request[protocol::key::kCommand] = command;
    request[key] = value;
    request[protocol::key::kIndex] = index;
    return request;
}

// Up to the first six values: values past the sixth are ignored, and a
// shorter vector (a caller's error the interface does not report) goes out
// as far as it reaches.
Json::Value firstSixReals(const std::vector<double>& values) {
    Json::Value reals(Json::arrayValue);
    const std::size_t count = std::min(values.size(), kCoordSize);
    for (std::size_t j = 0; j < count; ++j) reals.append(values[j]);
    return reals;
}

int writeCoordinate(KelmKernelImpl& kernel, const char* operation, const char* command, int index,
                    const std::vector<double>& coord) {
    Json::Value request = coordinateRequest(command, protocol::key::kOperation, protocol::value::kUpdate, index);
    request[protocol::key::kData][protocol::key::kCoord] = firstSixReals(coord);
    return submitTask(kernel, operation, request);
}

// Calibration replies are judged by `result`: "ok" 1, another result -1, no
// reply or no result -2.
int calibrationResult(const Json::Value& reply) {
    if (!reply.isObject() || !reply.isMember(protocol::key::kResult)) return -2;
    const Json::Value& result = reply[protocol::key::kResult];
    return result.isString() && result.asString() == protocol::value::kOk ? 1 : -1;
}

}  // namespace

int KelmKernelImpl::get_tool_index() {
    std::lock_guard<std::mutex> lock(state_mutex);
    return tool_index;
}

int KelmKernelImpl::get_user_index() {
    std::lock_guard<std::mutex> lock(state_mutex);
    return user_index;
}

std::array<double, 7> KelmKernelImpl::get_tool_coordinate(int index) {
    Pose coordinate{};
    Json::Value body =
        coordinateRequest(protocol::command::kGetCoordinate, protocol::key::kType, protocol::key::kTool, index);
    const Json::Value reply = askController(*this, body);
    if (!reply.isObject()) return coordinate;
    if (reply.isMember(protocol::key::kErrMsg)) {
        KELM_LOG(LOG_ERROR, "获取工具坐标系失败");
        return coordinate;
    }
    const Json::Value& values = reply[protocol::key::kCoordinate];
    if (!values.isArray()) return coordinate;
    if (values.size() != kPoseSize) {
        KELM_LOG(LOG_ERROR, "获取工具坐标系失败, 获取位姿维度错误");
        return coordinate;
    }
    for (Json::ArrayIndex j = 0; j < kPoseSize; ++j) coordinate[j] = values[j].asDouble();
    return coordinate;
}

std::vector<double> KelmKernelImpl::get_user_coordinate(int index) {
    std::vector<double> coordinate;
    Json::Value body =
        coordinateRequest(protocol::command::kGetCoordinate, protocol::key::kType, protocol::key::kUser, index);
    const Json::Value reply = askController(*this, body);
    if (!reply.isObject() || reply.isMember(protocol::key::kErrMsg)) return coordinate;
    const Json::Value& values = reply[protocol::key::kCoordinate];
    if (!values.isArray()) return coordinate;
    for (const Json::Value& value : values) coordinate.push_back(value.asDouble());
    return coordinate;
}

int KelmKernelImpl::set_tool_index(int index) {
    if (index < 0) {
        // Refused without a log line; the record still says why.
        note_refusal(__func__, RefusalKind::invalid_input, "tool index " + std::to_string(index) + " is negative");
        return -1;
    }
    Json::Value body =
        coordinateRequest(protocol::command::kSetToolData, protocol::key::kOperation, protocol::value::kChange, index);
    return submitTask(*this, __func__, body);
}

// A negative user index is passed on: the controller decides about it.
int KelmKernelImpl::set_user_index(int index) {
    Json::Value body =
        coordinateRequest(protocol::command::kSetUserData, protocol::key::kOperation, protocol::value::kChange, index);
    return submitTask(*this, __func__, body);
}

int KelmKernelImpl::set_tool_coordinate(int index, std::vector<double> coord) {
    return writeCoordinate(*this, __func__, protocol::command::kSetToolData, index, coord);
}

int KelmKernelImpl::set_user_coordinate(int index, std::vector<double> coord) {
    return writeCoordinate(*this, __func__, protocol::command::kSetUserData, index, coord);
}

// The controller calibrates a user system from points it has taught itself;
// `points` is accepted for symmetry with tool_calibtate and not sent.
int KelmKernelImpl::user_calibrate(int user, const std::vector<std::vector<double>>& /*points*/) {
    Json::Value body;
    body[protocol::key::kCommand] = protocol::command::kUserCalibration;
    body[protocol::key::kOperation] = protocol::key::kCalibrate;
    body[protocol::key::kUser] = user;
    return calibrationResult(askController(*this, body));
}

int KelmKernelImpl::tool_calibtate(int tool, const std::vector<std::vector<double>>& points) {
    Json::Value body;
    body[protocol::key::kCommand] = protocol::command::kToolCalibrate;
    Json::Value& data = body[protocol::key::kData];
    data[protocol::key::kToolIndex] = tool;
    for (const std::vector<double>& point : points) data[protocol::key::kPos].append(firstSixReals(point));
    return calibrationResult(askController(*this, body));
}

}  // namespace kelm
