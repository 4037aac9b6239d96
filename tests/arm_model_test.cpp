// Arm models read from URDF: the kinematics agree with KDL's own solver on
// the parsed tree for any joint axis, limits come from <limit>, and broken
// files are refused with a reason.
#include <gtest/gtest.h>
#include <kdl/chainfksolverpos_recursive.hpp>
#include <kdl/tree.hpp>
#include <kdl_parser/kdl_parser.hpp>

#include <cstdio>
#include <fstream>
#include <random>
#include <string>

#include "arm_kinematics.h"

namespace kelm {
namespace sim {
namespace {

// Three revolute joints about x, a tilted axis and -y, a fixed joint between
// the first two, and tool0 off the last joint.
const char* kTiltedArm = R"(<robot name="tilted">
  <link name="base"/><link name="a"/><link name="a_fixed"/><link name="b"/><link name="c"/><link name="tool0"/>
  <joint name="j1" type="revolute"><parent link="base"/><child link="a"/><origin xyz="0 0 0.3" rpy="0.2 0 0"/>
    <axis xyz="1 0 0"/><limit lower="-1" upper="1" velocity="2" effort="1" acceleration="9" jerk="90"/></joint>
  <joint name="fix" type="fixed"><parent link="a"/><child link="a_fixed"/><origin xyz="0.1 0 0.2" rpy="0 0.3 0"/></joint>
  <joint name="j2" type="revolute"><parent link="a_fixed"/><child link="b"/><origin xyz="0 0.2 0" rpy="0 0 0.5"/>
    <axis xyz="0.6 0 0.8"/><limit lower="-2" upper="2" velocity="3" effort="1"/></joint>
  <joint name="j3" type="revolute"><parent link="b"/><child link="c"/><origin xyz="0.25 0 0" rpy="0 0 0"/>
    <axis xyz="0 -1 0"/><limit lower="-3" upper="3" velocity="1" effort="1"/></joint>
  <joint name="flange" type="fixed"><parent link="c"/><child link="tool0"/><origin xyz="0 0 0.05" rpy="0 0 0"/></joint>
</robot>)";

std::string writeModel(const std::string& name, const std::string& text) {
    const std::string path = ::testing::TempDir() + name;
    std::ofstream(path) << text;
    return path;
}

TEST(ArmModel, KinematicsMatchKdlOnTheParsedTreeForAnyAxis) {
    const std::string path = writeModel("tilted.urdf", kTiltedArm);
    const auto model = loadArmModel(path);
    KDL::Tree tree;
    ASSERT_TRUE(kdl_parser::treeFromFile(path, tree));
    std::mt19937 random(3);
    for (int dof : {2, 3}) {
        // An arm of two joints ends where the third sits.
        KDL::Chain chain;
        ASSERT_TRUE(tree.getChain("base", dof == 3 ? "tool0" : "c", chain));
        const ArmKinematics kinematics(dof, *model);
        KDL::ChainFkSolverPos_recursive reference(chain);
        for (int trial = 0; trial < 20; ++trial) {
            std::vector<double> joints(dof);
            KDL::JntArray kdl_joints(chain.getNrOfJoints());
            for (int i = 0; i < dof; ++i)
                kdl_joints(i) = joints[i] = std::uniform_real_distribution<double>(-1, 1)(random);
            KDL::Frame expected;
            reference.JntToCart(kdl_joints, expected);
            EXPECT_TRUE(KDL::Equal(kinematics.flange(joints), expected, 1e-12)) << "dof " << dof << " trial " << trial;
        }
    }
    EXPECT_EQ(model->limits.upper, (std::vector<double>{1, 2, 3}));
    EXPECT_EQ(model->limits.acc, (std::vector<double>{9, 12, 4}));     // absent: 4 x velocity
    EXPECT_EQ(model->limits.jerk, (std::vector<double>{90, 60, 20}));  // absent: 5 x acceleration
    EXPECT_THROW(ArmKinematics(4, *model), std::invalid_argument);
}

TEST(ArmModel, BrokenFilesAreRefusedWithTheirReason) {
    const std::string tilted = kTiltedArm;
    const auto replaced = [&](const std::string& from, const std::string& to) {
        std::string text = tilted;
        for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
            text.replace(at, from.size(), to);
        return text;
    };
    const std::pair<std::string, std::string> cases[] = {
        {"not xml at all <", "not a valid URDF"},
        {replaced("tool0", "tip"), "no chain from the root link to tool0"},
        {replaced("name=\"j3\" type=\"revolute\"", "name=\"j3\" type=\"prismatic\""), "joint j3 is not a revolute"},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const std::string path = writeModel("broken" + std::to_string(i) + ".urdf", cases[i].first);
        try {
            loadArmModel(path);
            ADD_FAILURE() << "case " << i << " was taken";
        } catch (const std::runtime_error& error) {
            EXPECT_NE(std::string(error.what()).find(cases[i].second), std::string::npos) << error.what();
        }
    }
    EXPECT_THROW(loadArmModel(::testing::TempDir() + "absent.urdf"), std::runtime_error);
}

}  // namespace
}  // namespace sim
}  // namespace kelm
