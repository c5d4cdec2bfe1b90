#include "host/tasks.h"

#include <algorithm>

#include "host/reference/settings.h"
#include "host/reference/task_pool.h"

namespace {

using reference_host::CancellationToken;
using reference_host::RunningSubtask;
using reference_host::TaskPool;

// First index of a share: the first (num_indices mod num_shares) shares have one index more.
int share_start(int last, int first, int share, int num_shares) {
    const long long num_indices = std::max(static_cast<long long>(last) - first + 1, 0LL);
    const long long least = num_indices / num_shares;
    const long long rest = num_indices % num_shares;
    return static_cast<int>(first + share * least + std::min<long long>(share, rest));
}

}  // namespace

TCO_RunnableSelf::TCO_RunnableSelf() {
    const RunningSubtask& running = reference_host::running_subtask();
    m_Subtask = running.subtask;
    m_Server = running.server;
    m_NumSubtasks = running.num_subtasks;
}

int TCO_RunnableSelf::StartRange(int last, int first) const {
    return share_start(last, first, m_Subtask, m_NumSubtasks);
}

int TCO_RunnableSelf::EndRange(int last, int first) const {
    return share_start(last, first, m_Subtask + 1, m_NumSubtasks) - 1;
}

void TCO_RunnableSelf::Service() const {
    const RunningSubtask& running = reference_host::running_subtask();
    CancellationToken* const token = running.token;
    if (token == nullptr) {
        return;
    }
    if (token->HasInterlude()) {
        TaskPool::Instance().GiveWay(*token);
    }
    if (token->Poll()) {
        throw TCO_CANCEL_EXCEPTION();
    }
}

TCO_CompoundTaskManager* TCO_CompoundTaskManager::GetHandle() {
    static TCO_CompoundTaskManager instance;
    return &instance;
}

int TCO_CompoundTaskManager::GetNumberOfServers() {
    return TaskPool::Instance().NumberOfServers();
}

void TCO_CompoundTaskManager::ExecuteCompoundTask(TCO_CompoundRunnableBase* runnable, bool /*reserved_a*/, int subtasks,
                                                  bool /*reserved_b*/) {
    if (runnable != nullptr) {
        TaskPool::Instance().Execute(*runnable, subtasks > 0 ? subtasks : GetNumberOfServers());
    }
}

void TCO_CompoundTaskManager::SetSpinWaitPolicy(int caller_rounds, int worker_rounds) {
    TaskPool::Instance().SetSpinRounds(caller_rounds, worker_rounds);
}

namespace reference_host {

void SetNumberOfServers(int servers) {
    TaskPool::Instance().SetNumberOfServers(servers);
}

bool CancellationToken::Poll() {
    m_Passed.fetch_add(1, std::memory_order_relaxed);
    // Of several threads at the same point exactly one counts down to the end.
    if (m_Countdown.load(std::memory_order_relaxed) > 0 && m_Countdown.fetch_sub(1, std::memory_order_relaxed) == 1) {
        Cancel();
    }
    return IsCancelled();
}

CancellationScope::CancellationScope(CancellationToken& token) : m_Previous(running_subtask().token) {
    running_subtask().token = &token;
}

CancellationScope::~CancellationScope() {
    running_subtask().token = m_Previous;
}

}  // namespace reference_host
