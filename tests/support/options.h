// Options of the test programs, from the environment. The library reads none.
#pragma once

#include <cstdlib>

namespace test_options {

// IP_VOLR_TEST_SERVERS: servers with which each test begins; 0, the default, is one for each processor.
inline int servers() {
    const char* const text = std::getenv("IP_VOLR_TEST_SERVERS");
    return text == nullptr ? 0 : std::atoi(text);
}

// IP_VOLR_TEST_SECONDS: how long each test goes on that can be of any length.
inline double seconds(double otherwise) {
    const char* const text = std::getenv("IP_VOLR_TEST_SECONDS");
    return text == nullptr ? otherwise : std::atof(text);
}

}  // namespace test_options
