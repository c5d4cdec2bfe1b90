// Runs the tool and looks at what it leaves.
#pragma once

#include "scene/vector3.h"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <string>
#include <vector>

namespace tool_test {

struct Outcome {
    int status = -1;  // exit status; 128 + signal when it was killed
    std::string out;
    std::string err;
};

// Runs volr with these arguments.
Outcome Volr(const std::vector<std::string>& arguments);
// Starts it and sends the signal a while after it has a handler for it.
Outcome VolrWithSignal(const std::vector<std::string>& arguments, int signal_number, int after_ms);

// A folder that goes away with the test.
class Folder {
public:
    Folder();
    ~Folder();
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string Path(const std::string& name) const { return (m_Path / name).string(); }
    std::vector<std::string> Files() const;  // names, sorted; hidden ones too

private:
    std::filesystem::path m_Path;
};

nlohmann::json ReadJson(const std::string& path);
// An array of three numbers.
scene::Vec3 ToVec(const nlohmann::json& j);

}  // namespace tool_test
