// The simulator's cameras over HTTP: the MJPEG stream's images at the asked
// rate, each a whole JPEG of the asked size with its time stamps; the
// image follows the arm; the snapshot and the camera list; unknown paths.
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <cstdio>

#include <jpeglib.h>

#include <chrono>
#include <cmath>
#include <istream>
#include <string>
#include <vector>

#include "sim_teleoperation.h"

// Mesa's software renderer, which is not instrumented, synchronises its own
// threads in ways ThreadSanitizer cannot see; its reports are not about
// this code.
#if defined(__SANITIZE_THREAD__)
extern "C" const char* __tsan_default_suppressions() { return "called_from_lib:swrast_dri.so\n"; }
#endif

namespace kelm {
namespace test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using sim::test_relay::PhysicsArm;

sim::SimOptions cameraOptions(const sim::CameraRequest& camera) {
    sim::SimOptions options = sim::test_relay::physicsOptions("table_cube");
    options.cameras = {camera};
    options.camera_port = 0;
    return options;
}

struct Image {
    int width = 0, height = 0;
    std::vector<unsigned char> rgb;
};

// Decodes a JPEG; an empty image when it is none.
Image decode(const std::string& jpeg) {
    Image image;
    if (jpeg.size() < 4 || jpeg.compare(0, 2, "\xFF\xD8") != 0 || jpeg.compare(jpeg.size() - 2, 2, "\xFF\xD9") != 0)
        return image;
    jpeg_decompress_struct decoder;
    jpeg_error_mgr errors;
    decoder.err = jpeg_std_error(&errors);
    jpeg_create_decompress(&decoder);
    jpeg_mem_src(&decoder, reinterpret_cast<const unsigned char*>(jpeg.data()), jpeg.size());
    jpeg_read_header(&decoder, TRUE);
    decoder.out_color_space = JCS_RGB;
    jpeg_start_decompress(&decoder);
    image.width = static_cast<int>(decoder.output_width);
    image.height = static_cast<int>(decoder.output_height);
    image.rgb.resize(static_cast<std::size_t>(image.width) * image.height * 3);
    while (decoder.output_scanline < decoder.output_height) {
        unsigned char* row = image.rgb.data() + decoder.output_scanline * image.width * 3;
        jpeg_read_scanlines(&decoder, &row, 1);
    }
    jpeg_finish_decompress(&decoder);
    jpeg_destroy_decompress(&decoder);
    return image;
}

// Mean absolute difference per channel value, 0 to 255.
double difference(const Image& a, const Image& b) {
    if (a.rgb.size() != b.rgb.size() || a.rgb.empty()) return 255.0;
    double sum = 0.0;
    for (std::size_t i = 0; i < a.rgb.size(); ++i) sum += std::abs(a.rgb[i] - b.rgb[i]);
    return sum / a.rgb.size();
}

struct Reply {
    int status = 0;
    std::string content_type, body, sim_time, frame;
};

Reply get(unsigned short port, const std::string& path) {
    Poco::Net::HTTPClientSession session("127.0.0.1", port);
    session.setTimeout(Poco::Timespan(10, 0));
    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, path, Poco::Net::HTTPRequest::HTTP_1_1);
    session.sendRequest(request);
    Poco::Net::HTTPResponse response;
    std::istream& body = session.receiveResponse(response);
    Reply reply{response.getStatus(), response.getContentType(), std::string(std::istreambuf_iterator<char>(body), {}),
                response.get("X-Sim-Time", ""), response.get("X-Frame", "")};
    return reply;
}

// A snapshot whose image shows a simulated time after `after` [s].
Image snapshotAfter(unsigned short port, double after) {
    const Clock::time_point deadline = Clock::now() + 30s;  // a busy machine renders slowly
    while (Clock::now() < deadline) {
        const Reply reply = get(port, "/camera/front/snapshot");
        if (reply.status == 200 && std::stod(reply.sim_time) > after) return decode(reply.body);
        std::this_thread::sleep_for(50ms);
    }
    return Image();
}

// One part of the multipart stream: its headers and its JPEG.
struct Part {
    std::string jpeg;
    double sim_time = -1.0;
    long frame = -1;
    Clock::time_point arrived;
};

bool readPart(std::istream& stream, Part& part) {
    std::string line, boundary;
    std::getline(stream, boundary);
    std::size_t length = 0;
    while (std::getline(stream, line) && line != "\r") {
        std::sscanf(line.c_str(), "Content-Length: %zu", &length);
        std::sscanf(line.c_str(), "X-Sim-Time: %lf", &part.sim_time);
        std::sscanf(line.c_str(), "X-Frame: %ld", &part.frame);
    }
    part.jpeg.resize(length);
    stream.read(&part.jpeg[0], static_cast<std::streamsize>(length));
    std::getline(stream, line);
    part.arrived = Clock::now();
    return stream.good() && boundary == "--kelmframe\r" && length > 0;
}

