// The tool misused: one clear line, the promised exit status, and nothing left behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fstream>

#include "tests/tool/program.h"

namespace {

using tool_test::Folder;
using tool_test::Outcome;
using tool_test::Volr;

// One line: volr: WHAT: WHY (WHAT TO DO).
void ExpectOneLine(const Outcome& outcome, int status) {
    EXPECT_EQ(outcome.status, status) << outcome.err;
    EXPECT_EQ(outcome.err.rfind("volr: ", 0), 0U) << outcome.err;
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
    ASSERT_GE(outcome.err.size(), 2U);
    EXPECT_EQ(outcome.err.substr(outcome.err.size() - 2), ")\n") << outcome.err;
    EXPECT_GE(std::count(outcome.err.begin(), outcome.err.end(), ':'), 2) << outcome.err;
}

class Misuse : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(Volr({"phantom", "bricks", "--size", "40,40,40", "-o", m_Folder.Path("in.mha"), "--quiet"}).status,
                  0);
        m_Before = m_Folder.Files();
    }
    std::string In() const { return m_Folder.Path("in.mha"); }
    std::string Out() const { return m_Folder.Path("out.png"); }

    Folder m_Folder;
    std::vector<std::string> m_Before;
};

TEST_F(Misuse, WrongUsageAndUnreadableInputEndWithTwo) {
    std::ofstream(m_Folder.Path("broken.json")) << "{\"opacity\": 3}";
    std::ofstream(m_Folder.Path("text.mha")) << "this is no image";
    m_Before = m_Folder.Files();
    const std::vector<std::vector<std::string>> commands = {
        {},
        {"draw", In()},
        {"render", In()},
        {"render", "-o", Out()},
        {"render", m_Folder.Path("missing.nrrd"), "-o", Out()},
        {"render", m_Folder.Path("text.mha"), "-o", Out()},
        {"render", In(), "-o", Out(), "--no-such-option"},
        {"render", In(), "-o", Out(), "--view", "front"},
        {"render", In(), "-o", Out(), "--size", "512"},
        {"render", In(), "-o", Out(), "--size", "0x512"},
        {"render", In(), "-o", Out(), "--size", "99999x2"},
        {"render", In(), "-o", Out(), "--zoom", "0"},
        {"render", In(), "-o", Out(), "--zoom", "nan"},
        {"render", In(), "-o", Out(), "--azimuth", "inf"},
        {"render", In(), "-o", Out(), "--pan", "1"},
        {"render", In(), "-o", Out(), "--background", "red"},
        {"render", In(), "-o", Out(), "--clip", "0,0,0,5"},
        {"render", In(), "-o", Out(), "--clip", "1,2,3"},
        {"render", In(), "-o", Out(), "--clip-box", "0.6,0.4,0,1,0,1"},
        {"render", In(), "-o", Out(), "--transfer", m_Folder.Path("broken.json")},
        {"render", In(), "-o", Out(), "--preset", "ct-none"},
        {"render", In(), "-o", Out(), "--threads", "0"},
        {"render", In(), "-o", Out(), "--memory-budget", "lots"},
        {"mip", In(), "-o", Out(), "--window", "100,0"},
        {"mip", In(), "-o", Out(), "--slab", "-3"},
        {"mip", In(), "-o", Out(), "--depth-cue", "2"},
        {"mip", In(), "-o", Out(), "--bits", "12"},
        {"mip", In(), "-o", Out(), "--linear", "--fast"},
        {"pick", In(), "--pixel", "512,3"},
        {"vessel", In(), "--pixel", "a,b"},
        {"phantom", "foot", "-o", m_Folder.Path("p.nrrd")},
        {"phantom", "head", "-o", m_Folder.Path("p.jpg")},
        {"phantom", "head", "-o", m_Folder.Path("p.nrrd"), "--size", "10,10"},
        {"presets", "--dump", "nothing"},
    };
    for (const std::vector<std::string>& command : commands) {
        ExpectOneLine(Volr(command), 2);
        EXPECT_EQ(m_Folder.Files(), m_Before);
    }
}

TEST_F(Misuse, WorkThatFailsEndsWithOneAndLeavesNothing) {
    ExpectOneLine(Volr({"render", In(), "-o", m_Folder.Path("no/such/folder.png")}), 1);
    // Too thin for the ray caster.
    ASSERT_EQ(Volr({"phantom", "head", "--size", "4,4,9", "-o", m_Folder.Path("thin.mha"), "--quiet"}).status, 0);
    m_Before = m_Folder.Files();
    ExpectOneLine(Volr({"render", m_Folder.Path("thin.mha"), "-o", Out()}), 1);
    EXPECT_EQ(m_Folder.Files(), m_Before);
    EXPECT_EQ(Volr({"mip", m_Folder.Path("thin.mha"), "-o", Out(), "--quiet"}).status, 0);
}

TEST_F(Misuse, AnInterruptedRunEndsWith130AndLeavesNoFile) {
    for (const char* verb : {"render", "mip"}) {
        const Outcome stopped = tool_test::VolrWithSignal(
            {verb, In(), "-o", Out(), "--repeat", "100000", "--size", "800x800"}, SIGINT, 700);
        ExpectOneLine(stopped, 130);
        EXPECT_EQ(m_Folder.Files(), m_Before);
    }
}

TEST_F(Misuse, HelpIsThereForEveryVerbWithExamples) {
    for (const char* verb : {"info", "phantom", "presets", "render", "mip", "rotate", "pick", "vessel"}) {
        const Outcome help = Volr({verb, "--help"});
        EXPECT_EQ(help.status, 0);
        EXPECT_NE(help.out.find("Examples:"), std::string::npos) << verb;
        EXPECT_EQ(help.err, "");
    }
    // Completion and manual page know every option's values.
    EXPECT_NE(Volr({"completion"}).out.find("--view) COMPREPLY=($(compgen -W \"anterior"), std::string::npos);
    EXPECT_NE(Volr({"man"}).out.find("\\-\\-depth\\-cue"), std::string::npos);
    EXPECT_EQ(Volr({"--version"}).out.rfind("volr ", 0), 0U);
}

TEST_F(Misuse, InfoTellsTheGeometryAndQuietIsQuiet) {
    const Outcome info = Volr({"info", In(), "--json"});
    const nlohmann::json json = nlohmann::json::parse(info.out);
    EXPECT_EQ(json["dims"], (std::array<int, 3>{40, 40, 40}));
    EXPECT_EQ(json["orientation"], (std::array<std::string, 3>{"L", "P", "S"}));
    EXPECT_EQ(json["index_to_patient"][3], -19.5);
    const Outcome quiet = Volr({"render", In(), "-o", Out(), "--quiet"});
    EXPECT_EQ(quiet.out + quiet.err, "");
}

}  // namespace
