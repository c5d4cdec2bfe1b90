// What went wrong, in the words of one line for the user.
//
// Memory that the pager or an engine is refused is such a failure; what the standard library is refused leaves this
// folder as std::bad_alloc. Objects stay as they were, and the call may be made again, unless they say otherwise.
#pragma once

#include <stdexcept>
#include <string>

namespace scene {

// Whose fault a failure is; the tool turns it into its exit status.
enum class ErrorKind {
    kFailed,  // the work failed
    kInput,   // wrong usage or unreadable input
};

// A failure: what it concerns, why it happened and what the user can do about it (may be empty).
class Error : public std::runtime_error {
public:
    Error(ErrorKind kind, const std::string& subject, const std::string& why, const std::string& advice)
        : std::runtime_error(subject + ": " + why + (advice.empty() ? "" : " (" + advice + ")")), m_Kind(kind) {}

    ErrorKind Kind() const { return m_Kind; }

private:
    ErrorKind m_Kind;
};

}  // namespace scene
