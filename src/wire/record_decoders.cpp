#include "wire/record_decoders.h"

#include <cstdio>
#include <cstring>

#include "logging/log.h"
#include "wire/record_release.h"

namespace webauthn {
namespace detail {

bool FieldWalk::Step(uint32_t taken, int line) {
    if (taken == 0) {
        char function[96];
        snprintf(function, sizeof(function), "%s()", name);
        SY_LOG(LOG_ERROR, function, "Decode error. func:%s, line:%d", name, line);
        return false;
    }
    at += taken;
    return true;
}

uint32_t FieldWalk::ElementsToTry(uint32_t count) const {
    // Bounds the allocation by the PDU, not by the agent's count.
    if (!end || at > end) return count;
    const uint64_t room = static_cast<uint64_t>(end - at) / 4 + 1;
    return room < count ? static_cast<uint32_t>(room) : count;
}

}  // namespace detail

using detail::AllocZeroed;
using detail::FieldWalk;
using detail::TextOut;

namespace {

// Hands a finished record to the caller, or frees it when the caller only measures.
template <class T>
uint32_t Deliver(const FieldWalk& walk, T* record, T** out, void (*release)(T*)) {
    if (out) {
        *out = record;
    } else {
        release(record);
    }
    return walk.Taken();
}

template <class T>
uint32_t Fail(T* record, T** out, void (*release)(T*)) {
    release(record);
    if (out) *out = nullptr;
    return 0;
}

// Reads a list's count and makes room for the elements to try, zeroed, with the count stored
// beside them before the first element is decoded, so a partial list frees cleanly. False at a
// failure; `tried` gets the number of elements to decode.
template <class T>
bool ReadCount(FieldWalk& walk, T** elements, DWORD* stored, uint32_t* tried, int line) {
    uint32_t count = 0;
    if (!walk.Step(Decode_uint32(walk.At(), walk.End(), &count), line)) return false;
    *tried = walk.ElementsToTry(count);
    if (*tried == 0) return true;
    *elements = AllocZeroed<T>(*tried);
    if (!*elements) return false;
    *stored = *tried;
    return true;
}

// Reads a presence word; false at a failure. present is false for an absent record.
bool ReadPresence(FieldWalk& walk, bool* present, int line) {
    uint32_t flag = 0;
    if (!walk.Step(Decode_uint32(walk.At(), walk.End(), &flag), line)) return false;
    *present = flag != 0;
    return true;
}

}  // namespace

uint32_t Decode_WindowRect(const uint8_t* cursor, const uint8_t* end, WindowRect* rect) {
    FieldWalk w(cursor, end, "Decode_WindowRect");
    if (!rect) return 0;
    if (!w.Step(Decode_uint32(w.At(), end, &rect->left), __LINE__) ||
        !w.Step(Decode_uint32(w.At(), end, &rect->top), __LINE__) ||
        !w.Step(Decode_uint32(w.At(), end, &rect->right), __LINE__) ||
        !w.Step(Decode_uint32(w.At(), end, &rect->bottom), __LINE__)) {
        return 0;
    }
    return w.Taken();
}

uint32_t Decode_RpEntityInformation(const uint8_t* cursor, const uint8_t* end, WEBAUTHN_RP_ENTITY_INFORMATION** out) {
    FieldWalk w(cursor, end, "Decode_RpEntityInformation");
    auto* r = AllocZeroed<WEBAUTHN_RP_ENTITY_INFORMATION>();
    if (!r) return Fail(r, out, Free_RpEntityInformation);
    if (!w.Step(Decode_uint32(w.At(), end, &r->dwVersion), __LINE__) ||
        !w.Step(Decode_wstr(w.At(), end, TextOut(&r->pwszId)), __LINE__) ||
        !w.Step(Decode_wstr(w.At(), end, TextOut(&r->pwszName)), __LINE__) ||
        !w.Step(Decode_wstr(w.At(), end, TextOut(&r->pwszIcon)), __LINE__)) {
        return Fail(r, out, Free_RpEntityInformation);
    }
    return Deliver(w, r, out, Free_RpEntityInformation);
}

uint32_t Decode_UserEntityInformation(const uint8_t* cursor, const uint8_t* end,
                                      WEBAUTHN_USER_ENTITY_INFORMATION** out) {
    FieldWalk w(cursor, end, "Decode_UserEntityInformation");
    auto* r = AllocZeroed<WEBAUTHN_USER_ENTITY_INFORMATION>();
    if (!r) return Fail(r, out, Free_UserEntityInformation);
    if (!w.Step(Decode_uint32(w.At(), end, &r->dwVersion), __LINE__) ||
        !w.Step(Decode_buf_uint32Len(w.At(), end, &r->pbId, &r->cbId), __LINE__) ||
        !w.Step(Decode_wstr(w.At(), end, TextOut(&r->pwszName)), __LINE__) ||
        !w.Step(Decode_wstr(w.At(), end, TextOut(&r->pwszIcon)), __LINE__) ||
        !w.Step(Decode_wstr(w.At(), end, TextOut(&r->pwszDisplayName)), __LINE__)) {
        return Fail(r, out, Free_UserEntityInformation);
    }
    return Deliver(w, r, out, Free_UserEntityInformation);
}

uint32_t Decode_CoseCredentialParameters(const uint8_t* cursor, const uint8_t* end,
                                         WEBAUTHN_COSE_CREDENTIAL_PARAMETERS** out) {
    FieldWalk w(cursor, end, "Decode_CoseCredentialParameters");
    auto* r = AllocZeroed<WEBAUTHN_COSE_CREDENTIAL_PARAMETERS>();
    if (!r) return Fail(r, out, Free_CoseCredentialParameters);
    uint32_t count = 0;
    if (!ReadCount(w, &r->pCredentialParameters, &r->cCredentialParameters, &count, __LINE__)) {
        return Fail(r, out, Free_CoseCredentialParameters);
    }
    for (uint32_t i = 0; i < count; ++i) {
        WEBAUTHN_COSE_CREDENTIAL_PARAMETER& e = r->pCredentialParameters[i];
        uint32_t alg = 0;
        if (!w.Step(Decode_uint32(w.At(), end, &e.dwVersion), __LINE__) ||
            !w.Step(Decode_wstr(w.At(), end, TextOut(&e.pwszCredentialType)), __LINE__) ||
            !w.Step(Decode_uint32(w.At(), end, &alg), __LINE__)) {
            return Fail(r, out, Free_CoseCredentialParameters);
        }
        e.lAlg = static_cast<LONG>(alg);
    }
    return Deliver(w, r, out, Free_CoseCredentialParameters);
}

uint32_t Decode_ClientData(const uint8_t* cursor, const uint8_t* end, WEBAUTHN_CLIENT_DATA** out) {
    FieldWalk w(cursor, end, "Decode_ClientData");
    auto* r = AllocZeroed<WEBAUTHN_CLIENT_DATA>();
    if (!r) return Fail(r, out, Free_ClientData);
    if (!w.Step(Decode_uint32(w.At(), end, &r->dwVersion), __LINE__) ||
        !w.Step(Decode_buf_uint32Len(w.At(), end, &r->pbClientDataJSON, &r->cbClientDataJSON), __LINE__) ||
        !w.Step(Decode_wstr(w.At(), end, TextOut(&r->pwszHashAlgId)), __LINE__)) {
        return Fail(r, out, Free_ClientData);
    }
    return Deliver(w, r, out, Free_ClientData);
}

uint32_t Decode_Credential(const uint8_t* cursor, const uint8_t* end, WEBAUTHN_CREDENTIAL* e) {
    FieldWalk w(cursor, end, "Decode_Credential");
    if (!e) return 0;
    if (!w.Step(Decode_uint32(w.At(), end, &e->dwVersion), __LINE__) ||
        !w.Step(Decode_buf_uint32Len(w.At(), end, &e->pbId, &e->cbId), __LINE__) ||
        !w.Step(Decode_wstr(w.At(), end, TextOut(&e->pwszCredentialType)), __LINE__)) {
        return 0;
    }
    return w.Taken();
}

uint32_t Decode_Credentials(const uint8_t* cursor, const uint8_t* end, WEBAUTHN_CREDENTIALS* list) {
    FieldWalk w(cursor, end, "Decode_Credentials");
    if (!list) return 0;
    uint32_t count = 0;
    if (!ReadCount(w, &list->pCredentials, &list->cCredentials, &count, __LINE__)) return 0;
    for (uint32_t i = 0; i < count; ++i) {
        if (!w.Step(Decode_Credential(w.At(), end, &list->pCredentials[i]), __LINE__)) {
            Free_Credentials(list);
            return 0;
        }
    }
    return w.Taken();
}

uint32_t Decode_CredentialEx(const uint8_t* cursor, const uint8_t* end, WEBAUTHN_CREDENTIAL_EX** out) {
    FieldWalk w(cursor, end, "Decode_CredentialEx");
    bool present = false;
    if (!ReadPresence(w, &present, __LINE__)) {
        if (out) *out = nullptr;
        return 0;
    }
    if (!present) {
        if (out) *out = nullptr;
        return w.Taken();
    }
    auto* r = AllocZeroed<WEBAUTHN_CREDENTIAL_EX>();
    if (!r) return Fail(r, out, Free_CredentialEx);
    if (!w.Step(Decode_uint32(w.At(), end, &r->dwVersion), __LINE__) ||
        !w.Step(Decode_buf_uint32Len(w.At(), end, &r->pbId, &r->cbId), __LINE__) ||
        !w.Step(Decode_wstr(w.At(), end, TextOut(&r->pwszCredentialType)), __LINE__) ||
        !w.Step(Decode_uint32(w.At(), end, &r->dwTransports), __LINE__)) {
        return Fail(r, out, Free_CredentialEx);
    }
    return Deliver(w, r, out, Free_CredentialEx);
}

uint32_t Decode_CredentialList(const uint8_t* cursor, const uint8_t* end, WEBAUTHN_CREDENTIAL_LIST** out) {
    FieldWalk w(cursor, end, "Decode_CredentialList");
    bool present = false;
    if (!ReadPresence(w, &present, __LINE__)) {
        if (out) *out = nullptr;
        return 0;
    }
    if (!present) {
        if (out) *out = nullptr;
        return w.Taken();
    }
    auto* r = AllocZeroed<WEBAUTHN_CREDENTIAL_LIST>();
    if (!r) return Fail(r, out, Free_CredentialList);
    uint32_t count = 0;
    if (!ReadCount(w, &r->ppCredentials, &r->cCredentials, &count, __LINE__)) return Fail(r, out, Free_CredentialList);
    for (uint32_t i = 0; i < count; ++i) {
        if (!w.Step(Decode_CredentialEx(w.At(), end, &r->ppCredentials[i]), __LINE__)) {
            return Fail(r, out, Free_CredentialList);
        }
    }
    return Deliver(w, r, out, Free_CredentialList);
}

uint32_t Decode_Extensions(const uint8_t* cursor, const uint8_t* end, WEBAUTHN_EXTENSIONS* list) {
    FieldWalk w(cursor, end, "Decode_Extensions");
    if (!list) return 0;
    uint32_t count = 0;
    if (!ReadCount(w, &list->pExtensions, &list->cExtensions, &count, __LINE__)) return 0;
    for (uint32_t i = 0; i < count; ++i) {
        WEBAUTHN_EXTENSION& e = list->pExtensions[i];
        uint8_t* bytes = nullptr;
        bool ok = w.Step(Decode_wstr(w.At(), end, TextOut(&e.pwszExtensionIdentifier)), __LINE__) &&
                  w.Step(Decode_buf_uint32Len(w.At(), end, &bytes, &e.cbExtension), __LINE__);
        e.pvExtension = bytes;
        if (!ok) {
            Free_Extensions(list);
            return 0;
        }
    }
    return w.Taken();
}

uint32_t Decode_GUID(const uint8_t* cursor, const uint8_t* end, GUID** out) {
    uint8_t* bytes = nullptr;
    uint32_t length = 0;
    uint32_t taken = Decode_buf_uint32Len(cursor, end, out ? &bytes : nullptr, &length);
    if (taken == 0) return 0;
    if (length != 0 && length != 16) {
        WireFree(bytes);
        return 0;
    }
    if (out) *out = reinterpret_cast<GUID*>(bytes);
    return taken;
}

uint32_t Decode_HmacSecretSalt(const uint8_t* cursor, const uint8_t* end, WEBAUTHN_HMAC_SECRET_SALT** out) {
    FieldWalk w(cursor, end, "Decode_HmacSecretSalt");
    bool present = false;
    if (!ReadPresence(w, &present, __LINE__)) {
        if (out) *out = nullptr;
        return 0;
    }
    if (!present) {
        if (out) *out = nullptr;
        return w.Taken();
    }
    auto* r = AllocZeroed<WEBAUTHN_HMAC_SECRET_SALT>();
    if (!r) return Fail(r, out, Free_HmacSecretSalt);
    if (!w.Step(Decode_buf_uint32Len(w.At(), end, &r->pbFirst, &r->cbFirst), __LINE__) ||
        !w.Step(Decode_buf_uint32Len(w.At(), end, &r->pbSecond, &r->cbSecond), __LINE__)) {
        return Fail(r, out, Free_HmacSecretSalt);
    }
    return Deliver(w, r, out, Free_HmacSecretSalt);
}

namespace {
uint32_t Decode_CredWithHmacSecretSalt(const uint8_t* cursor, const uint8_t* end,
                                       WEBAUTHN_CRED_WITH_HMAC_SECRET_SALT* e) {
    FieldWalk w(cursor, end, "Decode_CredWithHmacSecretSalt");
    if (!w.Step(Decode_buf_uint32Len(w.At(), end, &e->pbCredID, &e->cbCredID), __LINE__) ||
        !w.Step(Decode_HmacSecretSalt(w.At(), end, &e->pHmacSecretSalt), __LINE__)) {
        return 0;
    }
    return w.Taken();
}
}  // namespace

uint32_t Decode_HmacSecretSaltValues(const uint8_t* cursor, const uint8_t* end,
                                     WEBAUTHN_HMAC_SECRET_SALT_VALUES** out) {
    FieldWalk w(cursor, end, "Decode_HmacSecretSaltValues");
    bool present = false;
    if (!ReadPresence(w, &present, __LINE__)) {
        if (out) *out = nullptr;
        return 0;
    }
    if (!present) {
        if (out) *out = nullptr;
        return w.Taken();
    }
    auto* r = AllocZeroed<WEBAUTHN_HMAC_SECRET_SALT_VALUES>();
    if (!r) return Fail(r, out, Free_HmacSecretSaltValues);
    uint32_t count = 0;
    if (!w.Step(Decode_HmacSecretSalt(w.At(), end, &r->pGlobalHmacSalt), __LINE__) ||
        !ReadCount(w, &r->pCredWithHmacSecretSaltList, &r->cCredWithHmacSecretSaltList, &count, __LINE__)) {
        return Fail(r, out, Free_HmacSecretSaltValues);
    }
    for (uint32_t i = 0; i < count; ++i) {
        if (!w.Step(Decode_CredWithHmacSecretSalt(w.At(), end, &r->pCredWithHmacSecretSaltList[i]), __LINE__)) {
            return Fail(r, out, Free_HmacSecretSaltValues);
        }
    }
    return Deliver(w, r, out, Free_HmacSecretSaltValues);
}

}  // namespace webauthn
