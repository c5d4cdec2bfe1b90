// Keeps the log lines that are written during its lifetime.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "host/reference/settings.h"

class LogRecorder {
public:
    explicit LogRecorder(int level = 7) {
        reference_host::SetLogLevel(level);
        reference_host::LogToCallback([this](const reference_host::LogLine& line) { m_Texts.emplace_back(line.text); });
    }
    ~LogRecorder() {
        reference_host::LogToCallback({});
        reference_host::SetLogLevel(0);
    }
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;

    const std::vector<std::string>& Texts() const { return m_Texts; }
    // Number of lines that contain a text.
    long Count(const std::string& part) const {
        return std::count_if(m_Texts.begin(), m_Texts.end(),
                             [&part](const std::string& text) { return text.find(part) != std::string::npos; });
    }

private:
    std::vector<std::string> m_Texts;
};
