// Compound tasks: one method run as n subtasks over the worker threads, joined before the call returns.
#pragma once

#include "host/host_export.h"

#include <exception>

// Thrown by Service() when the host has cancelled the run.
class IP_HOST_API TCO_CANCEL_EXCEPTION : public std::exception {
public:
    const char* what() const noexcept override { return "cancelled by the host"; }
};

// Something that can be run as subtasks.
class IP_HOST_API TCO_CompoundRunnableBase {
public:
    virtual ~TCO_CompoundRunnableBase() = default;
    virtual void Run() = 0;  // one subtask
};

// An object and one of its member functions, run once per subtask. The object is not owned.
template <class T>
class TCO_CompoundRunnable : public TCO_CompoundRunnableBase {
public:
    using Method = void (T::*)();

    TCO_CompoundRunnable() = default;
    TCO_CompoundRunnable(T* object, Method method) : m_Object(object), m_Method(method) {}

    void Run() override {
        if (m_Object != nullptr && m_Method != nullptr) {
            (m_Object->*m_Method)();
        }
    }

private:
    T* m_Object = nullptr;
    Method m_Method = nullptr;
};

// The context of a running subtask, built by the subtask on entry. Outside a compound task it describes a run of one
// subtask on server 0, and Service() is the cancellation point of the calling thread.
class IP_HOST_API TCO_RunnableSelf {
public:
    TCO_RunnableSelf();
    ~TCO_RunnableSelf() = default;

    int GetSubtaskIndex() const { return m_Subtask; }  // 0 to the number of subtasks - 1
    // 0 to the number of servers - 1; no two subtasks of one compound task that run at once share it.
    int GetServerIndex() const { return m_Server; }
    int GetNumberOfSubtasks() const { return m_NumSubtasks; }

    // This subtask's inclusive, contiguous share of the indices first to last. The shares of all subtasks cover the
    // range in order, without overlap, and differ by at most one index; an empty share has start = end + 1.
    int StartRange(int last, int first) const;
    int EndRange(int last, int first) const;

    // Cancellation point: throws TCO_CANCEL_EXCEPTION when the run is cancelled.
    void Service() const;

private:
    int m_Subtask = 0;
    int m_Server = 0;
    int m_NumSubtasks = 1;
};

// The task manager of the process. Several host threads may execute compound tasks at once.
class IP_HOST_API TCO_CompoundTaskManager {
public:
    static TCO_CompoundTaskManager* GetHandle();

    static int GetNumberOfServers();  // at least 1; the calling thread is one of them

    // Runs the method once for each subtask and returns when all have ended. 0 subtasks means one per server. The two
    // flags are reserved by the host. The first exception in subtask order reaches the caller after all have ended.
    void ExecuteCompoundTask(TCO_CompoundRunnableBase* runnable, bool reserved_a, int subtasks, bool reserved_b);

    // How long a waiting thread spins before it sleeps: rounds of the caller, rounds of the workers.
    static void SetSpinWaitPolicy(int caller_rounds, int worker_rounds);

private:
    TCO_CompoundTaskManager() = default;
};
