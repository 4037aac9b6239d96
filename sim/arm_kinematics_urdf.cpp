// Reading an arm model from URDF: urdfdom parses the file, kdl_parser turns
// it into a KDL tree, and the chain from the root to tool0 becomes the
// model's joints. Acceleration and jerk limits, which URDF has no place for,
// are read from the same <limit> elements with tinyxml2.
#include <tinyxml2.h>
#include <unistd.h>
#include <urdf_parser/urdf_parser.h>
#include <kdl/tree.hpp>
#include <kdl_parser/kdl_parser.hpp>

#include <cmath>
#include <fstream>
#include <limits>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>

#include "arm_kinematics.h"

namespace kelm {
namespace sim {
namespace {

constexpr const char* kToolLink = "tool0";
constexpr const char* kDefaultModelFile = "industrial_arm.urdf";
// Used where a joint's <limit> names no acceleration or jerk.
constexpr double kAccelerationPerVelocity = 4.0;  // [1/s]
constexpr double kJerkPerAcceleration = 5.0;      // [1/s]

struct DynamicLimits {
    double acceleration = std::numeric_limits<double>::quiet_NaN();
    double jerk = std::numeric_limits<double>::quiet_NaN();
};

std::map<std::string, DynamicLimits> readDynamicLimits(const std::string& xml) {
    std::map<std::string, DynamicLimits> limits;
    tinyxml2::XMLDocument document;
    if (document.Parse(xml.c_str()) != tinyxml2::XML_SUCCESS) return limits;
    const tinyxml2::XMLElement* robot = document.FirstChildElement("robot");
    for (const auto* joint = robot ? robot->FirstChildElement("joint") : nullptr; joint;
         joint = joint->NextSiblingElement("joint")) {
        const tinyxml2::XMLElement* limit = joint->FirstChildElement("limit");
        const char* name = joint->Attribute("name");
        if (!limit || !name) continue;
        DynamicLimits& entry = limits[name];
        limit->QueryDoubleAttribute("acceleration", &entry.acceleration);
        limit->QueryDoubleAttribute("jerk", &entry.jerk);
    }
    return limits;
}

void addLimits(const std::string& path, const urdf::Joint& joint, const DynamicLimits& dynamic, JointLimits& limits) {
    if (joint.type != urdf::Joint::REVOLUTE || !joint.limits)
        throw std::runtime_error("arm model " + path + ": joint " + joint.name +
                                 " is not a revolute joint with limits");
    const double acceleration =
        std::isnan(dynamic.acceleration) ? kAccelerationPerVelocity * joint.limits->velocity : dynamic.acceleration;
    limits.lower.push_back(joint.limits->lower);
    limits.upper.push_back(joint.limits->upper);
    limits.vel.push_back(joint.limits->velocity);
    limits.acc.push_back(acceleration);
    limits.dec.push_back(acceleration);
    limits.jerk.push_back(std::isnan(dynamic.jerk) ? kJerkPerAcceleration * acceleration : dynamic.jerk);
}

// The directory of the running program.
std::string programDirectory() {
    char buffer[4096];
    const ssize_t length = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
    if (length <= 0) return ".";
    const std::string path(buffer, static_cast<size_t>(length));
    return path.substr(0, path.find_last_of('/'));
}

std::mutex model_mutex;
std::shared_ptr<const ArmModel> model_in_use;

}  // namespace

std::string readArmModelFile(const std::string& path) {
    std::ifstream file(path);
    if (!file) throw std::runtime_error("arm model " + path + ": cannot be read");
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::shared_ptr<const ArmModel> loadArmModel(const std::string& urdf_path) {
    const std::string xml = readArmModelFile(urdf_path);
    const urdf::ModelInterfaceSharedPtr urdf_model = urdf::parseURDF(xml);
    if (!urdf_model) throw std::runtime_error("arm model " + urdf_path + ": not a valid URDF");
    KDL::Tree tree;
    if (!kdl_parser::treeFromUrdfModel(*urdf_model, tree))
        throw std::runtime_error("arm model " + urdf_path + ": no kinematic tree");
    KDL::Chain chain;
    if (!tree.getChain(urdf_model->getRoot()->name, kToolLink, chain))
        throw std::runtime_error("arm model " + urdf_path + ": no chain from the root link to " + kToolLink);

    auto model = std::make_shared<ArmModel>();
    model->path = urdf_path;
    const std::map<std::string, DynamicLimits> dynamic = readDynamicLimits(xml);
    KDL::Frame fixed = KDL::Frame::Identity();  // fixed joints since the last revolute one
    for (const KDL::Segment& segment : chain.segments) {
        const KDL::Joint& joint = segment.getJoint();
        const KDL::Frame origin = fixed * segment.pose(0.0);
        if (joint.getType() == KDL::Joint::Fixed) {
            fixed = origin;
            continue;
        }
        const urdf::JointConstSharedPtr urdf_joint = urdf_model->getJoint(joint.getName());
        const auto entry = dynamic.find(joint.getName());
        addLimits(urdf_path, *urdf_joint, entry == dynamic.end() ? DynamicLimits{} : entry->second, model->limits);
        model->effort.push_back(urdf_joint->limits->effort);
        // kdl_parser gives the axis in the parent link's frame.
        model->joints.push_back({joint.getName(), origin, segment.pose(0.0).M.Inverse() * joint.JointAxis()});
        fixed = KDL::Frame::Identity();
    }
    if (model->joints.empty()) throw std::runtime_error("arm model " + urdf_path + ": no revolute joint before tool0");
    model->tool = fixed;
    return model;
}

std::string defaultArmModelPath() {
    const std::string beside_program = programDirectory() + "/../share/kelm/models/" + kDefaultModelFile;
    if (std::ifstream(beside_program)) return beside_program;
    return std::string(KELM_SIM_SOURCE_MODEL_DIR) + "/" + kDefaultModelFile;
}

void useArmModel(const std::string& urdf_path) {
    std::shared_ptr<const ArmModel> model = loadArmModel(urdf_path);
    std::lock_guard<std::mutex> lock(model_mutex);
    model_in_use = std::move(model);
}

const ArmModel& armModel() {
    std::lock_guard<std::mutex> lock(model_mutex);
    if (!model_in_use) model_in_use = loadArmModel(defaultArmModelPath());
    return *model_in_use;
}

JointLimits defaultJointLimits(int dof) {
    const JointLimits& all = armModel().limits;
    if (dof < 0 || dof > static_cast<int>(all.lower.size()))
        throw std::invalid_argument("arm dof exceeds the model's joints");
    const auto first = [dof](const std::vector<double>& values) {
        return std::vector<double>(values.begin(), values.begin() + dof);
    };
    return {first(all.lower), first(all.upper), first(all.vel), first(all.acc), first(all.dec), first(all.jerk)};
}

}  // namespace sim
}  // namespace kelm
