// A hostile controller: frames and messages that no real controller sends,
// against a connected arm kernel. Each either leaves the connection going
// (the next good frame still reaches the kernel) or ends it cleanly (one
// loss report), always with a log line, never with a crash or unbounded
// memory. The growth of the process's peak memory is printed per case.
#include <Poco/Net/WebSocket.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>

#include "kelm_kernel.h"
#include "log_capture.h"
#include "state_frame_builder.h"
#include "test_peer.h"
#include "websocket_client.h"

namespace kelm {
namespace test {
namespace {

using std::chrono::milliseconds;

long peakKilobytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// A good frame whose first joint reads `marker`, as JSON text.
std::string frameText(uint64_t count, double marker = 0.25) {
    ArmFrame arm = realisticArm(0);
    arm.arm_name = "ARM_NAME";
    arm.joint_pos[0] = marker;
    return toJsonText(stateFrame(count, {arm}));
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const auto at = text.find(from);
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

// A server frame header (no mask) announcing `length` payload bytes.
std::string textFrameHeader(std::uint64_t length) {
    std::string header{'\x81', '\x7f'};
    for (int shift = 56; shift >= 0; shift -= 8) header.push_back(static_cast<char>((length >> shift) & 0xff));
    return header;
}

std::string manyArms(int count) {
    std::string text = frameText(1);
    std::string extra;
    for (int i = 1; i < count; ++i) extra += ",{\"arm_index\":" + std::to_string(i) + "}";
    return replaced(text, "}]", "}" + extra + "]");
}

enum class Outcome { GoesOn, Dropped };

struct HostileCase {
    const char* name;
    std::function<void(TestPeer&)> send;
    Outcome outcome;
    const char* log;  // a fragment of the log line it must leave
};

const HostileCase kCases[] = {
    {"frame length 2^62",
     [](TestPeer& p) { p.server().sendRawBytes(p.server().connectionIds().at(0), textFrameHeader(1ull << 62)); },
     Outcome::Dropped, "WebSocket"},
    {"64 MiB message",
     [](TestPeer& p) {
         p.server().sendRawBytes(p.server().connectionIds().at(0),
                                 textFrameHeader(64ull << 20) + std::string(4096, 'a'));
     },
     Outcome::Dropped, "WebSocket"},
    {"endless continuation fragments",
     [](TestPeer& p) {
         const auto id = p.server().connectionIds().at(0);
         const std::string chunk(64 * 1024, 'c');
         const std::size_t past_the_limit = WebSocketClient::kMaxMessageBytes / chunk.size() + 8;
         p.server().sendFrame(id, chunk, Poco::Net::WebSocket::FRAME_OP_TEXT);
         for (std::size_t i = 0;
              i < past_the_limit && p.server().sendFrame(id, chunk, Poco::Net::WebSocket::FRAME_OP_CONT); ++i) {
         }
     },
     Outcome::Dropped, "message too big"},
    {"nesting 100000 deep", [](TestPeer& p) { p.sendText(std::string(100000, '[') + std::string(100000, ']')); },
     Outcome::GoesOn, "stackLimit"},
    {"invalid UTF-8", [](TestPeer& p) { p.sendText(replaced(frameText(2, 0.5), "ARM_NAME", "\xff\xfe\xc3\x28")); },
     Outcome::GoesOn, ""},
    {"NUL inside the JSON",
     [](TestPeer& p) { p.sendText(replaced(frameText(2), "ARM_NAME", std::string("AR\0M", 4))); }, Outcome::GoesOn,
     "parse error"},
    {"NUL after the JSON", [](TestPeer& p) { p.sendText(frameText(2, 0.5) + std::string("\0{\"x\":", 6)); },
     Outcome::GoesOn, ""},
    {"1e400 and -0", [](TestPeer& p) { p.sendText(replaced(frameText(2, 0.375), "[0.375,", "[1e400,-0,")); },
     Outcome::GoesOn, ""},
    {"10000 arms in one frame", [](TestPeer& p) { p.sendText(manyArms(10000)); }, Outcome::GoesOn, ""},
    {"arm_dof 10^9", [](TestPeer& p) { p.sendText(replaced(frameText(2), "\"arm_dof\":6", "\"arm_dof\":1000000000")); },
     Outcome::GoesOn, ""},
};

TEST(FaultHostile, EveryInputLeavesTheConnectionGoingOrDropsItCleanly) {
    for (const HostileCase& hostile : kCases) {
        SCOPED_TRACE(hostile.name);
        LogCapture log;
        TestPeer peer;
        auto losses = std::make_shared<std::atomic<int>>(0);
        {
            KelmKernelImpl kernel(peer.host(), peer.port(), 1.0, 0);
            ASSERT_TRUE(peer.waitForConnections(1));
            kernel.register_connect_changed_callback("losses", [losses](bool up) {
                if (!up) ++*losses;
            });
            peer.sendText(frameText(1));
            ASSERT_TRUE(waitUntil([&] { return kernel.get_status().dof == 6; }));
            const long peak_before = peakKilobytes();

            hostile.send(peer);
            if (hostile.outcome == Outcome::Dropped) {
                EXPECT_TRUE(waitUntil([&] { return losses->load() == 1; })) << "not dropped";
                EXPECT_FALSE(kernel.is_connected());
            } else {
                peer.sendText(frameText(3, 0.75));
                EXPECT_TRUE(waitUntil([&] {
                    return !kernel.get_joint_pos().empty() && kernel.get_joint_pos()[0] == 0.75;
                })) << "the next good frame never arrived";
                EXPECT_TRUE(kernel.is_connected());
                EXPECT_EQ(
                    kernel.move_joint(std::vector<double>(6, 0.0), *std::make_unique<std::string>(), 10.0, 0, 0, true),
                    -1);  // no configuration read: refused, whatever the frame left behind
            }
            if (*hostile.log != '\0') {
                EXPECT_TRUE(log.waitFor(hostile.log));
            }
            std::printf("%-32s %s, peak memory grew by %ld kB to %ld kB\n", hostile.name,
                        hostile.outcome == Outcome::Dropped ? "dropped" : "goes on", peakKilobytes() - peak_before,
                        peakKilobytes());
        }
        EXPECT_LE(losses->load(), 1);
    }
}

TEST(FaultHostile, ConfigurationReplyWithAnAbsurdJointCountIsNotBelieved) {
    LogCapture log;
    TestPeer peer;
    Json::Value params = jsonObject({{"dof", 1000000000}});
    peer.replyTo("getJointParams", jsonObject({{"recv", "Task_Recieve"}, {"params", params}}));
    KelmKernelImpl kernel(peer.host(), peer.port(), 1.0, 0);
    const long peak_before = peakKilobytes();
    EXPECT_EQ(kernel.get_config().dof, 0);
    EXPECT_TRUE(log.contains("more than any arm has", LOG_ERROR));
    std::printf("getJointParams with dof 10^9: peak memory grew by %ld kB\n", peakKilobytes() - peak_before);
}

}  // namespace
}  // namespace test
}  // namespace kelm
