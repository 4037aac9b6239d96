// The streaming requests written as text must be byte for byte what the
// transport's jsoncpp writer makes of the same body: random targets, limits,
// grippers, torques and arm indices through tracking and set_redundancy_tau,
// and random strings and reals through the text writer itself.
#include <gtest/gtest.h>
#include <json/json.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "direct_kernel.h"
#include "json_text.h"
#include "test_peer.h"

namespace {

constexpr int kRounds = 3000;
constexpr double kInfinity = std::numeric_limits<double>::infinity();

using kelm::test::toJsonText;

class RandomValues {
public:
    explicit RandomValues(std::uint32_t seed) : random_(seed) {}

    // Ordinary reals, edges and specials alike.
    double real() {
        static const double specials[] = {0.0,         -0.0,      1.0,        0.1,
                                          1e300,       -1e-300,   5e-324,     1e16,
                                          123456789.0, kInfinity, -kInfinity, std::numeric_limits<double>::quiet_NaN(),
                                          0.08,        -1.0};
        switch (pick(4)) {
            case 0: return specials[pick(static_cast<int>(std::size(specials)))];
            case 1: return std::uniform_real_distribution<double>(-4.0, 4.0)(random_);
            case 2: return std::ldexp(std::uniform_real_distribution<double>(-1.0, 1.0)(random_), pick(2100) - 1075);
            default: return static_cast<double>(pick(2001) - 1000);
        }
    }
    std::vector<double> reals(size_t count, bool finite = false) {
        std::vector<double> values(count);
        for (double& value : values)
            value = finite ? std::uniform_real_distribution<double>(-4.0, 4.0)(random_) : real();
        return values;
    }
    std::string bytes() {
        std::string text(static_cast<size_t>(pick(12)), ' ');
        for (char& c : text) c = static_cast<char>(pick(256));
        return text;
    }
    int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(random_); }

private:
    std::mt19937 random_;
};

Json::Value parsed(const std::string& text) {
    Json::Value body;
    Json::Reader().parse(text, body);
    return body;
}

// The task key of a sent message (the message itself may hold an infinity,
// which jsoncpp writes but does not read back).
std::string sentTaskKey(const std::string& text) {
    const std::string mark = "\"task_key\":\"";
    const size_t begin = text.find(mark) + mark.size();
    return text.substr(begin, text.find('"', begin) - begin);
}

TEST(StreamTextTest, TrackingAndRedundancyTauMatchTheTreeWriter) {
    auto socket = std::make_shared<kelm::test::LoopbackSocket>();
    std::string sent;
    size_t sent_count = 0;
    socket->on_send = [&](const std::string& text) {
        sent = text;
        ++sent_count;
    };
    kelm::test::DirectKernel kernel(0, socket);
    kelm::getLogInstance()->setLevel(kelm::LOG_ERROR + 1);  // refusals are expected here
    RandomValues random(7);
    size_t published = 0;
    for (int round = 0; round < kRounds; ++round) {
        const int dof = 1 + random.pick(8);
        kernel.status.dof = dof;
        kernel.status.arm_index = random.pick(3);
        kernel.config.dof = dof;
        // Finite limits, so that what was sent reads back.
        kernel.config.limit_lower = random.reals(static_cast<size_t>(dof), true);
        kernel.config.limit_upper = random.reals(static_cast<size_t>(dof), true);
        const bool is_joint = random.pick(2) == 0;
        const std::vector<double> target = random.reals(is_joint ? static_cast<size_t>(dof) : 7);
        const double gripper = random.real();
        const size_t before = sent_count;
        if (kernel.tracking(target, is_joint, gripper) == 1) {
            ++published;
            const std::string text = sent;
            const Json::Value sent_body = parsed(text);
            // Rebuild the body from the values that went out, as a tree.
            Json::Value body;
            body["command"] = "trajectoryTrackingTasks";
            body["task_id"] = "TASK_TRACKING";
            body["data"]["way_point"] = Json::Value(Json::arrayValue);
            for (const Json::Value& value : sent_body["data"]["way_point"])
                body["data"]["way_point"].append(value.asDouble());
            if (gripper >= 0.0) body["data"]["grp_point"] = std::min(gripper, 0.08);
            body["point_type"]["space"] = is_joint ? 0 : 1;
            body["arm_index"] = kernel.status.arm_index;
            body["task_key"] = sentTaskKey(text);
            ASSERT_EQ(text, toJsonText(body)) << "round " << round;
        } else {
            ASSERT_EQ(sent_count, before);
        }

        const std::vector<double> torques = random.reals(static_cast<size_t>(dof));
        const double eeff_tau = random.real();
        if (kernel.set_redundancy_tau(torques, eeff_tau) == 1) {
            ++published;
            Json::Value body;
            body["command"] = "setRedundancyTau";
            body["arm_index"] = kernel.status.arm_index;
            body["is_master"] = true;
            body["redundancy_tau"] = Json::Value(Json::arrayValue);
            for (double torque : torques) body["redundancy_tau"].append(torque);
            body["eeff_tau"] = eeff_tau;
            body["task_key"] = sentTaskKey(sent);
            ASSERT_EQ(sent, toJsonText(body)) << "round " << round;
        }
    }
    kelm::getLogInstance()->setLevel(kelm::LOG_INFO);
    EXPECT_GT(published, static_cast<size_t>(kRounds / 2));
}

TEST(StreamTextTest, StringsAndRealsMatchTheTreeWriter) {
    RandomValues random(11);
    kelm::JsonText text;
    for (int round = 0; round < kRounds; ++round) {
        const std::string key = random.bytes();
        const std::string value = random.bytes();
        const std::vector<double> reals = random.reals(static_cast<size_t>(random.pick(30)));
        text.beginRoot();
        text.member(key).beginArray();
        for (double real : reals) text.real(real);
        text.endArray();
        text.member(key + "~").string(value).endObject();
        Json::Value body;
        body[key] = Json::Value(Json::arrayValue);
        for (double real : reals) body[key].append(real);
        body[key + "~"] = value;
        ASSERT_EQ(text.text(), toJsonText(body)) << "round " << round;
    }
}

}  // namespace
