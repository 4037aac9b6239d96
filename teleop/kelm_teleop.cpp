// kelm_teleop: couples two six-joint arms for teleoperation.
//
// The operator moves the master arm (kelm1_) by hand and the slave arm
// (kelm2_) follows it, in joint space or by its end pose, optionally with the
// slave's external torques fed back to the master. Start-up, homing and the
// exit path run on the main thread. Once a mode is set up, all work happens in
// the stream callbacks below, on the transport's delivery threads: every state
// frame of the master becomes one tracking message to the slave, and in the
// force-feedback mode every frame of the slave becomes one torque message to
// the master. The main thread then only watches two flags.
#include <getopt.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "kelm_kernel.h"

using kelm::KelmKernelImpl;

namespace {

// Admits the stream callbacks that use one kernel for as long as that kernel
// lives. The callbacks go on firing after main has returned, while the static
// kernels are destroyed (slave first, then master); each kernel's gate is
// closed right before that kernel goes, and closing waits for the callbacks
// inside it, so a callback never touches a kernel that is being destroyed and
// the other kernel keeps sending until it goes too. A gate holds only
// atomics, so it is never destroyed itself and stays usable by callbacks that
// arrive during the destruction of the kernels. The two delivery threads
// never wait for each other.
class StreamGate {
public:
    // Admits one callback while the gate is open.
    class Pass {
    public:
        explicit Pass(StreamGate& gate) : gate_(gate), admitted_(gate.enter()) {}
        ~Pass() {
            if (admitted_) gate_.leave();
        }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;
        explicit operator bool() const { return admitted_; }

    private:
        StreamGate& gate_;
        bool admitted_;
    };

    // Closes the gate and returns once no callback is inside.
    void close() {
        closed_ = true;
        while (inside_ != 0) std::this_thread::yield();
    }

private:
    bool enter() {
        ++inside_;
        if (!closed_) return true;
        --inside_;
        return false;
    }
    void leave() { --inside_; }

    std::atomic<int> inside_{0};
    std::atomic<bool> closed_{false};
};

static_assert(std::is_trivially_destructible<StreamGate>::value, "a gate must outlive the kernels");
StreamGate master_gate;  // callbacks that use kelm1_
StreamGate slave_gate;   // callbacks that use kelm2_

// Closes its gate when destroyed: defined right after the kernel it guards,
// so that static destruction closes the gate just before the kernel goes.
struct GateCloser {
    StreamGate& gate;
    ~GateCloser() { gate.close(); }
};

}  // namespace

// ---- application state ----

std::string master_IP = "10.42.0.102";
std::string slave_IP = "127.0.0.1";      // the slave's controller is always on this host
std::shared_ptr<KelmKernelImpl> kelm1_;  // master arm
namespace {
GateCloser close_master_gate_before_master{master_gate};
}  // namespace
std::shared_ptr<KelmKernelImpl> kelm2_;  // slave arm
namespace {
GateCloser close_slave_gate_before_slave{slave_gate};
}  // namespace
double clamping_force = 10.0;
int remote_mode = 0;          // 0 joint, 1 Cartesian end pose, 2 joint with force feedback
bool mirror_control = false;  // written before any stream callback is registered

// Written by the signal handler or on the delivery threads, read by the run
// loop; lock-free atomics are safe in a signal handler.
std::atomic<int> running{1};
std::atomic<bool> error_flag{false};
std::atomic<int> ctrl_c_flag{0};  // a record that Ctrl+C came; nothing reads it

namespace {

constexpr double kConnectTimeout = 1.0;
constexpr int kArmIndex = 0;  // each controller has its own connection and arm 0
constexpr double kReadyTimeoutMs = 3000.0;
constexpr double kHomeSpeed = 50.0;
constexpr int kNoWaitLimitMs = 2147483647;
constexpr double kGripperAfterHoming = 0.06;

constexpr double kJointGripperDivisor = 0.6;
constexpr double kPoseGripperDivisor = 0.8;
constexpr double kGripperUpper = kelm::kGripperMaxPos;
constexpr double kGripperLower = 0.0;
constexpr size_t kMirroredJointCount = 6;

const std::vector<double> kHomePose = {0.0, 0.0, 0.0, 0.0, -1.57, 0.0};

// Maps the master's gripper reading onto a slave target in [0, 0.08]. A reading
// that is not a number gives 0, so every frame carries a gripper target.
double mapGripper(double reading, double divisor) {
    const double target = reading / divisor;
    if (target > kGripperUpper) return kGripperUpper;
    return target > kGripperLower ? target : kGripperLower;
}

// Mirrors a six-joint vector in place by negating joints 0, 3 and 5; a vector
// of any other length is left unchanged.
void mirrorJoints(std::vector<double>& joints) {
    if (joints.size() != kMirroredJointCount) return;
    joints[0] = -joints[0];
    joints[3] = -joints[3];
    joints[5] = -joints[5];
}

}  // namespace

