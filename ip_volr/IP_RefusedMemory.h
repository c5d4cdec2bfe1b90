// What the library's entries do when the standard library has no memory. Internal to the library.
#pragma once

#include "ip_volr/IP_VOLR_Trace.h"

#include <new>

namespace ip_volr {

// Runs an operation that returns whether it succeeded. Memory that the standard library refuses ends it like memory
// that the pager refuses.
template <class Operation>
bool succeeds_with_memory(const char* source, const char* function, const Operation& operation) {
    try {
        return operation();
    } catch (const std::bad_alloc&) {
        IP_VOLR_TRACE(kTraceError, source, function, "Out of memory\n");
        return false;
    }
}

}  // namespace ip_volr
