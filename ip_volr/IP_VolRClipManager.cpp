#include "ip_volr/IP_VolRClipManager.h"

#include "ip_volr/IP_ClipCalculator.h"
#include "ip_volr/IP_VolDataProj.h"

#include <atomic>
#include <memory>
#include <utility>

namespace {

int next_counter() {
    static std::atomic<unsigned> counter{0};
    return static_cast<int>(counter.fetch_add(1, std::memory_order_relaxed) % 0x7FFFFFFFU) + 1;
}

template <class Entry>
std::shared_ptr<Entry[]> bounds_of(IP_ClipCalculator& calculator, const IP_Box& lattice, bool along_y) {
    std::shared_ptr<Entry[]> bounds(new Entry[IP_ClipCalculator::NumberOfEntries(lattice, along_y)]);
    if (along_y) {
        calculator.CalculateYX(lattice, bounds.get());
    } else {
        calculator.CalculateXY(lattice, bounds.get());
    }
    return bounds;
}

}  // namespace

IP_VolRClipManager::IP_VolRClipManager() : m_ChangeCounter(next_counter()) {}

IP_VolRClipManager::~IP_VolRClipManager() = default;

IP_ClippingPlane* IP_VolRClipManager::NewClipPlane(int id) {
    PlanesChanged();
    return IP_ClipManager::NewClipPlane(id);
}

void IP_VolRClipManager::FreeAllClipPlane(int type) {
    PlanesChanged();
    IP_ClipManager::FreeAllClipPlane(type);
}

void IP_VolRClipManager::SetClipPlane(int id, const float eq[4]) {
    NewClipPlane(id)->SetPlaneEq(eq);
}

void IP_VolRClipManager::SetClipPlaneActive(int id, bool active) {
    IP_ClippingPlane* const plane = GetClipPlane(id);
    if (plane != nullptr && plane->IsActive() != active) {
        plane->SetActive(active);
        PlanesChanged();
    }
}

void IP_VolRClipManager::PlanesChanged() {
    m_ChangeCounter = next_counter();
}

bool IP_VolRClipManager::GetClippingBounds(IP_VolData* source, IP_VolData* prepared) {
    auto* const data = dynamic_cast<IP_VolDataProj*>(prepared);
    if (source == nullptr || data == nullptr) {
        return false;
    }
    IP_ClipCalculator calculator(this);
    auto xy = bounds_of<int>(calculator, *data->GetBox(), false);
    auto yx = bounds_of<int>(calculator, *data->GetBox(), true);
    auto xy_full = bounds_of<short>(calculator, *source->GetBox(), false);
    auto yx_full = bounds_of<short>(calculator, *source->GetBox(), true);
    data->SetBounds(std::move(xy), std::move(yx), std::move(xy_full), std::move(yx_full));
    return true;
}
