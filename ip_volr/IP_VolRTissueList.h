// The tissues that a request draws with colour tables of their own.
#pragma once

#include "ip_volr/IP_VOLR_Export.h"

class IP_MultiRealBitVol;
class IP_MultiRealListVol;
class IP_RealBitVol;

// A list of fixed length, set in one call. Entries are addressed by index; a getter with an index at or beyond the
// length returns the neutral value named with it, a setter does nothing. New entries are all zero.
//
// The list owns its rotated bit volumes; list volumes and bit-volume lists belong to the host and must outlive every
// list that points at them, copies included. No locks.
//
// Without memory SetNumbTissues and copies let std::bad_alloc through; the list is then empty or lacks some of the
// copies, and may be set again.
class IP_VOLR_EXPORT IP_VolRTissueList {
public:
    IP_VolRTissueList() = default;
    IP_VolRTissueList(const IP_VolRTissueList& source) : IP_VolRTissueList() { copy_data(source); }
    IP_VolRTissueList& operator=(const IP_VolRTissueList& source) {
        copy_data(source);
        return *this;
    }
    virtual ~IP_VolRTissueList();

    unsigned int GetNumbTissues() const { return m_NumbTissues; }
    // Makes n new entries. All earlier ones are discarded with their rotated bit volumes, also when n is their number.
    void SetNumbTissues(unsigned int n);

    // The tissue as run lists, one per volume of the view (not owned); null.
    IP_MultiRealListVol* GetTissue(unsigned int i) const;
    void SetTissue(unsigned int i, IP_MultiRealListVol* tissue);
    // The tissue as bit volumes, one per volume of the view (not owned); null.
    IP_MultiRealBitVol* GetRbvList(unsigned int i) const;
    void SetRbvList(unsigned int i, IP_MultiRealBitVol* list);
    // The tissue's bits in the orientation of the prepared data; null. The list takes ownership; an earlier one is not
    // deleted.
    IP_RealBitVol* GetRotatedRbv(unsigned int i) const;
    void SetRotatedRbv(unsigned int i, IP_RealBitVol* rotated);
    // Index of the colour table; -1.
    int GetColorTableIndex(unsigned int i) const;
    void SetColorTableIndex(unsigned int i, int index);
    // Sign of the tissue as its users define it; 0.
    int GetTissueSign(unsigned int i) const;
    void SetTissueSign(unsigned int i, int sign);
    // Whether the tissue's volume has the size of the data volume, so that no offset applies; false. Setting true
    // zeroes the offset.
    bool GetEqualSize(unsigned int i) const;
    void SetEqualSize(unsigned int i, bool equal);
    // Whether the voxels outside the tissue are meant; false.
    bool ShouldNegate(unsigned int i) const;
    void SetShouldNegate(unsigned int i, bool negate);
    // Position of the tissue's volume inside the data volume, in voxels; 0, 0, 0.
    void GetTissueOffset(unsigned int i, int& x, int& y, int& z) const;
    void SetTissueOffset(unsigned int i, int x, int y, int z);

    // Takes over the source's entries with rotated bit volumes of its own.
    void copy_data(const IP_VolRTissueList& source);

private:
    struct Entry {
        IP_MultiRealListVol* m_Tissue;
        IP_MultiRealBitVol* m_RbvList;
        IP_RealBitVol* m_RotatedRbv;
        int m_ColorTableIndex;
        int m_TissueSign;
        bool m_EqualSize;
        bool m_ShouldNegate;
        int m_OffsetX;
        int m_OffsetY;
        int m_OffsetZ;
    };

    template <typename Value>
    Value Get(unsigned int i, Value Entry::*field, Value neutral) const {
        return i < m_NumbTissues ? m_Tissues[i].*field : neutral;
    }
    template <typename Value>
    void Set(unsigned int i, Value Entry::*field, Value value) {
        if (i < m_NumbTissues) {
            m_Tissues[i].*field = value;
        }
    }

    Entry* m_Tissues = nullptr;
    unsigned int m_NumbTissues = 0;
};