// ---- error listener ----

// Registered on both kernels under "onKelmError"; runs on a delivery thread
// inside that kernel's state lock, once per frame while an error stands. A
// warning ends the teleoperation just like an error.
void onKelmError(int code, std::string msg) {
    error_flag = true;
    if (code == kelm::WARN_MESSAGE) {
        std::printf("收到警告, msg = %s\n", msg.c_str());
    } else {
        std::printf("收到错误, code = %d, msg = %s\n", code, msg.c_str());
    }
    std::fflush(stdout);
}

// ---- bring-up and homing ----

bool initializeArms() {
    std::cout << "主臂IP：" << master_IP << "; 从臂IP：" << slave_IP << std::endl;
    switch (remote_mode) {
        case 0: std::cout << "即将初始化普通关节同臂遥操。" << std::endl; break;
        case 1: std::cout << "即将初始化笛卡尔末端遥操。" << std::endl; break;
        case 2: std::cout << "即将初始化力反馈同臂遥操。" << std::endl; break;
        default: return false;
    }
    std::cout << "夹抓夹持力矩：" << clamping_force << std::endl;
    std::cout << (mirror_control ? "遥操方向为镜向。" : "遥操方向为同向。") << std::endl;

    try {
        kelm1_ = std::make_shared<KelmKernelImpl>(master_IP, kelm::kControllerPort, kConnectTimeout, kArmIndex);
        kelm2_ = std::make_shared<KelmKernelImpl>(slave_IP, kelm::kControllerPort, kConnectTimeout, kArmIndex);
        kelm1_->register_error_catch_callback("onKelmError", onKelmError);
        kelm2_->register_error_catch_callback("onKelmError", onKelmError);

        // Both arms are tried, so the log shows the state of each.
        const int master_ready = kelm1_->set_kelm_ready(true, kReadyTimeoutMs);
        const int slave_ready = kelm2_->set_kelm_ready(true, kReadyTimeoutMs);
        if (master_ready == 1 && slave_ready == 1) {
            sleep(1);
            return true;
        }
        std::cout << "连接失败，请检查IP，重新启动" << std::endl;
        return false;
    } catch (const std::exception& e) {
        std::cout << "初始化双臂失败: " << e.what() << std::endl;
        return false;
    }
}

// Homes the master, then the slave, never both at once. A wait that ends badly
// does not stop the sequence; a refused move does.
bool moveToHomePosition() {
    std::cout << "双臂初始化到安全位置." << std::endl;
    const std::vector<double> master_home = kHomePose;
    const std::vector<double> slave_home = kHomePose;
    std::string task_key;

    if (kelm1_->move_joint(master_home, task_key, kHomeSpeed, 0, 0, true) < 0) return false;
    kelm1_->task_blocking_wait(task_key, kNoWaitLimitMs);
    if (kelm2_->move_joint(slave_home, task_key, kHomeSpeed, 0, 0, true) < 0) return false;
    kelm2_->task_blocking_wait(task_key, kNoWaitLimitMs);

    kelm1_->set_end_effector(kGripperAfterHoming, clamping_force);
    kelm2_->set_end_effector(kGripperAfterHoming, clamping_force);
    sleep(1);
    return true;
}

// ---- stream callbacks ----
// Each runs once per state frame on a delivery thread, never blocks, and stays
// silent unless something throws. Their results are not looked at: a refused
// frame is logged by the kernel, and the next frame is judged afresh.

