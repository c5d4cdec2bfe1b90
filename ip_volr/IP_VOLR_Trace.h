// Lines of the host's trace log, as the library writes them: announced first, formatted only when the host wants them.
#pragma once

#include "host/log.h"

namespace ip_volr {

enum TraceLevel { kTraceError = 3, kTraceWarning = 4, kTraceInformation = 6, kTraceDetail = 7 };

// The host's log takes these two values with every line of this library.
constexpr int kTraceFacility = 206;
constexpr int kTraceReserved = 1;

}  // namespace ip_volr

// Writes one printf-style line. `source` is "ip_volr/" and the class, `function` the qualified name.
#define IP_VOLR_TRACE(level, source, function, ...)                                                \
    do {                                                                                           \
        if (Tmr_LogFile::StoreParams(source, function, __LINE__, level, ::ip_volr::kTraceFacility, \
                                     ::ip_volr::kTraceReserved) != 0) {                            \
            Tmr_LogFile::Log(__VA_ARGS__);                                                         \
        }                                                                                          \
    } while (false)
