// URDF to MJCF: urdfdom reads the links and joints, and the body tree is
// written link by link from the root, each body placed where its joint is.
#include "mjcf_arm.h"

#include "arm_kinematics.h"

#include <urdf_parser/urdf_parser.h>

#include <cmath>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace kelm {
namespace sim {
namespace {

constexpr const char* kToolLink = "tool0";
// Reflected motor inertia and viscous friction of each joint: what keeps a
// stiff servo on light wrist links stable at the simulator's time step.
constexpr double kRevoluteArmature = 0.1;  // [kg m^2]
constexpr double kRevoluteDamping = 0.5;   // [Nm s/rad]
constexpr double kFingerArmature = 0.2;    // [kg]
constexpr double kFingerDamping = 5.0;     // [N s/m]
// Arm geometry is of contact type 1 and affinity 2: it meets the scene's
// geometry (type and affinity 1 by default) but never its own.
constexpr const char* kArmContact = "contype=\"1\" conaffinity=\"2\"";
// Rubber-like pads: sliding, torsional and rolling friction.
constexpr const char* kArmFriction = "condim=\"4\" friction=\"1.5 0.05 0.0001\"";
constexpr const char* kGraspOffset = "0 0 0.06";  // [m] in tool0: between the fingertips, 2 cm short of them

std::string placement(const urdf::Pose& pose) {
    std::ostringstream out;
    out << "pos=\"" << pose.position.x << ' ' << pose.position.y << ' ' << pose.position.z << "\" quat=\""
        << pose.rotation.w << ' ' << pose.rotation.x << ' ' << pose.rotation.y << ' ' << pose.rotation.z << '"';
    return out.str();
}

std::string shape(const urdf::Geometry& geometry, const std::string& path, const std::string& link) {
    std::ostringstream out;
    switch (geometry.type) {
        case urdf::Geometry::BOX: {
            const auto& box = static_cast<const urdf::Box&>(geometry);
            out << "type=\"box\" size=\"" << box.dim.x / 2 << ' ' << box.dim.y / 2 << ' ' << box.dim.z / 2 << '"';
            break;
        }
        case urdf::Geometry::CYLINDER: {
            const auto& cylinder = static_cast<const urdf::Cylinder&>(geometry);
            out << "type=\"cylinder\" size=\"" << cylinder.radius << ' ' << cylinder.length / 2 << '"';
            break;
        }
        case urdf::Geometry::SPHERE:
            out << "type=\"sphere\" size=\"" << static_cast<const urdf::Sphere&>(geometry).radius << '"';
            break;
        default:
            throw std::runtime_error("arm model " + path + ": link " + link +
                                     " has a mesh, which the physics scene does not read");
    }
    return out.str();
}

class ArmWriter {
public:
    ArmWriter(const urdf::ModelInterface& model, const std::string& path, int dof, const std::string& prefix)
        : model_(model), path_(path), dof_(dof), prefix_(prefix) {}

    std::string write() {
        out_ << "<mujoco>\n";
        writeLink(*model_.getRoot(), nullptr, 1);
        out_ << "</mujoco>\n";
        if (revolute_seen_ < dof_)
            throw std::runtime_error("arm model " + path_ + ": " + std::to_string(revolute_seen_) +
                                     " revolute joints, fewer than the " + std::to_string(dof_) + " asked for");
        if (fingers_seen_ != 2)
            throw std::runtime_error("arm model " + path_ + ": no gripper (prismatic joints " + kLeftFinger + " and " +
                                     kRightFinger + " under " + kToolLink + ")");
        return out_.str();
    }

private:
    // The link's body, placed where `joint` (null for the root) puts it and
    // moving on that joint.
    void writeLink(const urdf::Link& link, const urdf::Joint* joint, int depth) {
        const std::string indent(2 * depth, ' ');
        const urdf::Pose origin = joint ? joint->parent_to_joint_origin_transform : urdf::Pose();
        out_ << indent << "<body name=\"" << prefix_ << link.name << "\" " << placement(origin) << ">\n";
        if (joint) writeJoint(*joint, indent + "  ");
        if (depth > 1)
            writeInertial(link, indent + "  ");
        else  // fixed to its mount: MuJoCo still wants a mass, which no motion feels
            out_ << indent << "  <inertial pos=\"0 0 0\" mass=\"1\" diaginertia=\"0.01 0.01 0.01\"/>\n";
        // The flange of an arm of `dof` joints is where the next revolute
        // joint sits, or tool0 when there is none.
        if (flange_pending_ || (link.name == kToolLink && !flange_written_)) writeFlange(indent + "  ");
        if (link.name == kToolLink) {
            out_ << indent << "  <site name=\"" << prefix_ << kGraspSite << "\" pos=\"" << kGraspOffset
                 << "\" size=\"0.005\"/>\n";
        }
        for (const auto& visual : link.visual_array) writeVisual(*visual, link.name, indent + "  ");
        for (const auto& collision : link.collision_array) writeCollision(*collision, link.name, indent + "  ");
        for (const auto& child : link.child_joints)
            writeLink(*model_.getLink(child->child_link_name), child.get(), depth + 1);
        out_ << indent << "</body>\n";
    }