// On the master's delivery thread: master joints and gripper become the
// slave's joint target.
void slaveJointTracking(double /*time_stamp*/, std::vector<double> joint_pos, double gripper_pos) {
    try {
        const StreamGate::Pass pass(slave_gate);
        if (!pass) return;
        const double gripper = mapGripper(gripper_pos, kJointGripperDivisor);
        std::vector<double> target = std::move(joint_pos);
        if (mirror_control) mirrorJoints(target);
        kelm2_->tracking(target, true, gripper);
    } catch (const std::exception& e) {
        std::cout << "slaveJointTracking error: " << e.what() << std::endl;
    }
}

// On the master's delivery thread: the master's end pose becomes the slave's
// Cartesian target; the gripper comes from the master's cached state.
void slavePoseTracking(double /*time_stamp*/, std::array<double, 7> pose) {
    try {
        const StreamGate::Pass master_pass(master_gate);
        const StreamGate::Pass slave_pass(slave_gate);
        if (!master_pass || !slave_pass) return;
        const double gripper = mapGripper(kelm1_->get_end_effector_pos(), kPoseGripperDivisor);
        std::vector<double> target(pose.begin(), pose.end());
        if (mirror_control) {
            // Mirror in the x-z plane: position y, quaternion x and z.
            target[1] = -target[1];
            target[3] = -target[3];
            target[5] = -target[5];
        }
        kelm2_->tracking(target, false, gripper);
    } catch (const std::exception& e) {
        std::cout << "slavePoseTracking error: " << e.what() << std::endl;
    }
}

// On the slave's delivery thread, inside kelm2_'s state lock, so it touches
// only kelm1_: the slave's external torques go back to the master's hand.
void masterRedundancyTau(double /*time_stamp*/, std::vector<double> joint_tau, double gripper_tau) {
    try {
        const StreamGate::Pass pass(master_gate);
        if (!pass) return;
        std::vector<double> torques = std::move(joint_tau);
        if (mirror_control) mirrorJoints(torques);
        kelm1_->set_redundancy_tau(torques, gripper_tau);
    } catch (const std::exception& e) {
        std::cout << "masterRedundancyTau error: " << e.what() << std::endl;
    }
}

// ---- mode set-up ----

namespace {

// Master into drag mode, slave into MIT mode; both calls are made whatever the
// first returns.
bool enterDragAndMitModes() {
    // Control modes share their numbers with the modes the frames report.
    const int master_result = kelm1_->set_control_mode(kelm::CURRENT);  // drag
    const int slave_result = kelm2_->set_control_mode(kelm::MIT);
    if (master_result != 1 || slave_result != 1) {
        std::cout << "初始化失败！！！请检查机器是否连接或者有错误." << std::endl;
        return false;
    }
    std::cout << "主臂kelm1进入拖动模式, 从臂kelm2进入MIT模式." << std::endl;
    return true;
}

}  // namespace

bool setupJointRemote() {
    if (!enterDragAndMitModes()) return false;
    kelm1_->register_get_tele_master_data_callback("slaveJointTracking", slaveJointTracking);
    std::cout << "遥操同步成功，可以拖动主臂." << std::endl;
    return true;
}

bool setupPoseRemote() {
    if (!enterDragAndMitModes()) return false;
    kelm1_->register_get_pose_callback("slavePoseTracking", slavePoseTracking);
    std::cout << "遥操同步成功，可以拖动主臂." << std::endl;
    return true;
}

bool setupForceFeedbackRemote() {
    const int master_result = kelm1_->set_teleoperation_mode(1);
    const int slave_result = kelm2_->set_teleoperation_mode(2);
    if (master_result != 1 || slave_result != 1) {
        std::cout << "初始化失败！！！请检查机器是否连接或者有错误." << std::endl;
        return false;
    }
    std::cout << "主臂kelm1进入主臂模式, 从臂kelm2进入从臂模式." << std::endl;
    kelm1_->register_get_tele_master_data_callback("slaveJointTracking", slaveJointTracking);
    kelm2_->register_get_tele_slave_data_callback("masterRedundancyTau", masterRedundancyTau);
    std::cout << "遥操同步成功，可以拖动主臂." << std::endl;
    return true;
}

// ---- entry ----

