// Trace log of the process.
#pragma once

#include "host/host_export.h"

#if defined(__GNUC__)
#define IP_HOST_PRINTF(format_index, first_argument) __attribute__((format(printf, format_index, first_argument)))
#else
#define IP_HOST_PRINTF(format_index, first_argument)
#endif

class IP_HOST_API Tmr_LogFile {
public:
    // Announces a line of the calling thread: source path ("ip_volr/" and the class), qualified function, line and
    // level (3 error, 4 warning, 6 information, 7 trace). Non-zero when the line is to be written.
    static int StoreParams(const char* source_path, const char* function, int line, int level, int facility,
                           int reserved);
    // Writes the announced line, printf style, with a headline. Lines of several threads do not mix.
    static void Log(const char* format, ...) IP_HOST_PRINTF(1, 2);
    // Writes a text without headline.
    static void LogNoHeadline(const char* text);
};
