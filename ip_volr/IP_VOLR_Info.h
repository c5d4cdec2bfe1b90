// What the loaded library is: for a host's log, statistics and bug reports.
#pragma once

#include "ip_volr/IP_VOLR_Export.h"

struct IP_VOLR_Info {
    // "scalar", "sse4.1" or "avx2": the instruction set that the inner loops use on this processor. Pictures do not
    // depend on it.
    const char* instruction_set;
    // "major.minor.patch".
    const char* version;
};

// The texts live as long as the library. Any thread.
IP_VOLR_EXPORT IP_VOLR_Info IP_VOLR_GetInfo();