    void writeFlange(const std::string& indent) {
        out_ << indent << "<site name=\"" << prefix_ << kFlangeSite << "\" size=\"0.005\"/>\n";
        flange_pending_ = false;
        flange_written_ = true;
    }

    void writeInertial(const urdf::Link& link, const std::string& indent) {
        if (!link.inertial || link.inertial->mass <= 0.0)
            throw std::runtime_error("arm model " + path_ + ": link " + link.name + " has no <inertial> with a mass");
        const urdf::Inertial& in = *link.inertial;
        if (std::fabs(std::fabs(in.origin.rotation.w) - 1.0) > 1e-9)
            throw std::runtime_error("arm model " + path_ + ": link " + link.name +
                                     " has its inertia in a turned frame, which the physics scene does not read");
        const urdf::Vector3& at = in.origin.position;
        out_ << indent << "<inertial pos=\"" << at.x << ' ' << at.y << ' ' << at.z << "\" mass=\"" << in.mass
             << "\" fullinertia=\"" << in.ixx << ' ' << in.iyy << ' ' << in.izz << ' ' << in.ixy << ' ' << in.ixz << ' '
             << in.iyz << "\"/>\n";
    }

    void writeVisual(const urdf::Visual& visual, const std::string& link, const std::string& indent) {
        out_ << indent << "<geom " << shape(*visual.geometry, path_, link) << ' ' << placement(visual.origin)
             << " contype=\"0\" conaffinity=\"0\" group=\"1\" mass=\"0\"";
        if (visual.material) {
            const urdf::Color& c = visual.material->color;
            out_ << " rgba=\"" << c.r << ' ' << c.g << ' ' << c.b << ' ' << c.a << '"';
        }
        out_ << "/>\n";
    }

    void writeCollision(const urdf::Collision& collision, const std::string& link, const std::string& indent) {
        out_ << indent << "<geom name=\"" << prefix_ << link << "_collision" << collision_count_++ << "\" "
             << shape(*collision.geometry, path_, link) << ' ' << placement(collision.origin) << ' ' << kArmContact
             << ' ' << kArmFriction << " group=\"3\" mass=\"0\" rgba=\"0.5 0.5 0.5 0.3\"/>\n";
    }

    void writeJoint(const urdf::Joint& joint, const std::string& indent) {
        const urdf::Vector3& axis = joint.axis;
        std::ostringstream axis_text;
        axis_text << "axis=\"" << axis.x << ' ' << axis.y << ' ' << axis.z << '"';
        if (joint.type == urdf::Joint::REVOLUTE || joint.type == urdf::Joint::CONTINUOUS) {
            if (revolute_seen_++ >= dof_) {  // welded at 0
                flange_pending_ = !flange_written_;
                return;
            }
            out_ << indent << "<joint name=\"" << prefix_ << joint.name << "\" type=\"hinge\" " << axis_text.str()
                 << " armature=\"" << kRevoluteArmature << "\" damping=\"" << kRevoluteDamping << '"';
            if (joint.limits && joint.type == urdf::Joint::REVOLUTE)
                out_ << " limited=\"true\" range=\"" << joint.limits->lower << ' ' << joint.limits->upper << '"';
            out_ << "/>\n";
            return;
        }
        if (joint.type == urdf::Joint::PRISMATIC) {
            if (joint.name == kLeftFinger || joint.name == kRightFinger) ++fingers_seen_;
            out_ << indent << "<joint name=\"" << prefix_ << joint.name << "\" type=\"slide\" " << axis_text.str()
                 << " armature=\"" << kFingerArmature << "\" damping=\"" << kFingerDamping << "\" limited=\"true\"";
            if (joint.limits) out_ << " range=\"" << joint.limits->lower << ' ' << joint.limits->upper << '"';
            out_ << "/>\n";
        }
    }

    const urdf::ModelInterface& model_;
    const std::string& path_;
    const int dof_;
    const std::string& prefix_;
    std::ostringstream out_;
    int revolute_seen_ = 0;
    int fingers_seen_ = 0;
    int collision_count_ = 0;
    bool flange_pending_ = false;
    bool flange_written_ = false;
};

}  // namespace

std::string armPrefix(int arm) { return "arm" + std::to_string(arm) + "_"; }

std::string armIncludeFile(int arm) { return "arm" + std::to_string(arm) + ".xml"; }

std::string armMjcf(const std::string& urdf_path, int dof, const std::string& prefix) {
    const urdf::ModelInterfaceSharedPtr model = urdf::parseURDF(readArmModelFile(urdf_path));
    if (!model) throw std::runtime_error("arm model " + urdf_path + ": not a valid URDF");
    return ArmWriter(*model, urdf_path, dof, prefix).write();
}

}  // namespace sim
}  // namespace kelm
