// Typed values out of configuration keys, the same for keys of files, of lists in memory and of
// configuration servers. Without a key the default is stored and the result is FALSE; a value of
// another type gives FALSE and leaves the variable as it is.
#pragma once

#include <utility>

#include "core/memory.h"
#include "core/stnzbase.h"
#include "core/stnzwrappers.h"
#include "core/strbase.h"

// Owner of one key inside a function.
class CfgKeyHolder {
 public:
    CfgKeyHolder() = default;
    ~CfgKeyHolder() { StnzReleaseKey(&m_pKey); }
    CfgKeyHolder(const CfgKeyHolder&) = delete;
    CfgKeyHolder& operator=(const CfgKeyHolder&) = delete;
    StnzKeyT* Get() const { return m_pKey; }
    StnzKeyT** Address() { return &m_pKey; }
    StnzKeyT* Take() { return std::exchange(m_pKey, nullptr); }

 private:
    StnzKeyT* m_pKey = nullptr;
};

// Owner of one stanza inside a function.
class CfgStanzaHolder {
 public:
    explicit CfgStanzaHolder(StnzT* pStanza = nullptr) : m_pStanza(pStanza) {}
    ~CfgStanzaHolder() { StnzRelease(&m_pStanza); }
    CfgStanzaHolder(const CfgStanzaHolder&) = delete;
    CfgStanzaHolder& operator=(const CfgStanzaHolder&) = delete;
    StnzT* Get() const { return m_pStanza; }
    StnzT** Address() { return &m_pStanza; }
    StnzT* Take() { return std::exchange(m_pStanza, nullptr); }

 private:
    StnzT* m_pStanza = nullptr;
};

inline BooleanT CfgKeyToString(char** ppstrValue, StnzKeyT* pKey, const char* pstrDefault) {
    if (ppstrValue == nullptr) return FALSE;
    *ppstrValue = StrDuplicate(pKey == nullptr ? pstrDefault : StnzKeyValue(pKey, 1));
    return BooleanFrom(pKey != nullptr);
}

// For the types that a conversion of strings reads.
template <class T, class Convert>
BooleanT CfgKeyToValue(T* pValue, StnzKeyT* pKey, T tDefault, Convert fnConvert) {
    if (pValue == nullptr) return FALSE;
    if (pKey != nullptr) return fnConvert(StnzKeyValue(pKey, 1), pValue);
    *pValue = tDefault;
    return FALSE;
}

inline BooleanT CfgKeyToInteger(int32* plValue, StnzKeyT* pKey, int32 lDefault) {
    return CfgKeyToValue(plValue, pKey, lDefault, StrToInteger);
}

inline BooleanT CfgKeyToInt64(int64* pllValue, StnzKeyT* pKey, int64 llDefault) {
    return CfgKeyToValue(pllValue, pKey, llDefault, StrToInt64);
}

inline BooleanT CfgKeyToBoolean(BooleanT* pbValue, StnzKeyT* pKey, BooleanT bDefault) {
    return CfgKeyToValue(pbValue, pKey, bDefault, StrToBoolean);
}

inline BooleanT CfgKeyToValueList(ListO* poValueList, StnzKeyT* pKey) {
    return pKey == nullptr ? FALSE : StnzKeyGetValueList(pKey, poValueList);
}
