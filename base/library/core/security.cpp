// Security cookies, scrambled passwords and privilege patterns. A scrambled password is the
// password with one of 64 values, which the key gives, added to each byte within the printable
// characters, or exclusive-ored to it where the password has other bytes.
#include "core/security.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/cfg.h"
#include "core/memory.h"
#include "core/strbase.h"
#include "core/sys.h"
#include "core/trace.h"
#include "tracetext.h"

TRACE_MODULE("SECURITY")
MEM_DEFAULT_POOL_CACHE

namespace {

constexpr char SecurityFile[] = "security.cfg";
constexpr char SecurityProxy[] = "GUI Proxy";
constexpr char SecurityClientOut[] = "Client Out Cookies";
constexpr char SecurityClientIn[] = "Client In Cookies";
constexpr char SecurityProxyOut[] = "Proxy Out Cookies";
constexpr char SecurityProxyIn[] = "Proxy In Cookies";

// --- cookies ---

const char* SecurityGetStanzaTitle(const char* pstrMachineName, const char* pstrProcessName,
                                   BooleanT bOutward) {
    TraceMessageInline(1, 0, 4, "SecurityGetStanzaTitle %p %s %s",
                       static_cast<const void*>(pstrMachineName), TraceText(pstrProcessName),
                       BooleanText(bOutward));
    const bool bProxy =
        pstrProcessName != nullptr && std::strcmp(pstrProcessName, SecurityProxy) == 0;
    const char* pstrTitle = bProxy ? (bOutward == TRUE ? SecurityProxyOut : SecurityProxyIn)
                                   : (bOutward == TRUE ? SecurityClientOut : SecurityClientIn);
    TraceMessageInline(2, 0, 4, "Use stanza - %s", pstrTitle);
    return pstrTitle;
}

BooleanT SecurityFindCookie(int32* plCookie, const char* pstrMachineName,
                            const char* pstrProcessName, BooleanT bOutward) {
    const char* pstrLocal = SysLocalMachineName();
    if (pstrLocal != nullptr && std::strcmp(pstrMachineName, pstrLocal) == 0) {
        TraceMessageInline(3, 0, 4, "Security get cookie local machine");
        *plCookie = 0;
        return TRUE;
    }
    if (bOutward != TRUE && SecurityIsOff() == TRUE) {
        TraceMessageInline(4, 0, 4, "Security get cookie, security is off");
        *plCookie = 0;
        return TRUE;
    }
    const char* pstrTitle = SecurityGetStanzaTitle(pstrMachineName, pstrProcessName, bOutward);
    TraceMessageInline(5, 0, 4, "Security get cookie for machine %s in stanza %s", pstrMachineName,
                       pstrTitle);
    CfgGetInteger(plCookie, SecurityFile, pstrTitle, pstrMachineName, SecurityNoCookie);
    return BooleanFrom(*plCookie != SecurityNoCookie);
}

// --- scrambling ---

constexpr int32 SecurityValueCount = 64;
constexpr int32 SecurityRange = 92;     // printable characters that passwords are made of
constexpr int32 SecurityLowest = 34;    // the first of them
constexpr int32 SecurityHighest = 126;  // the last that a scrambled password has
constexpr char SecurityHexMark = '!';

using SecurityValuesT = std::array<int32, SecurityValueCount>;

SecurityValuesT SecurityValues(const char* pstrKey) {
    TraceMessageInline(8, 0, 4, "Selecting 64bit security");
    int32 lSeed = 0;
    for (const char* p = pstrKey; p != nullptr && *p != '\0'; p++)
        lSeed += static_cast<signed char>(*p);
    std::srand(static_cast<unsigned>(lSeed));
    SecurityValuesT alValues;
    for (int32& lValue : alValues) {
        lSeed = static_cast<int32>(static_cast<uint32>(lSeed) << 7) / 31;
        lValue = (lSeed & (SecurityValueCount - 1)) + 1;
    }
    return alValues;
}

char* SecurityNewText(std::size_t iLength) {
    if (iLength > 0x3fffffff) return nullptr;
    return static_cast<char*>(MemAllocateFromPool(static_cast<int32>(iLength) + 1, MemPool()));
}

bool SecurityIsPrintable(const char* pstrPassword) {
    for (const char* p = pstrPassword; *p != '\0'; p++) {
        if (*p < SecurityLowest || *p >= SecurityHighest) return false;
    }
    return true;
}

char* SecurityScramblePrintable(const char* pstrPassword, const SecurityValuesT& alValues) {
    const std::size_t iLength = std::strlen(pstrPassword);
    char* pstrResult = SecurityNewText(iLength);
    if (pstrResult == nullptr) return nullptr;
    for (std::size_t i = 0; i < iLength; i++) {
        const int32 lChar = pstrPassword[i] + alValues[i % SecurityValueCount];
        pstrResult[i] = static_cast<char>(lChar > SecurityHighest ? lChar - SecurityRange : lChar);
    }
    return pstrResult;
}

char* SecurityScrambleHex(const char* pstrPassword, const SecurityValuesT& alValues) {
    const std::size_t iLength = std::strlen(pstrPassword);
    char* pstrResult = iLength > 0x1fffffff ? nullptr : SecurityNewText(1 + 2 * iLength);
    if (pstrResult == nullptr) return nullptr;
    pstrResult[0] = SecurityHexMark;
    for (std::size_t i = 0; i < iLength; i++) {
        const int32 lByte = static_cast<ByteT>(pstrPassword[i]) ^ alValues[i % SecurityValueCount];
        std::snprintf(pstrResult + 1 + 2 * i, 3, "%02x", static_cast<uint32>(lByte));
    }
    return pstrResult;
}

char* SecurityUnscramblePrintable(const char* pstrText, const SecurityValuesT& alValues) {
    const std::size_t iLength = std::strlen(pstrText);
    char* pstrResult = SecurityNewText(iLength);
    if (pstrResult == nullptr) return nullptr;
    for (std::size_t i = 0; i < iLength; i++) {
        const int32 lChar = static_cast<ByteT>(pstrText[i]) - alValues[i % SecurityValueCount];
        pstrResult[i] = static_cast<char>(lChar < SecurityLowest ? lChar + SecurityRange : lChar);
    }
    return pstrResult;
}

// pstrDigits stands behind the mark.
char* SecurityUnscrambleHex(const char* pstrDigits, const SecurityValuesT& alValues) {
    const std::size_t iDigits = std::strlen(pstrDigits);
    if (iDigits % 2 != 0) return nullptr;
    PoolPtr<char> pstrResult(SecurityNewText(iDigits / 2));
    if (pstrResult.Get() == nullptr) return nullptr;
    for (std::size_t i = 0; i < iDigits / 2; i++) {
        const char* pstrEnd = pstrDigits + 2 * i + 2;
        ByteT tByte = 0;
        if (std::from_chars(pstrEnd - 2, pstrEnd, tByte, 16).ptr != pstrEnd) return nullptr;
        pstrResult.Get()[i] = static_cast<char>(tByte ^ alValues[i % SecurityValueCount]);
    }
    return pstrResult.Take();
}

struct SecurityCaseT {
    const char* pstrPattern;
    const char* pstrProperty;
    BooleanT bExpected;
    const char* pstrMessage;
};
constexpr SecurityCaseT atSecurityCases[] = {
    {"*", "This", TRUE, "'*' fails to match a simple string"},
    {"This*That", "This", FALSE, "'This*That' matched 'This'"},
    {"This*That", "ThisThat", TRUE, "'*' failed to match empty string?"},
    {"This*That", "ThisThatThat", TRUE, "End-of-string matching not working"},
    {"This*That", "ThisThatThe", FALSE, "Trailing garbage was erroneously accepted"},
    {"A*MN*Z", "ABCD LMNOP WXYZ", TRUE, "Fell over when using multiple wildcards"},
};

}  // namespace

