// The vessel search's lines in the host's log: written without headline, so that single letters form a trace of the
// stepping on one line.
#pragma once

#include "host/log.h"
#include "ip_volr/IP_VOLR_Trace.h"

#include <cstdio>

namespace ip_volr {

// A statement that logs. Made of the name of its function where a call needs one, so that the line is the caller's.
class VesselTraceStatement {
public:
    // NOLINTNEXTLINE(google-explicit-constructor)
    VesselTraceStatement(const char* function, int line = __builtin_LINE()) : m_Function(function), m_Line(line) {}

    // Whether the host wants the statement's line.
    bool IsWanted() const {
        return Tmr_LogFile::StoreParams("ip_volr/IP_Relate", m_Function, m_Line, kTraceDetail, kTraceFacility,
                                        kTraceReserved) != 0;
    }

private:
    const char* m_Function;
    int m_Line;
};

inline void vessel_trace(VesselTraceStatement statement, const char* text) {
    if (statement.IsWanted()) {
        Tmr_LogFile::LogNoHeadline(text);
    }
}

// A printf-style line, formatted only when it is wanted. The longest line with its numbers stays below the buffer.
template <class... Values>
void vessel_trace(VesselTraceStatement statement, const char* format, Values... values) {
    if (statement.IsWanted()) {
        char text[512];
        std::snprintf(text, sizeof(text), format, values...);
        Tmr_LogFile::LogNoHeadline(text);
    }
}

}  // namespace ip_volr
