#include "scene/parallel.h"

#include "host/tasks.h"

#include <atomic>

namespace scene {

namespace {

// One subtask per worker; each takes the next index until none is left.
class IndexLoop : public TCO_CompoundRunnableBase {
public:
    IndexLoop(int count, const std::function<void(int)>& body) : m_Count(count), m_Body(body) {}

    void Run() override {
        const TCO_RunnableSelf self;
        for (int i = m_Next.fetch_add(1); i < m_Count; i = m_Next.fetch_add(1)) {
            self.Service();
            m_Body(i);
        }
    }

private:
    std::atomic<int> m_Next{0};
    int m_Count;
    const std::function<void(int)>& m_Body;
};

}  // namespace

void ForEachIndex(int count, const std::function<void(int)>& body) {
    IndexLoop loop(count, body);
    TCO_CompoundTaskManager::GetHandle()->ExecuteCompoundTask(&loop, false, 0, false);
}

}  // namespace scene
