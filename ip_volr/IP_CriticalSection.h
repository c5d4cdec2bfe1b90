// Recursive critical section of the library's interface: entered, tried and left by hand or through a scope.
#pragma once

#include <mutex>

// One thread at a time, which may enter again and leaves as often as it entered. Copies are independent and free, so
// that a class with a critical section can be copied.
class IP_CriticalSection {
public:
    IP_CriticalSection() = default;
    IP_CriticalSection(const IP_CriticalSection&) {}
    IP_CriticalSection& operator=(const IP_CriticalSection&) { return *this; }
    ~IP_CriticalSection() = default;

    void Enter() { m_Mutex.lock(); }
    bool TryEnter() { return m_Mutex.try_lock(); }  // true when it was entered
    void Leave() { m_Mutex.unlock(); }

private:
    std::recursive_mutex m_Mutex;
};

// Inside the section for the lifetime of the scope.
class IP_CriticalSectionScope {
public:
    explicit IP_CriticalSectionScope(IP_CriticalSection& section) : m_Section(section) { m_Section.Enter(); }
    ~IP_CriticalSectionScope() { m_Section.Leave(); }
    IP_CriticalSectionScope(const IP_CriticalSectionScope&) = delete;
    IP_CriticalSectionScope& operator=(const IP_CriticalSectionScope&) = delete;

private:
    IP_CriticalSection& m_Section;
};
