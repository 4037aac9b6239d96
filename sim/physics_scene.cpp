#include "physics_scene.h"

#include <cmath>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>

#include "arm_kinematics.h"
#include "log_manager.h"
#include "mjcf_arm.h"

namespace kelm {
namespace sim {
namespace {

constexpr double kCubeShift = 0.03;      // [m] largest seeded shift of a cube on the table, per axis
constexpr double kCubeTurn = 0.5;        // [rad] largest seeded turn of a cube about the vertical
constexpr double kRestingSpeed = 0.02;   // [m/s] below which a cube is at rest
constexpr double kRestingHeight = 0.01;  // [m] a resting cube's centre is at most this above cube_half over the area
constexpr double kRangeTolerance = 1e-6;

// MuJoCo's default handler ends the process; the simulator reports instead.
void throwError(const char* message) { throw std::runtime_error(message); }
void logWarning(const char* message) { KELM_LOG(LOG_ERROR, "physics: %s", message); }

struct ErrorHandlers {
    ErrorHandlers() {
        mju_user_error = throwError;
        mju_user_warning = logWarning;
    }
};

void installErrorHandlers() { static const ErrorHandlers installed; }

void addGeneratedFile(mjVFS& vfs, const std::string& name, const std::string& text) {
    if (mj_makeEmptyFileVFS(&vfs, name.c_str(), static_cast<int>(text.size())) != 0)
        throw std::runtime_error("cannot hold " + name + " in memory");
    std::memcpy(vfs.filedata[mj_findFileVFS(&vfs, name.c_str())], text.data(), text.size());
}

KDL::Frame frameOf(const mjtNum* position, const mjtNum* matrix) {
    return KDL::Frame(KDL::Rotation(matrix[0], matrix[1], matrix[2], matrix[3], matrix[4], matrix[5], matrix[6],
                                    matrix[7], matrix[8]),
                      KDL::Vector(position[0], position[1], position[2]));
}

int findId(const mjModel& model, mjtObj type, const std::string& name) {
    return mj_name2id(&model, type, name.c_str());
}

std::string parentDirectory(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

bool readable(const std::string& path) { return static_cast<bool>(std::ifstream(path)); }

// A scene that places more arms than the controller has would leave the
// extra ones without motors.
void refuseExtraArms(const std::string& scene_path, int arms) {
    std::ifstream file(scene_path);
    std::ostringstream text;
    text << file.rdbuf();
    for (int extra = arms; extra < 10; ++extra) {
        if (text.str().find("\"" + armIncludeFile(extra) + "\"") != std::string::npos)
            throw std::runtime_error("scene " + scene_path + ": places arm " + std::to_string(extra) + ", beyond the " +
                                     std::to_string(arms) + " arm(s) of --arms");
    }
}

}  // namespace

std::string resolveScenePath(const std::string& name) {
    if (readable(name) || name.find('/') != std::string::npos) return name;
    // Scenes lie beside the arm models: share/kelm/{models,scenes}.
    const std::string scenes = parentDirectory(parentDirectory(defaultArmModelPath())) + "/scenes/";
    for (const std::string& candidate : {scenes + name, scenes + name + ".xml"})
        if (readable(candidate)) return candidate;
    return name;
}

PhysicsScene::PhysicsScene(const std::string& scene_path, const std::string& urdf_path, int arms, int dof,
                           std::uint32_t seed)
    : path_(scene_path) {
    installErrorHandlers();
    if (!readable(scene_path)) throw std::runtime_error("scene " + scene_path + ": cannot be read");
    refuseExtraArms(scene_path, arms);
    auto vfs = std::make_unique<mjVFS>();
    mj_defaultVFS(vfs.get());
    for (int i = 0; i < arms; ++i) addGeneratedFile(*vfs, armIncludeFile(i), armMjcf(urdf_path, dof, armPrefix(i)));
    char error[1024] = "";
    try {
        model_ = mj_loadXML(scene_path.c_str(), vfs.get(), error, sizeof(error));
    } catch (const std::exception& failure) {
        std::snprintf(error, sizeof(error), "%s", failure.what());
    }
    mj_deleteVFS(vfs.get());
    if (!model_) throw std::runtime_error("scene " + scene_path + ": " + error);
    data_ = mj_makeData(model_);
    initial_qpos_.assign(model_->qpos0, model_->qpos0 + model_->nq);
    try {
        for (int i = 0; i < arms; ++i) {
            findArm(i, dof);
            findTask(i);
        }
    } catch (...) {
        mj_deleteData(data_);
        mj_deleteModel(model_);
        throw;
    }
    placeObjects(seed);
}

PhysicsScene::~PhysicsScene() {
    mj_deleteData(data_);
    mj_deleteModel(model_);
}

void PhysicsScene::findArm(int index, int dof) {
    const std::string prefix = armPrefix(index);
    const auto problem = [&](const std::string& what) { return std::runtime_error("scene " + path_ + ": " + what); };
    ArmHandles arm;
    arm.base_body = findId(*model_, mjOBJ_BODY, prefix + "base_link");
    if (arm.base_body < 0)
        throw problem("no arm " + std::to_string(index) + " (a body holding <include file=\"" + armIncludeFile(index) +
                      "\"/>)");
    for (int j = 0; j < model_->njnt; ++j) {
        const char* name = mj_id2name(model_, mjOBJ_JOINT, j);
        if (!name || std::strncmp(name, prefix.c_str(), prefix.size()) != 0) continue;
        if (model_->jnt_type[j] != mjJNT_HINGE) continue;
        arm.qpos.push_back(model_->jnt_qposadr[j]);
        arm.dof.push_back(model_->jnt_dofadr[j]);
    }
    if (static_cast<int>(arm.qpos.size()) != dof)
        throw problem("arm " + std::to_string(index) + " has " + std::to_string(arm.qpos.size()) + " joints, not the " +
                      std::to_string(dof) + " of --dof");
    for (int side = 0; side < 2; ++side) {
        const int joint = findId(*model_, mjOBJ_JOINT, prefix + (side == 0 ? kLeftFinger : kRightFinger));
        if (joint < 0) throw problem("arm " + std::to_string(index) + " has no gripper");
        arm.finger_qpos[side] = model_->jnt_qposadr[joint];
        arm.finger_dof[side] = model_->jnt_dofadr[joint];
    }
    // Ranges written in radians read as degrees unless the scene says otherwise.
    const int first_joint = model_->dof_jntid[arm.dof.front()];
    if (model_->jnt_limited[first_joint] && std::fabs(model_->jnt_range[2 * first_joint + 1]) < 0.1 &&
        std::fabs(model_->jnt_range[2 * first_joint + 1]) > kRangeTolerance)
        throw problem("joint ranges read as degrees: the scene needs <compiler angle=\"radian\"/>");
    arm.flange_site = findId(*model_, mjOBJ_SITE, prefix + kFlangeSite);
    arm.grasp_site = findId(*model_, mjOBJ_SITE, prefix + kGraspSite);
    const int flange_body = model_->site_bodyid[arm.flange_site];
    arm.member.assign(model_->nbody, false);
    arm.beyond_flange.assign(model_->nbody, false);
    for (int body = 1; body < model_->nbody; ++body) {
        for (int up = body; up > 0; up = model_->body_parentid[up]) {
            if (up == flange_body) arm.beyond_flange[body] = true;
            if (up == arm.base_body) arm.member[body] = true;
        }
    }
    arms_.push_back(std::move(arm));
}

void PhysicsScene::findTask(int index) {
    const std::string prefix = armPrefix(index);
    TaskObjects task;
    task.cube_body = findId(*model_, mjOBJ_BODY, prefix + "cube");
    task.target_site = findId(*model_, mjOBJ_SITE, prefix + "target");
    if (index == 0 && task.cube_body < 0) task.cube_body = findId(*model_, mjOBJ_BODY, "cube");
    if (index == 0 && task.target_site < 0) task.target_site = findId(*model_, mjOBJ_SITE, "target_area");
    if (task.cube_body >= 0) {
        const int joint = model_->body_jntadr[task.cube_body];
        if (joint < 0 || model_->jnt_type[joint] != mjJNT_FREE)
            throw std::runtime_error("scene " + path_ + ": the cube of arm " + std::to_string(index) +
                                     " is not a free body");
        task.cube_qpos = model_->jnt_qposadr[joint];
        task.cube_dof = model_->jnt_dofadr[joint];
        const int geom = model_->body_geomadr[task.cube_body];
        task.cube_half = geom >= 0 ? model_->geom_size[3 * geom + 2] : 0.0;
    }
    if ((task.cube_body >= 0) != (task.target_site >= 0))
        throw std::runtime_error("scene " + path_ + ": arm " + std::to_string(index) +
                                 " has a cube without a target area, or a target area without a cube");
    tasks_.push_back(task);
}

void PhysicsScene::placeObjects(std::uint32_t seed) {
    for (std::size_t i = 0; i < tasks_.size(); ++i) {
        const TaskObjects& task = tasks_[i];
        if (task.cube_body < 0) continue;
        std::mt19937 random(seed * 1000003u + static_cast<std::uint32_t>(i));
        std::uniform_real_distribution<double> shift(-kCubeShift, kCubeShift), turn(-kCubeTurn, kCubeTurn);
        mjtNum* qpos = data_->qpos + task.cube_qpos;
        const mjtNum* initial = initial_qpos_.data() + task.cube_qpos;
        qpos[0] = initial[0] + shift(random);
        qpos[1] = initial[1] + shift(random);
        qpos[2] = initial[2];
        const double yaw = turn(random);
        const mjtNum about_z[4] = {std::cos(yaw / 2), 0.0, 0.0, std::sin(yaw / 2)};
        mju_mulQuat(qpos + 3, about_z, initial + 3);
        for (int k = 0; k < 6; ++k) data_->qvel[task.cube_dof + k] = 0.0;
    }
    mj_forward(model_, data_);
}

KDL::Frame PhysicsScene::baseFrame(int arm) const {
    const int body = arms_.at(arm).base_body;
    return frameOf(data_->xpos + 3 * body, data_->xmat + 9 * body);
}

KDL::Frame PhysicsScene::siteFrame(int site) const {
    return frameOf(data_->site_xpos + 3 * site, data_->site_xmat + 9 * site);
}

TaskLayout PhysicsScene::taskLayout(int arm) const {
    TaskLayout layout;
    const TaskObjects& task = tasks_.at(arm);
    const ArmHandles& handles = arms_.at(arm);
    layout.grasp_in_flange = siteFrame(handles.flange_site).Inverse() * siteFrame(handles.grasp_site);
    if (task.cube_body < 0) return layout;
    const KDL::Frame world_to_base = baseFrame(arm).Inverse();
    layout.present = true;
    layout.cube = world_to_base * frameOf(data_->xpos + 3 * task.cube_body, data_->xmat + 9 * task.cube_body);
    layout.cube_half = task.cube_half;
    layout.target = world_to_base * siteFrame(task.target_site);
    const mjtNum* size = model_->site_size + 3 * task.target_site;
    layout.target_half = KDL::Vector(size[0], size[1], size[2]);
    return layout;
}

TaskOutcome PhysicsScene::outcome(int arm) const {
    TaskOutcome outcome;
    const TaskObjects& task = tasks_.at(arm);
    if (task.cube_body < 0) return outcome;
    outcome.present = true;
    const mjtNum* cube = data_->xpos + 3 * task.cube_body;
    outcome.cube = KDL::Vector(cube[0], cube[1], cube[2]);
    const KDL::Vector in_area = siteFrame(task.target_site).Inverse() * outcome.cube;
    const mjtNum* half = model_->site_size + 3 * task.target_site;
    outcome.in_area = std::fabs(in_area.x()) <= half[0] && std::fabs(in_area.y()) <= half[1] &&
                      in_area.z() <= task.cube_half + kRestingHeight;
    const mjtNum* velocity = data_->qvel + task.cube_dof;
    outcome.resting =
        std::sqrt(velocity[0] * velocity[0] + velocity[1] * velocity[1] + velocity[2] * velocity[2]) < kRestingSpeed;
    return outcome;
}

ContactLoads PhysicsScene::contactLoads(int arm) const {
    const ArmHandles& handles = arms_.at(arm);
    ContactLoads loads;
    loads.joint_tau.assign(handles.dof.size(), 0.0);
    std::vector<mjtNum> jacp(3 * model_->nv), jacr(3 * model_->nv);
    const KDL::Frame base = baseFrame(arm);
    const KDL::Vector flange = siteFrame(handles.flange_site).p;
    KDL::Vector force_sum, torque_sum;
    for (int c = 0; c < data_->ncon; ++c) {
        const mjContact& contact = data_->contact[c];
        const int body1 = model_->geom_bodyid[contact.geom1], body2 = model_->geom_bodyid[contact.geom2];
        const bool on1 = handles.member[body1], on2 = handles.member[body2];
        if (on1 == on2) continue;  // not this arm's, or within it
        mjtNum local[6];
        mj_contactForce(model_, data_, c, local);
        // The contact frame's rows are its axes; the force acts on geom2 along the normal.
        mjtNum world[6];
        mju_mulMatTVec(world, contact.frame, local, 3, 3);
        mju_mulMatTVec(world + 3, contact.frame, local + 3, 3, 3);
        const double sign = on2 ? 1.0 : -1.0;
        const KDL::Vector force(sign * world[0], sign * world[1], sign * world[2]);
        const KDL::Vector torque(sign * world[3], sign * world[4], sign * world[5]);
        const int body = on2 ? body2 : body1;
        loads.largest_normal = std::max(loads.largest_normal, std::fabs(local[0]));
        mj_jac(model_, data_, jacp.data(), jacr.data(), contact.pos, body);
        for (std::size_t j = 0; j < handles.dof.size(); ++j) {
            const int column = handles.dof[j];
            double tau = 0.0;
            for (int row = 0; row < 3; ++row) {
                tau += jacp[row * model_->nv + column] * force[row];
                tau += jacr[row * model_->nv + column] * torque[row];
            }
            loads.joint_tau[j] += tau;
        }
        if (!handles.beyond_flange[body]) continue;
        const KDL::Vector point(contact.pos[0], contact.pos[1], contact.pos[2]);
        force_sum += force;
        torque_sum += torque + (point - flange) * force;
    }
    const KDL::Vector base_force = base.M.Inverse() * force_sum, base_torque = base.M.Inverse() * torque_sum;
    for (int k = 0; k < 3; ++k) {
        loads.flange_wrench[k] = base_force[k];
        loads.flange_wrench[3 + k] = base_torque[k];
    }
    return loads;
}

}  // namespace sim
}  // namespace kelm
