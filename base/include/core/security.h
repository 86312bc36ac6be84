// Security between machines: cookies by which one machine's processes prove themselves to
// another's, scrambled passwords, privilege patterns, and the password of the local administrator.
// The cookies are kept in "security.cfg" (docs/configuration.md).
#pragma once

#include "core/types.h"

constexpr int32 SecurityNoCookie = -1;

BooleanT SecurityInitialize();
BooleanT SecurityInitializeThread(TesselContextT* ptTlContext);
void SecurityReleaseThread(TesselContextT* ptTlContext);

// --- cookies ---

BooleanT SecurityIsOff();  // "Disabled" of "Security"

// The cookie that a machine is shown (bOutward TRUE) or must show. The local machine's is 0, and so
// is every inward one when security is off. FALSE, with SecurityNoCookie, when there is none.
BooleanT SecurityGetCookie(int32* plCookie, char* pstrMachineName, char* pstrProcessName,
                           BooleanT bOutward);
BooleanT SecurityStoreCookie(char* pstrMachineName, char* pstrProcessName, int32 lCookie,
                             BooleanT bOutward);
BooleanT SecurityRemoveClient(char* pstrMachineName);          // the outward cookie of clients
BooleanT SecurityRemoveServer(char* pstrMachineName);          // the outward cookie of the proxy
BooleanT SecurityRemoveClientInCookie(char* pstrMachineName);  // the inward cookie of clients

// --- scrambled passwords: kept from a passing glance, not from an attacker ---

// Both give new texts, the caller's. A null or empty key is a key like any other. The scrambled
// text is as long as the password where its bytes are 34 to 125, else "!" and two hexadecimal
// digits a byte. Both seed the C library's random numbers with the key.
BooleanT SecurityEncryptPassword(char** ppstrResult, const char* pstrPassword, const char* pstrKey);
// FALSE, without a text, for a null or empty one and for broken hexadecimal digits.
BooleanT SecurityDecryptPassword(char** ppstrResult, const char* pstrPassword, const char* pstrKey);
// Into a buffer of at least twice the password's length and 2 bytes.
BooleanT SecurityEncryptPasswordToString(char* pstrResult, char* pstrPassword, char* pstrKey);

// --- access ---

// Whether this is the password of the user "root"; null and "" only where the account has none.
// Always FALSE for a locked account, without the right to read the shadow file, and for any other
// password in a build without the system's crypt.
BooleanT SecurityCheckRootPassword(char* pstrPassword);

// Whether a privilege fits a pattern, in which "*" stands for any characters or none.
BooleanT SecurityCheckClearance(const char* pstrPattern, const char* pstrProperty);
BooleanT SecurityTest();  // self-test of the patterns, traced

// Grant every request: TRUE, with *pbCleared as it is.
BooleanT SecurityCheckAccess(BooleanT* pbCleared, const char* pstrHostName,
                             const char* pstrPrivilege);
BooleanT SecurityCheckAccessFromMessage(BooleanT* pbCleared, MsgMessageO oSourceMessage,
                                        const char* pstrPrivilege);
