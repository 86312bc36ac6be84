// The password of the local administrator, compared with the hash in the system's shadow file. The
// system's crypt knows the methods of hashes; a hash that it does not know, such as that of a
// locked account, gives a text that is never equal to it.
#include <shadow.h>

#include <cstring>

#include "core/security.h"
#include "core/trace.h"

#ifdef TESSEL_HAVE_CRYPT
#include <crypt.h>
#endif

TRACE_MODULE("SECURITY")

namespace {

constexpr std::size_t SecurityShortestHash = 2;  // the salt alone

#ifdef TESSEL_HAVE_CRYPT
BooleanT SecurityHashIsOf(const char* pstrHash, const char* pstrPassword) {
    // Not crypt's own record, in which the password would stay.
    crypt_data tData = {};
    const char* pstrResult = crypt_r(pstrPassword, pstrHash, &tData);
    const BooleanT bSame =
        BooleanFrom(pstrResult != nullptr && std::strcmp(pstrResult, pstrHash) == 0);
    explicit_bzero(&tData, sizeof(tData));
    return bSame;
}
#else
BooleanT SecurityHashIsOf(const char* /*pstrHash*/, const char* /*pstrPassword*/) {
    TraceMessageInline(12, 1, -1,
                       "This program cannot check passwords: it was built without crypt");
    return FALSE;
}
#endif

}  // namespace

BooleanT SecurityCheckRootPassword(char* pstrPassword) {
    const spwd* ptEntry = getspnam("root");
    if (ptEntry == nullptr) {
        TraceMessageInline(11, 0, -1, "getspnam failed!");
        return FALSE;
    }
    const char* pstrHash = ptEntry->sp_pwdp == nullptr ? "" : ptEntry->sp_pwdp;
    if (pstrPassword == nullptr || *pstrPassword == '\0') return BooleanFrom(*pstrHash == '\0');
    if (std::strlen(pstrHash) < SecurityShortestHash) return FALSE;
    return SecurityHashIsOf(pstrHash, pstrPassword);
}
