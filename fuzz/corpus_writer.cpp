// Writes the seed corpus of the fuzz targets: real state frames from the
// controller simulator's frame writer and from the tests' frame builder, a
// reply, a task broadcast, an error frame, and messages with remote IO
// blocks.
//
// Usage: fuzz_corpus_writer <corpus dir>   (creates <dir>/frame and <dir>/io_info)
#include <json/json.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#include "sim_model.h"
#include "state_frame_builder.h"
#include "state_frame_writer.h"

namespace {

namespace fs = std::filesystem;

std::string compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

void writeFile(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
    std::cout << path.string() << " (" << text.size() << " bytes)" << std::endl;
}

std::string simulatorFrame(int arms) {
    kelm::sim::SimModel model(arms, 6, kelm::sim::OperatorSettings{}, kelm::sim::WallSettings{});
    model.step(0.002);
    kelm::sim::StateFrameWriter writer;
    return model.writeFrame(writer, 42, 1700000000.5);
}

void writeFrameSeeds(const fs::path& dir) {
    writeFile(dir / "sim_one_arm", simulatorFrame(1));
    writeFile(dir / "sim_two_arms", simulatorFrame(2));
    writeFile(dir / "builder_two_arms", compact(kelm::test::twoArmFrame(7)));

    kelm::test::ArmFrame finished = kelm::test::realisticArm(0);
    finished.last_task_key = "1700000000123456";
    finished.axises = {kelm::test::AxisFrame{0, 1, 1, 0, "", 1}, kelm::test::AxisFrame{1, 1, 1, 2, "over", 1}};
    writeFile(dir / "task_finished", compact(kelm::test::stateFrame(8, {finished})));

    Json::Value error_frame = kelm::test::stateFrame(9, {kelm::test::realisticArm(0)});
    error_frame["error"] = 3001;
    error_frame["error_arm_index"] = 0;
    error_frame["errMsg"] = "warning";
    writeFile(dir / "error_frame", compact(error_frame));

    writeFile(dir / "reply", R"({"command":"setServoEnable","task_key":"1700000000123457","recv":"Task_Recieve"})");
}

void writeIoSeeds(const fs::path& dir) {
    writeFile(dir / "two_units", R"({"rtu":[{"size":[20,3,16,0],"di":[65535,5,1],"do":[6],)"
                                 R"("ad":[["42","7"],[]],"ad_type_size":[[2,4],[]],"da":[[1],[2]],)"
                                 R"("da_type_size":[[1],[8]],"status":[["3"],["4"]],"ctrl":[[5],[6]]}]})");
    writeFile(dir / "short_di", R"({"rtu":[{"size":[17,0],"di":[1],"do":[]},{"size":[1]},{}]})");
    writeFile(dir / "empty", R"({"rtu":[]})");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " <corpus dir>" << std::endl;
        return 1;
    }
    const fs::path root(argv[1]);
    fs::create_directories(root / "frame");
    fs::create_directories(root / "io_info");
    writeFrameSeeds(root / "frame");
    writeIoSeeds(root / "io_info");
    return 0;
}
