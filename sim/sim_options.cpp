#include "sim_options.h"

#include <getopt.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <sstream>

#include "real_time.h"

namespace kelm {
namespace sim {
namespace {

enum OptionId {
    kIp = 'i',
    kPort = 'p',
    kArms = 'a',
    kDof = 'd',
    kRate = 'r',
    kQuiet = 'q',
    kHelp = 'h',
    kOperator = 1000,
    kAmplitude,
    kPeriod,
    kWall,
    kReplyLatency,
    kDropReplies,
    kDelayReplies,
    kRefuse,
    kError,
    kCountGap,
    kMalformed,
    kStopStreaming,
    kCloseAfter,
    kModel,
    kNetLatency,
    kNetJitter,
    kStallAfter,
    kStallMs,
    kHalfOpenAfter,
    kResetAfter,
    kScene,
    kTaskScene,
    kSeed,
    kRtPriority,
    kCamera,
    kCameraPort,
};

const option kLongOptions[] = {
    {"ip", required_argument, nullptr, kIp},
    {"port", required_argument, nullptr, kPort},
    {"arms", required_argument, nullptr, kArms},
    {"dof", required_argument, nullptr, kDof},
    {"rate", required_argument, nullptr, kRate},
    {"model", required_argument, nullptr, kModel},
    {"operator", required_argument, nullptr, kOperator},
    {"amplitude", required_argument, nullptr, kAmplitude},
    {"period", required_argument, nullptr, kPeriod},
    {"wall", required_argument, nullptr, kWall},
    {"reply-latency-us", required_argument, nullptr, kReplyLatency},
    {"drop-replies", required_argument, nullptr, kDropReplies},
    {"delay-replies", required_argument, nullptr, kDelayReplies},
    {"refuse", required_argument, nullptr, kRefuse},
    {"error", required_argument, nullptr, kError},
    {"count-gap-every", required_argument, nullptr, kCountGap},
    {"malformed-every", required_argument, nullptr, kMalformed},
    {"stop-streaming-after", required_argument, nullptr, kStopStreaming},
    {"close-after", required_argument, nullptr, kCloseAfter},
    {"net-latency-us", required_argument, nullptr, kNetLatency},
    {"net-jitter-us", required_argument, nullptr, kNetJitter},
    {"stall-after", required_argument, nullptr, kStallAfter},
    {"stall-ms", required_argument, nullptr, kStallMs},
    {"half-open-after", required_argument, nullptr, kHalfOpenAfter},
    {"reset-after", required_argument, nullptr, kResetAfter},
    {"scene", required_argument, nullptr, kScene},
    {"task-scene", required_argument, nullptr, kTaskScene},
    {"seed", required_argument, nullptr, kSeed},
    {"rt-priority", required_argument, nullptr, kRtPriority},
    {"camera", required_argument, nullptr, kCamera},
    {"camera-port", required_argument, nullptr, kCameraPort},
    {"quiet", no_argument, nullptr, kQuiet},
    {"help", no_argument, nullptr, kHelp},
    {nullptr, 0, nullptr, 0},
};

bool readNumber(const char* text, double low, double high, double& value) {
    char* end = nullptr;
    const double number = std::strtod(text, &end);
    if (end == text || *end != '\0' || !std::isfinite(number) || number < low || number > high) return false;
    value = number;
    return true;
}

bool readInteger(const char* text, long low, long high, long& value) {
    char* end = nullptr;
    const long number = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || number < low || number > high) return false;
    value = number;
    return true;
}

// HEIGHT or HEIGHT,STIFFNESS
bool readWall(const std::string& text, WallSettings& wall) {
    const size_t comma = text.find(',');
    double height = 0.0, stiffness = wall.stiffness;
    if (!readNumber(text.substr(0, comma).c_str(), -10.0, 10.0, height)) return false;
    if (comma != std::string::npos && !readNumber(text.substr(comma + 1).c_str(), 1.0, 1e7, stiffness)) return false;
    wall.enabled = true;
    wall.height = height;
    wall.stiffness = stiffness;
    return true;
}

// ARM:CODE or ARM:CODE:MESSAGE
bool readInjectedError(const std::string& text, InjectedError& error) {
    const size_t first = text.find(':');
    if (first == std::string::npos) return false;
    const size_t second = text.find(':', first + 1);
    long arm = 0, code = 0;
    if (!readInteger(text.substr(0, first).c_str(), 0, 1, arm)) return false;
    const std::string code_text =
        text.substr(first + 1, second == std::string::npos ? std::string::npos : second - first - 1);
    if (!readInteger(code_text.c_str(), 1, 1000000, code)) return false;
    error.arm = static_cast<int>(arm);
    error.code = static_cast<int>(code);
    error.message = second == std::string::npos ? "injected fault " + code_text : text.substr(second + 1);
    return true;
}

// NAME[:WIDTHxHEIGHT][@FPS]
bool readCamera(const std::string& text, CameraRequest& camera) {
    const size_t at = text.find('@');
    const size_t colon = std::min(text.find(':'), at);
    camera.name = text.substr(0, colon);
    if (camera.name.empty()) return false;
    if (at != std::string::npos && !readNumber(text.substr(at + 1).c_str(), 0.1, 120.0, camera.fps)) return false;
    if (colon == at) return true;
    const std::string size = text.substr(colon + 1, at == std::string::npos ? std::string::npos : at - colon - 1);
    const size_t x = size.find('x');
    long width = 0, height = 0;
    if (x == std::string::npos || !readInteger(size.substr(0, x).c_str(), 16, 4096, width) ||
        !readInteger(size.substr(x + 1).c_str(), 16, 4096, height))
        return false;
    camera.width = static_cast<int>(width);
    camera.height = static_cast<int>(height);
    return true;
}

// Applies one option; false when its argument is bad.
bool applyOption(int id, const char* argument, SimOptions& options) {
    long integer = 0;
    switch (id) {
        case kIp: options.ip = argument; return !options.ip.empty();
        case kPort:
            if (!readInteger(argument, 0, 65535, integer)) return false;
            options.port = static_cast<unsigned short>(integer);
            return true;
        case kArms:
            if (!readInteger(argument, 1, 2, integer)) return false;
            options.arms = static_cast<int>(integer);
            return true;
        case kDof:
            if (!readInteger(argument, 1, 7, integer)) return false;
            options.dof = static_cast<int>(integer);
            return true;
        case kRate: return readNumber(argument, 1.0, 20000.0, options.rate);
        case kModel: options.model = argument; return !options.model.empty();
        case kOperator: {
            const std::string mode = argument;
            options.hand.enabled = mode == "on" || mode == "pick-place";
            options.hand.pick_place = mode == "pick-place";
            return options.hand.enabled || mode == "off";
        }
        case kScene: options.scene = argument; return !options.scene.empty();
        case kTaskScene: options.task_scene = argument; return !options.task_scene.empty();
        case kSeed:
            if (!readInteger(argument, 0, 4294967295L, integer)) return false;
            options.seed = static_cast<std::uint32_t>(integer);
            return true;
        case kAmplitude: return readNumber(argument, 0.0, 1.5, options.hand.amplitude);
        case kPeriod: return readNumber(argument, 0.1, 600.0, options.hand.period);
        case kWall: return readWall(argument, options.wall);
        case kReplyLatency:
            if (!readInteger(argument, 0, 10000000, integer)) return false;
            options.reply_latency_us = static_cast<int>(integer);
            return true;
        case kNetLatency:
            if (!readInteger(argument, 0, 10000000, integer)) return false;
            options.net_latency_us = static_cast<int>(integer);
            return true;
        case kNetJitter:
            if (!readInteger(argument, 0, 10000000, integer)) return false;
            options.net_jitter_us = static_cast<int>(integer);
            return true;
        case kStallAfter: return readNumber(argument, 0.0, 1e6, options.stall_after);
        case kStallMs:
            if (!readInteger(argument, 0, 3600000, integer)) return false;
            options.stall_ms = static_cast<int>(integer);
            return true;
        case kHalfOpenAfter: return readNumber(argument, 0.0, 1e6, options.half_open_after);
        case kResetAfter: return readNumber(argument, 0.0, 1e6, options.reset_after);
        case kDropReplies: options.drop_replies.emplace_back(argument); return true;
        case kDelayReplies:
            if (!readInteger(argument, 0, 600000, integer)) return false;
            options.reply_delay_ms = static_cast<int>(integer);
            return true;
        case kRefuse: options.refuse.emplace_back(argument); return true;
        case kError: {
            InjectedError error;
            if (!readInjectedError(argument, error)) return false;
            options.errors.push_back(error);
            return true;
        }
        case kCountGap:
            if (!readInteger(argument, 1, 1000000000, integer)) return false;
            options.count_gap_every = static_cast<int>(integer);
            return true;
        case kMalformed:
            if (!readInteger(argument, 1, 1000000000, integer)) return false;
            options.malformed_every = static_cast<int>(integer);
            return true;
        case kStopStreaming: return readNumber(argument, 0.0, 1e6, options.stop_streaming_after);
        case kCloseAfter: return readNumber(argument, 0.0, 1e6, options.close_after);
        case kRtPriority:
            if (!readInteger(argument, RealTimeSetting::kLowestPriority, RealTimeSetting::kHighestPriority, integer))
                return false;
            options.rt_priority = static_cast<int>(integer);
            return true;
        case kCamera: {
            CameraRequest camera;
            if (!readCamera(argument, camera)) return false;
            options.cameras.push_back(camera);
            return true;
        }
        case kCameraPort:
            if (!readInteger(argument, 0, 65535, integer)) return false;
            options.camera_port = static_cast<unsigned short>(integer);
            return true;
        case kQuiet: options.quiet = true; return true;
        default: return false;
    }
}

}  // namespace

ParseResult parseSimOptions(int argc, char** argv, SimOptions& options, std::string& error) {
    optind = 0;  // start afresh, also on a second parse in the same process
    opterr = 0;
    while (true) {
        int index = 0;
        const int id = getopt_long(argc, argv, ":i:p:a:d:r:qh", kLongOptions, &index);
        if (id == -1) break;
        if (id == kHelp) return ParseResult::Help;
        if (id == '?' || id == ':') {
            const std::string name =
                optopt ? std::string("-") + static_cast<char>(optopt) : std::string(argv[optind - 1]);
            error = (id == ':' ? "missing value for option " : "unknown option ") + name;
            return ParseResult::Error;
        }
        if (!applyOption(id, optarg, options)) {
            error = "bad value '" + std::string(optarg ? optarg : "") + "' for option " + argv[optind - 1];
            return ParseResult::Error;
        }
    }
    if (optind < argc) {
        error = std::string("unexpected argument ") + argv[optind];
        return ParseResult::Error;
    }
    if (options.hand.pick_place && options.scene.empty() && options.task_scene.empty()) {
        error = "--operator pick-place needs the task's scene: --scene or --task-scene";
        return ParseResult::Error;
    }
    if (options.wall.enabled && !options.scene.empty()) {
        error = "--wall is for the kinematic arm; in a --scene, the scene's bodies are what the arm meets";
        return ParseResult::Error;
    }
    if (!options.cameras.empty() && options.scene.empty()) {
        error = "--camera renders the cameras of a physics scene: give --scene";
        return ParseResult::Error;
    }
    for (const auto& injected : options.errors) {
        if (injected.arm >= options.arms) {
            error = "--error names arm " + std::to_string(injected.arm) + " of " + std::to_string(options.arms);
            return ParseResult::Error;
        }
    }
    return ParseResult::Run;
}

std::string simUsage(const char* program) {
    std::ostringstream text;
    text << "Usage: " << program << " [options]\n"
         << "Simulates an arm controller: serves its WebSocket protocol and streams state frames.\n\n"
         << "Server and arms:\n"
         << "  -i, --ip ADDRESS            address to bind (default 127.0.0.1)\n"
         << "  -p, --port PORT             port to bind, 0 for any free one (default 8090)\n"
         << "  -a, --arms N                arms of the controller, 1 or 2 (default 1)\n"
         << "  -d, --dof N                 joints per arm, 1 to 7 (default 6)\n"
         << "  -r, --rate HZ               state frames per second (default 500)\n"
         << "      --model FILE.urdf       the arm's URDF model (default: the built-in arm)\n"
         << "      --reply-latency-us US   least time before a reply (default 10000)\n"
         << "      --rt-priority N         run every thread at real-time priority N (1 to 99,\n"
         << "                              SCHED_FIFO) with memory locked, as a controller does\n"
         << "Physics:\n"
         << "      --scene FILE.xml        simulate the arms as bodies in this MuJoCo scene (a\n"
         << "                              name alone is looked up among the installed scenes:\n"
         << "                              table_cube, arm, bimanual); default: kinematic arms\n"
         << "      --task-scene FILE.xml   where the operator's pick-and-place task lies\n"
         << "                              (default: the --scene)\n"
         << "      --seed N                places the task's objects (default 1)\n"
         << "      --camera NAME[:WxH][@FPS]  render the scene's camera NAME offscreen and serve it\n"
         << "                              as MJPEG over HTTP (default 640x480@15); repeatable\n"
         << "      --camera-port PORT      port of the cameras' HTTP server on the --ip address,\n"
         << "                              0 for any free one (default 8091): GET\n"
         << "                              /camera/NAME/stream, /camera/NAME/snapshot, /cameras\n"
         << "Operator and environment:\n"
         << "      --operator on|off|pick-place  the simulated hand moves arms in drag mode and\n"
         << "                              as teleoperation master (default on); pick-place:\n"
         << "                              it does the task of the scene\n"
         << "      --amplitude RAD         largest joint excursion of the hand (default 0.2)\n"
         << "      --period S              period of the hand's motion (default 4)\n"
         << "      --wall Z[,K]            a virtual wall below height Z [m] with stiffness K\n"
         << "                              [N/m] (default 2000) that tool tips press into\n"
         << "Fault injection:\n"
         << "      --drop-replies CMD      never answer CMD (\"all\": any command); repeatable\n"
         << "      --delay-replies MS      answer every request MS milliseconds late\n"
         << "      --refuse CMD            refuse CMD (\"all\": any command); repeatable\n"
         << "      --error ARM:CODE[:MSG]  the arm reports this error from the start (3001 is a\n"
         << "                              warning); repeatable\n"
         << "      --count-gap-every N     every Nth frame skips one count\n"
         << "      --malformed-every N     every Nth frame is cut short (not valid JSON)\n"
         << "      --stop-streaming-after S  stop sending state frames after S seconds\n"
         << "      --close-after S         close every connection after S seconds\n"
         << "      --net-latency-us US     every frame and reply reaches the wire US later\n"
         << "      --net-jitter-us US      ... plus or minus up to US, order kept\n"
         << "      --stall-after S         stop reading every connection after S seconds ...\n"
         << "      --stall-ms MS           ... for MS milliseconds (default 1000)\n"
         << "      --half-open-after S     go silent after S seconds: nothing read or sent,\n"
         << "                              nothing closed\n"
         << "      --reset-after S         reset every connection in mid-message after S seconds\n"
         << "Console:\n"
         << "  -q, --quiet                 no status line\n"
         << "  -h, --help                  this text\n";
    return text.str();
}

}  // namespace sim
}  // namespace kelm
