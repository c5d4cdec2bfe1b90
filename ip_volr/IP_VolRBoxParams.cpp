#include "ip_volr/IP_VolRBoxParams.h"

#include "ip_volr/IP_VOLR_Trace.h"

#include <cstring>

namespace {

constexpr const char* kSource = "ip_volr/IP_VolRParams";
constexpr unsigned long long kLightingPointBytes = 16;

}  // namespace

IP_VolRBoxParams::~IP_VolRBoxParams() = default;
IP_VolRBoxParamsMIP::~IP_VolRBoxParamsMIP() = default;

IP_VolRBoxParamsVolR::~IP_VolRBoxParamsVolR() {
    Destroy_LightingPoint3DArr();
}

IP_VolRBoxParamsVolR::IP_VolRBoxParamsVolR(const IP_VolRBoxParamsVolR& o)
    : IP_VolRBoxParams(o),
      m_HostArrayA(o.m_HostArrayA),
      m_HostArrayB(o.m_HostArrayB),
      m_HostCountA(o.m_HostCountA),
      m_HostCountB(o.m_HostCountB),
      m_HostBuffer(o.m_HostBuffer),
      m_DepthBuffer(o.m_DepthBuffer),
      lightingPoint3DArr(o.lightingPoint3DArr),
      m_DepthBufferValid(o.m_DepthBufferValid),
      m_SharesLightingPoints(o.lightingPoint3DArr.Block() != -1) {
    std::memcpy(m_ScreenToPhysical, o.m_ScreenToPhysical, sizeof(m_ScreenToPhysical));
    std::memcpy(m_HostMatrix, o.m_HostMatrix, sizeof(m_HostMatrix));
}

// QUIRK(volr-box-assignment): a reader expects the same as the copy constructor, but the arrays are dropped, only the
// first of their two counts becomes 0, and the matrices stay; kept: callers rely on it.
IP_VolRBoxParamsVolR& IP_VolRBoxParamsVolR::operator=(IP_VolRBoxParamsVolR& o) {
    if (this == &o) {
        return *this;
    }
    free_lighting_points();
    IP_VolRBoxParams::operator=(o);
    m_HostBuffer = o.m_HostBuffer;
    m_DepthBuffer = o.m_DepthBuffer;
    lightingPoint3DArr = o.lightingPoint3DArr;
    m_SharesLightingPoints = o.lightingPoint3DArr.Block() != -1;
    delete[] m_HostArrayA;
    delete[] m_HostArrayB;
    m_HostArrayA = nullptr;
    m_HostArrayB = nullptr;
    m_HostCountA = 0;
    return *this;
}

void IP_VolRBoxParamsVolR::Allocate_LightingPoint3DArr(int n) {
    free_lighting_points();
    IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, "IP_VolRBoxParamsVolR::Allocate_LightingPoint3DArr",
                  "allocation of lightingPoint3DArr: %p, size = %d\n", static_cast<void*>(&lightingPoint3DArr), n);
    if (n <= 0) {
        return;
    }
    MEM_MemPager* const pager = MEM_MemPager::GetHandleForMP();
    pager->Allocate64(static_cast<unsigned long long>(n) * kLightingPointBytes, &lightingPoint3DArr, 0);
    if (lightingPoint3DArr.Block() != -1) {
        lightingPoint3DArr.Unmap();
    }
}

void IP_VolRBoxParamsVolR::Destroy_LightingPoint3DArr() {
    if (free_lighting_points()) {
        IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, "IP_VolRBoxParamsVolR::Destroy_LightingPoint3DArr",
                      "destroy of lightingPoint3DArr: %p\n", static_cast<void*>(&lightingPoint3DArr));
    }
}

// Leaves the handle empty; true when there were points of this box to free.
bool IP_VolRBoxParamsVolR::free_lighting_points() {
    const bool frees = lightingPoint3DArr.Block() != -1 && !m_SharesLightingPoints;
    if (frees) {
        MEM_MemPager::GetHandleForMP()->Free(lightingPoint3DArr);
    }
    lightingPoint3DArr = MEM_PagerInfo();
    m_SharesLightingPoints = false;
    return frees;
}
