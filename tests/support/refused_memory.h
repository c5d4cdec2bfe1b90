// Refuses memory that the standard library asks for, in programs that link refused_memory.cpp.
#pragma once

#include <cstdint>

// Begins to count the calls of operator new by any thread. The k-th from now throws std::bad_alloc; 0 none.
void watch_memory(std::int64_t k);
// Ends it and returns the number of calls; always 0 where they cannot be counted.
std::int64_t unwatch_memory();
