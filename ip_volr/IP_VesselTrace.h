// The vessel search's lines in the host's log: written without headline, so that single letters form a trace of the
// stepping on one line.
#pragma once

#include "host/log.h"
#include "ip_volr/IP_VOLR_Trace.h"

#include <cstdio>

namespace ip_volr {

// Whether the host wants the next line of `function`.
inline bool vessel_trace_wanted(const char* function, int line) {
    return Tmr_LogFile::StoreParams("ip_volr/IP_Relate", function, line, kTraceDetail, kTraceFacility,
                                    kTraceReserved) != 0;
}

inline void vessel_trace(const char* function, const char* text) {
    if (vessel_trace_wanted(function, __LINE__)) {
        Tmr_LogFile::LogNoHeadline(text);
    }
}

// A printf-style line, formatted only when it is wanted. The longest line with its numbers stays below the buffer.
template <class... Values>
void vessel_trace(const char* function, const char* format, Values... values) {
    if (vessel_trace_wanted(function, __LINE__)) {
        char text[512];
        std::snprintf(text, sizeof(text), format, values...);
        Tmr_LogFile::LogNoHeadline(text);
    }
}

}  // namespace ip_volr
