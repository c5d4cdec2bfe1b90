#include "ip_volr/IP_SliceIDInfo.h"

#include <cstring>

namespace {

std::uint32_t rotate_left_5(std::uint32_t h) {
    return (h << 5) | (h >> 27);
}

// Whether two handles are of one block, by its address. Both are mapped at once: a block that is not may come back
// elsewhere, or another one in its place.
bool map_to_one_address(MEM_PagerInfo& a, MEM_PagerInfo& b) {
    if (a.Map() != 0) {
        return false;
    }
    bool same = false;
    if (b.Map() == 0) {
        same = a.Ptr() == b.Ptr();
        b.Unmap();
    }
    a.Unmap();
    return same;
}

}  // namespace

SliceIDKey::SliceIDKey(const SliceIDKey& o) {
    SetText(o.m_Text, o.m_OwnsText);
}

SliceIDKey& SliceIDKey::operator=(const SliceIDKey& o) {
    if (this != &o) {
        SetText(o.m_Text, o.m_OwnsText);
    }
    return *this;
}

SliceIDKey::~SliceIDKey() {
    if (m_OwnsText) {
        delete[] m_Text;
    }
}

void SliceIDKey::SetText(const char* text, bool copy) {
    // Take the new text before the old one goes: it may be the same.
    const std::uint32_t length = text == nullptr ? 0 : static_cast<std::uint32_t>(std::strlen(text));
    const char* stored = text;
    if (text != nullptr && copy) {
        char* own = new char[length + std::size_t{1}];
        std::memcpy(own, text, length + std::size_t{1});
        stored = own;
    }
    if (m_OwnsText) {
        delete[] m_Text;
    }

    m_Text = stored;
    m_Length = length;
    m_Hash = SliceIDHash::HashText(stored, length);
    m_OwnsText = stored != nullptr && copy;
}

bool SliceIDHash::operator()(const SliceIDKey* a, const SliceIDKey* b) const {
    if (a->GetText() == nullptr || b->GetText() == nullptr || a->GetLength() != b->GetLength()) {
        return false;
    }
    // From the end: texts of one series differ in their last characters.
    for (std::uint32_t i = a->GetLength(); i > 0; i--) {
        if (a->GetText()[i - 1] != b->GetText()[i - 1]) {
            return false;
        }
    }
    return true;
}

std::uint32_t SliceIDHash::HashText(const char* text, std::uint32_t length) {
    std::uint32_t h = length;
    std::uint32_t word = 0;
    std::uint32_t i = 0;
    for (; length - i >= 4; i += 4) {
        std::memcpy(&word, text + i, 4);
        h = rotate_left_5(h) ^ word;
    }
    if (i < length) {
        word = 0;
        std::memcpy(&word, text + i, length - i);
        h = rotate_left_5(h) ^ word;
    }
    return h;
}

IP_SliceIDInfo::IP_SliceIDInfo(const IP_SliceIDInfo& /*o*/) {}

IP_SliceIDInfo& IP_SliceIDInfo::operator=(IP_SliceIDInfo& o) {
    if (this != &o) {
        SetID(o.m_ID.GetText());
        m_Data = o.m_Data;
        m_PDCounter = o.m_PDCounter;
        m_TissueCounter = o.m_TissueCounter;
        m_Transposed = o.m_Transposed;
        m_IsBlankSlice = o.m_IsBlankSlice;
        m_Shape = o.m_Shape;
    }
    return *this;
}

IP_SliceIDInfo::~IP_SliceIDInfo() {
    Unregister();
}

void IP_SliceIDInfo::SetID(const char* text) {
    Unregister();
    m_ID.SetText(text, true);
}

int IP_SliceIDInfo::operator==(IP_SliceIDInfo& o) {
    const bool same_identity = SliceIDHash()(&m_ID, &o.m_ID) && m_PDCounter == o.m_PDCounter &&
                               m_TissueCounter == o.m_TissueCounter && m_Transposed == o.m_Transposed;
    if (!same_identity || m_Data == nullptr || o.m_Data == nullptr) {
        return 0;
    }
    return map_to_one_address(*m_Data, *o.m_Data) ? 1 : 0;
}

void IP_SliceIDInfo::Register(SliceHashMap& map) {
    Unregister();
    if (m_ID.GetLength() == 0) {
        return;
    }
    const auto found = map.find(&m_ID);
    if (found != map.end()) {
        found->second->Unregister();
    }
    map.emplace(&m_ID, this);
    m_Map = &map;
}

void IP_SliceIDInfo::Unregister() {
    if (m_Map != nullptr) {
        m_Map->erase(&m_ID);
        m_Map = nullptr;
    }
}