BooleanT SecurityInitialize() { return TRUE; }

BooleanT SecurityInitializeThread(TesselContextT* /*ptTlContext*/) { return TRUE; }

void SecurityReleaseThread(TesselContextT* /*ptTlContext*/) {}

BooleanT SecurityIsOff() {
    BooleanT bDisabled = FALSE;
    CfgGetBoolean(&bDisabled, SecurityFile, "Security", "Disabled", FALSE);
    return bDisabled;
}

BooleanT SecurityGetCookie(int32* plCookie, char* pstrMachineName, char* pstrProcessName,
                           BooleanT bOutward) {
    if (plCookie == nullptr) return FALSE;
    *plCookie = SecurityNoCookie;
    const BooleanT bResult =
        pstrMachineName == nullptr
            ? FALSE
            : SecurityFindCookie(plCookie, pstrMachineName, pstrProcessName, bOutward);
    TraceMessageInline(6, 0, 4, "%s = SecurityGetCookie(%p,%s,%s,%s) (%d)", BooleanText(bResult),
                       static_cast<void*>(plCookie), TraceText(pstrMachineName),
                       TraceText(pstrProcessName), BooleanText(bOutward), *plCookie);
    return bResult;
}

BooleanT SecurityStoreCookie(char* pstrMachineName, char* pstrProcessName, int32 lCookie,
                             BooleanT bOutward) {
    if (pstrMachineName == nullptr) return FALSE;
    const char* pstrTitle = SecurityGetStanzaTitle(pstrMachineName, pstrProcessName, bOutward);
    TraceMessageInline(7, 0, 4, "Security store cookie for machine %s in stanza %s",
                       pstrMachineName, pstrTitle);
    return CfgSetInteger(SecurityFile, pstrTitle, pstrMachineName, lCookie);
}

