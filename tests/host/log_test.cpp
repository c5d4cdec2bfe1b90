// The trace log: what is off costs nothing and writes nothing, what is on arrives whole.
#include "host/log.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "host/reference/settings.h"
#include "tests/host/log_recorder.h"

namespace {

// Announces and writes a line as callers do; true when the log asked for it.
bool write(int level, const std::string& text) {
    if (Tmr_LogFile::StoreParams("ip_volr/IP_Some", "IP_Some::Method", 12, level, 206, 1) == 0) {
        return false;
    }
    Tmr_LogFile::Log("%s\n", text.c_str());
    return true;
}

TEST(LogTest, LevelsAboveTheFilterAreNotAskedFor) {
    EXPECT_FALSE(write(3, "no sink"));
    LogRecorder log(4);
    EXPECT_TRUE(write(3, "error"));
    EXPECT_TRUE(write(4, "warning"));
    EXPECT_FALSE(write(6, "information"));
    Tmr_LogFile::LogNoHeadline("plain");
    EXPECT_EQ(log.Texts(), (std::vector<std::string>{"error\n", "warning\n", "plain"}));
}

TEST(LogTest, AFileHasWholeLinesOfAllThreads) {
    const std::string path = (std::filesystem::temp_directory_path() / "ip_volr_log_test.txt").string();
    std::remove(path.c_str());
    ASSERT_TRUE(reference_host::LogToFile(path));
    reference_host::SetLogLevel(6);
    const std::string body(700, 'x');
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&body] {
            for (int i = 0; i < 50; ++i) {
                write(6, body);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    reference_host::SetLogLevel(0);
    EXPECT_TRUE(reference_host::LogToFile(""));

    std::ifstream file(path);
    int lines = 0;
    const std::string ending = "I ip_volr/IP_Some IP_Some::Method:12: " + body;
    for (std::string line; std::getline(file, line); ++lines) {
        EXPECT_EQ(line.find(ending), std::string("2000-01-01 00:00:00.000 ").size());
        EXPECT_EQ(line.size(), std::string("2000-01-01 00:00:00.000 ").size() + ending.size());
    }
    EXPECT_EQ(lines, 200);
    file.close();
    std::remove(path.c_str());
    EXPECT_FALSE(reference_host::LogToFile("/nonexistent/folder/log.txt"));
}

TEST(LogTest, ASinkThatLogsOrThrowsDoesNoHarm) {
    int calls = 0;
    reference_host::LogToCallback([&calls](const reference_host::LogLine& line) {
        ++calls;
        EXPECT_STREQ(line.source, "ip_volr/IP_Some");
        EXPECT_EQ(line.level, 3);
        write(3, "from the sink");
        throw 1;
    });
    reference_host::SetLogLevel(3);
    EXPECT_TRUE(write(3, "line"));
    EXPECT_TRUE(write(3, "line"));
    EXPECT_EQ(calls, 2);
    reference_host::LogToCallback({});
    reference_host::SetLogLevel(0);
}

}  // namespace
