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
      m_DepthBufferValid(o.m_DepthBufferValid) {
    std::memcpy(m_ScreenToPhysical, o.m_ScreenToPhysical, sizeof(m_ScreenToPhysical));
    std::memcpy(m_HostMatrix, o.m_HostMatrix, sizeof(m_HostMatrix));
}

// QUIRK(volr-box-assignment): a reader expects the same as the copy constructor, but the arrays are dropped, only the
// first of their two counts becomes 0, and the matrices stay; kept: callers rely on it.
IP_VolRBoxParamsVolR& IP_VolRBoxParamsVolR::operator=(IP_VolRBoxParamsVolR& o) {
    if (this == &o) {
        return *this;
    }
    Destroy_LightingPoint3DArr();
    IP_VolRBoxParams::operator=(o);
    m_HostBuffer = o.m_HostBuffer;
    m_DepthBuffer = o.m_DepthBuffer;
    lightingPoint3DArr = o.lightingPoint3DArr;
    delete[] m_HostArrayA;
    delete[] m_HostArrayB;
    m_HostArrayA = nullptr;
    m_HostArrayB = nullptr;
    m_HostCountA = 0;
    return *this;
}

void IP_VolRBoxParamsVolR::Allocate_LightingPoint3DArr(int n) {
    Destroy_LightingPoint3DArr();
    IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, "IP_VolRBoxParamsVolR::Allocate_LightingPoint3DArr",
                  "allocation of lightingPoint3DArr: %p, size = %d\n", static_cast<void*>(&lightingPoint3DArr), n);
    if (n <= 0) {
        return;
    }
    MEM_MemPager* const pager = MEM_MemPager::GetHandleForMP();
    pager->Allocate64(static_cast<unsigned long long>(n) * kLightingPointBytes, &lightingPoint3DArr, 0);
    if (lightingPoint3DArr.Block() != -1) {
        lightingPoint3DArr.Unmap();
        m_OwnsLightingPoints = true;
    }
}

void IP_VolRBoxParamsVolR::Destroy_LightingPoint3DArr() {
    if (!m_OwnsLightingPoints) {
        lightingPoint3DArr = MEM_PagerInfo();
        return;
    }
    MEM_MemPager::GetHandleForMP()->Free(lightingPoint3DArr);
    m_OwnsLightingPoints = false;
    IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, "IP_VolRBoxParamsVolR::Destroy_LightingPoint3DArr",
                  "destroy of lightingPoint3DArr: %p\n", static_cast<void*>(&lightingPoint3DArr));
}