BooleanT SecurityRemoveClient(char* pstrMachineName) {
    return CfgRemoveKey(SecurityFile, SecurityClientOut, pstrMachineName);
}

BooleanT SecurityRemoveServer(char* pstrMachineName) {
    return CfgRemoveKey(SecurityFile, SecurityProxyOut, pstrMachineName);
}

BooleanT SecurityRemoveClientInCookie(char* pstrMachineName) {
    return CfgRemoveKey(SecurityFile, SecurityClientIn, pstrMachineName);
}

BooleanT SecurityEncryptPassword(char** ppstrResult, const char* pstrPassword,
                                 const char* pstrKey) {
    if (ppstrResult == nullptr) return FALSE;
    const SecurityValuesT alValues = SecurityValues(pstrKey);
    const char* pstrText = pstrPassword == nullptr ? "" : pstrPassword;
    *ppstrResult = SecurityIsPrintable(pstrText) ? SecurityScramblePrintable(pstrText, alValues)
                                                 : SecurityScrambleHex(pstrText, alValues);
    return BooleanFrom(*ppstrResult != nullptr);
}

BooleanT SecurityDecryptPassword(char** ppstrResult, const char* pstrPassword,
                                 const char* pstrKey) {
    if (ppstrResult == nullptr || pstrPassword == nullptr || *pstrPassword == '\0') return FALSE;
    const SecurityValuesT alValues = SecurityValues(pstrKey);
    *ppstrResult = *pstrPassword == SecurityHexMark
                       ? SecurityUnscrambleHex(pstrPassword + 1, alValues)
                       : SecurityUnscramblePrintable(pstrPassword, alValues);
    return BooleanFrom(*ppstrResult != nullptr);
}

BooleanT SecurityEncryptPasswordToString(char* pstrResult, char* pstrPassword, char* pstrKey) {
    PoolPtr<char> pstrScrambled;
    if (pstrResult == nullptr ||
        SecurityEncryptPassword(pstrScrambled.Address(), pstrPassword, pstrKey) != TRUE) {
        return FALSE;
    }
    std::strcpy(pstrResult, pstrScrambled.Get());
    return TRUE;
}

// At a "*" the match goes on with the shortest run of characters; when it fails later the run of
// the last "*" is made longer by one and what follows is tried again. Earlier runs never have to
// be.
BooleanT SecurityCheckClearance(const char* pstrPattern, const char* pstrProperty) {
    if (pstrPattern == nullptr || pstrProperty == nullptr) return FALSE;
    const char* pstrAfterStar = nullptr;  // in the pattern
    const char* pstrRunEnd = nullptr;     // in the property: where the run of that "*" ends
    while (true) {
        if (*pstrPattern == '*') {
            while (*pstrPattern == '*') pstrPattern++;
            if (*pstrPattern == '\0') return TRUE;
            pstrAfterStar = pstrPattern;
            pstrRunEnd = pstrProperty;
            continue;
        }
        const char* pstrBefore = pstrProperty;
        const int iProperty = StrGetChar(&pstrProperty);
        if (StrGetChar(&pstrPattern) == iProperty) {
            if (iProperty == 0) return TRUE;
            continue;
        }
        // A property that has ended does not become longer by a longer run.
        if (pstrAfterStar == nullptr || *pstrBefore == '\0') return FALSE;
        StrGetChar(&pstrRunEnd);
        pstrPattern = pstrAfterStar;
        pstrProperty = pstrRunEnd;
    }
}

BooleanT SecurityTest() {
    BooleanT bResult = TRUE;
    for (const SecurityCaseT& tCase : atSecurityCases) {
        if (SecurityCheckClearance(tCase.pstrPattern, tCase.pstrProperty) == tCase.bExpected) {
            continue;
        }
        TraceMessageInline(9, 1, -1, "%s", tCase.pstrMessage);
        bResult = FALSE;
    }
    if (bResult == TRUE) TraceMessageInline(10, 0, 0, "All security library tests passed okay");
    return bResult;
}

BooleanT SecurityCheckAccess(BooleanT* /*pbCleared*/, const char* /*pstrHostName*/,
                             const char* /*pstrPrivilege*/) {
    return TRUE;
}

BooleanT SecurityCheckAccessFromMessage(BooleanT* /*pbCleared*/, MsgMessageO /*oSourceMessage*/,
                                        const char* /*pstrPrivilege*/) {
    return TRUE;
}