void print_usage(const char* program_name) {
    std::cout << "用法: " << program_name << " [选项]" << std::endl
              << "选项:" << std::endl
              << "  --mode MODE     模式选择 0:普通关节同臂遥操，1:笛卡尔末端遥操，2:力反馈同臂遥操 (默认: 0)"
              << std::endl
              << "  --ip IP         设置主臂的IP地址 (默认: 10.42.0.102)" << std::endl
              << "  --force clamping force       设置夹持力 (默认: 10.0)" << std::endl
              << "  --mirror mirror control      镜像操作 (默认: 0 (false))" << std::endl
              << "  -h, --help      显示此帮助信息" << std::endl;
}

void signal_handler(int signal) {
    if (signal != SIGINT) return;
    std::cout << std::endl << "捕获到 Ctrl+C, 准备退出..." << std::endl;
    ctrl_c_flag = 1;
    running = 0;
}

namespace {

enum class ParseOutcome { Run, ExitSuccess, ExitFailure };

// Applies the options one by one as they appear, so that settings before -h
// or before a bad option have no effect. A number that does not parse throws
// from std::stoi / std::stod and is not caught.
ParseOutcome parseOptions(int argc, char* argv[]) {
    static const struct option long_options[] = {
        {"mode", required_argument, nullptr, 'm'},  {"ip", required_argument, nullptr, 'i'},
        {"force", required_argument, nullptr, 'f'}, {"mirror", required_argument, nullptr, 'r'},
        {"help", no_argument, nullptr, 'h'},        {nullptr, 0, nullptr, 0},
    };
    int option;
    while ((option = getopt_long(argc, argv, "m:i:f:r:h", long_options, nullptr)) != -1) {
        switch (option) {
            case 'm': remote_mode = std::stoi(optarg); break;
            case 'i': master_IP = optarg; break;
            case 'f': {
                const double force = std::stod(optarg);
                if (force > 0.0) {
                    clamping_force = force;
                } else {
                    std::cout << "夹持力必须大于0夹爪才能移动" << std::endl;
                }
                break;
            }
            case 'r': mirror_control = std::stoi(optarg) != 0; break;
            case 'h': print_usage(argv[0]); return ParseOutcome::ExitSuccess;
            default: print_usage(argv[0]); return ParseOutcome::ExitFailure;
        }
    }
    return ParseOutcome::Run;
}

bool setupRemoteMode() {
    switch (remote_mode) {
        case 0: std::cout << "启动普通关节同臂遥操" << std::endl; return setupJointRemote();
        case 1: std::cout << "启动笛卡尔末端遥操" << std::endl; return setupPoseRemote();
        case 2: std::cout << "启动力反馈同臂遥操" << std::endl; return setupForceFeedbackRemote();
        default: std::cout << "无效的遥操作模式" << std::endl; return false;
    }
}

// Sleeps in steps of 100 ms until Ctrl+C or an error event.
void runLoop() {
    try {
        while (running != 0) {
            usleep(100000);
            if (error_flag) {
                std::cout << "检测到错误，准备退出..." << std::endl;
                break;
            }
        }
    } catch (const std::exception& e) {
        std::cout << "主循环异常: " << e.what() << std::endl;
    }
}

// Puts both arms back into position control; the only thing the tool tells
// the controllers when leaving.
void restorePositionMode() {
    std::cout << "退出遥操，臂恢复为位置模式." << std::endl;
    try {
        kelm1_->set_control_mode(kelm::POSITION);
        kelm2_->set_control_mode(kelm::POSITION);
    } catch (const std::exception& e) {
        std::cout << "设置位置模式时出错: " << e.what() << std::endl;
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    switch (parseOptions(argc, argv)) {
        case ParseOutcome::ExitSuccess: return 0;
        case ParseOutcome::ExitFailure: return 1;
        case ParseOutcome::Run: break;
    }

    struct sigaction action = {};
    action.sa_handler = signal_handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    if (sigaction(SIGINT, &action, nullptr) == -1) {
        std::cerr << "无法注册信号处理器" << std::endl;
        return 1;
    }

    if (!initializeArms()) return 1;
    if (!moveToHomePosition()) {
        std::cout << "初始化同步位置失敗" << std::endl;
        return 1;
    }
    if (!setupRemoteMode()) return 1;

    std::cout << "程序运行中... 按 Ctrl+C 退出" << std::endl;
    runLoop();
    restorePositionMode();
    return 0;
}