// On a busy machine the renderer drops images (counted) rather than fall
// behind: the images offered, drawn or dropped, follow the asked rate. Each
// part's place in that schedule (its number plus the drops before it) over
// its arrival time, fitted by least squares, is the rate; a late image
// moves one point, not the whole measure.
TEST(SimCameras, StreamDeliversWholeJpegsAtTheAskedRate) {
    constexpr double kFps = 5.0;
    constexpr double kSeconds = 6.0;
    sim::SimController simulator(cameraOptions({"front", 160, 120, kFps}));
    simulator.start();
    const sim::CameraChannel& channel = *simulator.cameras()->channels().front();
    Poco::Net::HTTPClientSession session("127.0.0.1", simulator.cameraPort());
    session.setTimeout(Poco::Timespan(10, 0));
    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, "/camera/front/stream",
                                   Poco::Net::HTTPRequest::HTTP_1_1);
    session.sendRequest(request);
    Poco::Net::HTTPResponse response;
    std::istream& stream = session.receiveResponse(response);
    ASSERT_EQ(response.getContentType(), "multipart/x-mixed-replace; boundary=kelmframe");
    std::vector<Part> parts;
    std::vector<double> slot, seconds;
    for (Part part; parts.size() < 100 && readPart(stream, part); part = Part()) {
        parts.push_back(part);
        slot.push_back(static_cast<double>(part.frame + channel.counters().dropped));
        seconds.push_back(std::chrono::duration<double>(part.arrived - parts.front().arrived).count());
        if (seconds.back() >= kSeconds) break;
    }
    ASSERT_GE(parts.size(), 3u);
    for (std::size_t i = 0; i < parts.size(); ++i) {
        const Image image = decode(parts[i].jpeg);
        EXPECT_EQ(image.width, 160) << "part " << i;
        EXPECT_EQ(image.height, 120) << "part " << i;
        if (i == 0) continue;
        EXPECT_GT(parts[i].frame, parts[i - 1].frame);
        EXPECT_GT(parts[i].sim_time, parts[i - 1].sim_time);
    }
    const double n = static_cast<double>(parts.size());
    double mean_t = 0.0, mean_slot = 0.0, covariance = 0.0, variance = 0.0;
    for (std::size_t i = 0; i < parts.size(); ++i) mean_t += seconds[i] / n, mean_slot += slot[i] / n;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        covariance += (seconds[i] - mean_t) * (slot[i] - mean_slot);
        variance += (seconds[i] - mean_t) * (seconds[i] - mean_t);
    }
    EXPECT_NEAR(covariance / variance, kFps, 0.1 * kFps) << parts.size() << " parts";
    simulator.stop();
}

// 1280x720 at 120 images/s is beyond this machine: the images it cannot
// draw in time are dropped and counted, and those it draws are not late
// ones drawn in a burst (drawn and dropped together follow the clock).
TEST(SimCameras, ARateBeyondTheRendererDropsAndCountsImages) {
    constexpr double kFps = 120.0;
    sim::SimController simulator(cameraOptions({"front", 1280, 720, kFps}));
    simulator.start();
    const Clock::time_point started = Clock::now();
    std::this_thread::sleep_for(2s);
    const sim::CameraCounters counters = simulator.cameras()->channels().front()->counters();
    const double due = kFps * std::chrono::duration<double>(Clock::now() - started).count();
    simulator.stop();
    EXPECT_GT(counters.dropped, 0u);
    EXPECT_LE(counters.rendered + counters.dropped, 1.05 * due + 1.0);
    EXPECT_GE(counters.rendered + counters.dropped, 0.5 * due);
    EXPECT_GT(simulator.physics()->stats().simulated_seconds, 1.0);
}

TEST(SimCameras, TheImageFollowsTheArm) {
    PhysicsArm arm(cameraOptions({"front", 320, 240, 10.0}));
    ASSERT_TRUE(arm.ready());
    const unsigned short port = arm.simulator.cameraPort();
    const Image before = snapshotAfter(port, arm.simulator.physics()->stats().simulated_seconds);
    ASSERT_TRUE(arm.moveTo({1.0, 0.0, 0.0, 0.0, -1.57, 0.0}, 100.0));
    std::this_thread::sleep_for(300ms);  // settled
    const Image after = snapshotAfter(port, arm.simulator.physics()->stats().simulated_seconds);
    const Image still = snapshotAfter(port, arm.simulator.physics()->stats().simulated_seconds + 0.2);
    EXPECT_GT(difference(before, after), 1.0);
    EXPECT_LT(difference(after, still), 0.2);
}

TEST(SimCameras, ServesTheSnapshotAndTheListAndRefusesOtherPaths) {
    sim::SimController simulator(cameraOptions({"front", 320, 240, 10.0}));
    simulator.start();
    ASSERT_FALSE(snapshotAfter(simulator.cameraPort(), 0.0).rgb.empty());
    const struct {
        std::string path;
        int status;
        std::string content_type;
    } cases[] = {
        {"/camera/front/snapshot", 200, "image/jpeg"},
        {"/cameras", 200, "application/json"},
        {"/camera/top/snapshot", 404, "text/plain"},
        {"/camera/front", 404, "text/plain"},
        {"/", 404, "text/plain"},
    };
    for (const auto& entry : cases) {
        const Reply reply = get(simulator.cameraPort(), entry.path);
        EXPECT_EQ(reply.status, entry.status) << entry.path;
        EXPECT_EQ(reply.content_type, entry.content_type) << entry.path;
    }
    const Reply snapshot = get(simulator.cameraPort(), "/camera/front/snapshot");
    const Image image = decode(snapshot.body);
    EXPECT_EQ(image.width, 320);
    EXPECT_GT(std::stol(snapshot.frame), 0);
    EXPECT_GE(std::stod(snapshot.sim_time), 0.0);
    Json::Value list;
    ASSERT_TRUE(Json::Reader().parse(get(simulator.cameraPort(), "/cameras").body, list));
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["name"], "front");
    EXPECT_EQ(list[0]["height"], 240);
    EXPECT_EQ(list[0]["fps"], 10.0);
    EXPECT_GT(list[0]["rendered"].asUInt64(), 0u);
    simulator.stop();
}

}  // namespace
}  // namespace test
}  // namespace kelm
