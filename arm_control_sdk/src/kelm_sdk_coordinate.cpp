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
    request["command"] = command;
    request[key] = value;
    request["index"] = index;
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
    Json::Value request = coordinateRequest(command, "operation", "update", index);
    request["data"]["coord"] = firstSixReals(coord);
    return submitTask(kernel, operation, request);
}

// Calibration replies are judged by `result`: "ok" 1, another result -1, no
// reply or no result -2.
int calibrationResult(const Json::Value& reply) {
    if (!reply.isObject() || !reply.isMember("result")) return -2;
    const Json::Value& result = reply["result"];
    return result.isString() && result.asString() == "ok" ? 1 : -1;
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
    Json::Value body = coordinateRequest("getCoordinate", "type", "tool", index);
    const Json::Value reply = askController(*this, body);
    if (!reply.isObject()) return coordinate;
    if (reply.isMember("err_msg")) {
        KELM_LOG(LOG_ERROR, "获取工具坐标系失败");
        return coordinate;
    }
    const Json::Value& values = reply["coordinate"];
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
    Json::Value body = coordinateRequest("getCoordinate", "type", "user", index);
    const Json::Value reply = askController(*this, body);
    if (!reply.isObject() || reply.isMember("err_msg")) return coordinate;
    const Json::Value& values = reply["coordinate"];
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
    Json::Value body = coordinateRequest("setToolData", "operation", "change", index);
    return submitTask(*this, __func__, body);
}

// A negative user index is passed on: the controller decides about it.
int KelmKernelImpl::set_user_index(int index) {
    Json::Value body = coordinateRequest("setUserData", "operation", "change", index);
    return submitTask(*this, __func__, body);
}

int KelmKernelImpl::set_tool_coordinate(int index, std::vector<double> coord) {
    return writeCoordinate(*this, __func__, "setToolData", index, coord);
}

int KelmKernelImpl::set_user_coordinate(int index, std::vector<double> coord) {
    return writeCoordinate(*this, __func__, "setUserData", index, coord);
}

// The controller calibrates a user system from points it has taught itself;
// `points` is accepted for symmetry with tool_calibtate and not sent.
int KelmKernelImpl::user_calibrate(int user, const std::vector<std::vector<double>>& /*points*/) {
    Json::Value body;
    body["command"] = "userCalibration";
    body["operation"] = "calibrate";
    body["user"] = user;
    return calibrationResult(askController(*this, body));
}

int KelmKernelImpl::tool_calibtate(int tool, const std::vector<std::vector<double>>& points) {
    Json::Value body;
    body["command"] = "toolCalibrate";
    Json::Value& data = body["data"];
    data["tool_index"] = tool;
    for (const std::vector<double>& point : points) data["pos"].append(firstSixReals(point));
    return calibrationResult(askController(*this, body));
}

}  // namespace kelm
