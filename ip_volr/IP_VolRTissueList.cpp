#include "ip_volr/IP_VolRTissueList.h"

#include "host/masks.h"

IP_VolRTissueList::~IP_VolRTissueList() {
    SetNumbTissues(0);
}

void IP_VolRTissueList::SetNumbTissues(unsigned int n) {
    for (unsigned int i = 0; i < m_NumbTissues; ++i) {
        delete m_Tissues[i].m_RotatedRbv;
    }
    delete[] m_Tissues;
    m_Tissues = nullptr;
    m_NumbTissues = 0;
    if (n > 0) {
        m_Tissues = new Entry[n]();
        m_NumbTissues = n;
    }
}

IP_MultiRealListVol* IP_VolRTissueList::GetTissue(unsigned int i) const {
    return Get<IP_MultiRealListVol*>(i, &Entry::m_Tissue, nullptr);
}

void IP_VolRTissueList::SetTissue(unsigned int i, IP_MultiRealListVol* tissue) {
    Set<IP_MultiRealListVol*>(i, &Entry::m_Tissue, tissue);
}

IP_MultiRealBitVol* IP_VolRTissueList::GetRbvList(unsigned int i) const {
    return Get<IP_MultiRealBitVol*>(i, &Entry::m_RbvList, nullptr);
}

void IP_VolRTissueList::SetRbvList(unsigned int i, IP_MultiRealBitVol* list) {
    Set<IP_MultiRealBitVol*>(i, &Entry::m_RbvList, list);
}

IP_RealBitVol* IP_VolRTissueList::GetRotatedRbv(unsigned int i) const {
    return Get<IP_RealBitVol*>(i, &Entry::m_RotatedRbv, nullptr);
}

void IP_VolRTissueList::SetRotatedRbv(unsigned int i, IP_RealBitVol* rotated) {
    Set<IP_RealBitVol*>(i, &Entry::m_RotatedRbv, rotated);
}

int IP_VolRTissueList::GetColorTableIndex(unsigned int i) const {
    return Get<int>(i, &Entry::m_ColorTableIndex, -1);
}

void IP_VolRTissueList::SetColorTableIndex(unsigned int i, int index) {
    Set<int>(i, &Entry::m_ColorTableIndex, index);
}

int IP_VolRTissueList::GetTissueSign(unsigned int i) const {
    return Get<int>(i, &Entry::m_TissueSign, 0);
}

void IP_VolRTissueList::SetTissueSign(unsigned int i, int sign) {
    Set<int>(i, &Entry::m_TissueSign, sign);
}

bool IP_VolRTissueList::GetEqualSize(unsigned int i) const {
    return Get<bool>(i, &Entry::m_EqualSize, false);
}

void IP_VolRTissueList::SetEqualSize(unsigned int i, bool equal) {
    Set<bool>(i, &Entry::m_EqualSize, equal);
    if (equal) {
        SetTissueOffset(i, 0, 0, 0);
    }
}

bool IP_VolRTissueList::ShouldNegate(unsigned int i) const {
    return Get<bool>(i, &Entry::m_ShouldNegate, false);
}

void IP_VolRTissueList::SetShouldNegate(unsigned int i, bool negate) {
    Set<bool>(i, &Entry::m_ShouldNegate, negate);
}

void IP_VolRTissueList::GetTissueOffset(unsigned int i, int& x, int& y, int& z) const {
    x = Get<int>(i, &Entry::m_OffsetX, 0);
    y = Get<int>(i, &Entry::m_OffsetY, 0);
    z = Get<int>(i, &Entry::m_OffsetZ, 0);
}

void IP_VolRTissueList::SetTissueOffset(unsigned int i, int x, int y, int z) {
    Set<int>(i, &Entry::m_OffsetX, x);
    Set<int>(i, &Entry::m_OffsetY, y);
    Set<int>(i, &Entry::m_OffsetZ, z);
}

// QUIRK(tissue-list-copy): a reader expects a copy to be whole and assignment to itself to change nothing; offsets are
// not copied, and a list assigned to itself keeps its length with every entry zeroed; kept: callers rely on it.
void IP_VolRTissueList::copy_data(const IP_VolRTissueList& source) {
    SetNumbTissues(source.GetNumbTissues());
    for (unsigned int i = 0; i < m_NumbTissues; ++i) {
        const Entry& from = source.m_Tissues[i];
        Entry& to = m_Tissues[i];
        to.m_Tissue = from.m_Tissue;
        to.m_RbvList = from.m_RbvList;
        to.m_RotatedRbv = from.m_RotatedRbv == nullptr ? nullptr : new IP_RealBitVol(*from.m_RotatedRbv);
        to.m_ColorTableIndex = from.m_ColorTableIndex;
        to.m_TissueSign = from.m_TissueSign;
        to.m_EqualSize = from.m_EqualSize;
        to.m_ShouldNegate = from.m_ShouldNegate;
    }
}
