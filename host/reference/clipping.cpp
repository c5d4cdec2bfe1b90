#include "host/clipping.h"

#include <algorithm>
#include <cmath>

#include "host/matrix_math.h"
#include "host/reference/matrix_inverse.h"

void IP_ClippingPlane::GetPlaneEq(float eq[4]) const {
    std::transform(m_Eq, m_Eq + 4, eq, [](double v) { return static_cast<float>(v); });
}

void IP_ClippingPlane::GetPlaneEq(double eq[4]) const {
    std::copy_n(m_Eq, 4, eq);
}

void IP_ClippingPlane::SetPlaneEq(const float* eq) {
    if (eq != nullptr) {
        std::copy_n(eq, 4, m_Eq);
    }
}

void IP_ClippingPlane::Transform(const float m[4][4]) {
    double inverse[4][4];
    if (reference_host::invert_matrix(m, inverse)) {
        IP_eqtrans(m_Eq, inverse, m_Eq);
    }
}

IP_ClipManager::IP_ClipManager(const IP_ClipManager& o) {
    *this = o;
}

IP_ClipManager& IP_ClipManager::operator=(const IP_ClipManager& o) {
    if (this == &o) {
        return *this;
    }
    std::vector<std::unique_ptr<IP_ClippingPlane>> planes;
    planes.reserve(o.m_Planes.size());
    for (const auto& plane : o.m_Planes) {
        planes.push_back(std::make_unique<IP_ClippingPlane>(*plane));
    }
    m_Planes.swap(planes);
    m_Next = 0;
    return *this;
}

IP_ClippingPlane* IP_ClipManager::NewClipPlane(int id) {
    if (IP_ClippingPlane* const existing = GetClipPlane(id)) {
        return existing;
    }
    m_Planes.push_back(std::make_unique<IP_ClippingPlane>());
    m_Planes.back()->SetID(id);
    return m_Planes.back().get();
}

IP_ClippingPlane* IP_ClipManager::GetClipPlane(int id) {
    const auto found =
        std::find_if(m_Planes.begin(), m_Planes.end(), [id](const auto& plane) { return plane->GetID() == id; });
    return found == m_Planes.end() ? nullptr : found->get();
}

void IP_ClipManager::FreeAllClipPlane(int type) {
    const auto is_of_type = [type](const auto& plane) {
        return type == CLIP_ALL || (type == CLIP_REFERENCE && plane->IsReference()) ||
               (type == CLIP_USER && !plane->IsReference());
    };
    m_Planes.erase(std::remove_if(m_Planes.begin(), m_Planes.end(), is_of_type), m_Planes.end());
    m_Next = 0;
}

int IP_ClipManager::GetNReferencePlanes() const {
    return static_cast<int>(
        std::count_if(m_Planes.begin(), m_Planes.end(), [](const auto& plane) { return plane->IsReference(); }));
}

int IP_ClipManager::ActiveClippingPlanes() const {
    return static_cast<int>(std::count_if(m_Planes.begin(), m_Planes.end(), [](const auto& plane) {
        return plane->IsActive() && !plane->IsReference();
    }));
}

IP_ClippingPlane* IP_ClipManager::GetNextPlane() {
    return m_Next < m_Planes.size() ? m_Planes[m_Next++].get() : nullptr;
}

void IP_update_clip_bounds(double value0, double step, int& first, int& last) {
    // A broken plane clips nothing; a plane along the line keeps all or nothing.
    if (std::isnan(value0) || std::isnan(step) || first > last) {
        return;
    }
    const auto is_inside = [value0, step](int i) { return !(value0 + i * step > 0.0); };
    if (step == 0.0 || !std::isfinite(step)) {
        while (first <= last && !is_inside(first)) {
            first = step == 0.0 ? last + 1 : first + 1;
        }
        return;
    }

    // The crossing, brought into the range before it becomes an integer, is exact to one voxel; the plane's value
    // decides about that one.
    const double crossing = std::clamp(-value0 / step, first - 1.0, last + 1.0);
    if (step > 0.0) {
        int bound = static_cast<int>(std::min(std::floor(crossing) + 1.0, static_cast<double>(last)));
        while (bound >= first && !is_inside(bound)) {
            --bound;
        }
        last = bound;
    } else {
        int bound = static_cast<int>(std::max(std::ceil(crossing) - 1.0, static_cast<double>(first)));
        while (bound <= last && !is_inside(bound)) {
            ++bound;
        }
        first = bound;
    }
}
