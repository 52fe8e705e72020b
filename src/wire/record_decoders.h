// Decoders of the records that both requests share. Shape of every decoder:
// (cursor, end, out) -> bytes taken, 0 on failure. At a failure everything built is freed and
// the out-argument is null. A null out-argument decodes in full, frees, and returns the size.
#pragma once

#include "wire/webauthn_records.h"

namespace webauthn {

struct WindowRect {
    DWORD left, top, right, bottom;
};

uint32_t Decode_WindowRect(const uint8_t* cursor, const uint8_t* end, WindowRect* rect);
uint32_t Decode_RpEntityInformation(const uint8_t* cursor, const uint8_t* end, WEBAUTHN_RP_ENTITY_INFORMATION** out);
uint32_t Decode_UserEntityInformation(const uint8_t* cursor, const uint8_t* end,
                                      WEBAUTHN_USER_ENTITY_INFORMATION** out);
uint32_t Decode_CoseCredentialParameters(const uint8_t* cursor, const uint8_t* end,
                                         WEBAUTHN_COSE_CREDENTIAL_PARAMETERS** out);
uint32_t Decode_ClientData(const uint8_t* cursor, const uint8_t* end, WEBAUTHN_CLIENT_DATA** out);
uint32_t Decode_Credential(const uint8_t* cursor, const uint8_t* end, WEBAUTHN_CREDENTIAL* element);
uint32_t Decode_Credentials(const uint8_t* cursor, const uint8_t* end, WEBAUTHN_CREDENTIALS* list);
uint32_t Decode_CredentialEx(const uint8_t* cursor, const uint8_t* end, WEBAUTHN_CREDENTIAL_EX** out);
uint32_t Decode_CredentialList(const uint8_t* cursor, const uint8_t* end, WEBAUTHN_CREDENTIAL_LIST** out);
uint32_t Decode_Extensions(const uint8_t* cursor, const uint8_t* end, WEBAUTHN_EXTENSIONS* list);
// A buf of length 0 (null) or 16; any other length fails and leaves out as it was.
uint32_t Decode_GUID(const uint8_t* cursor, const uint8_t* end, GUID** out);
uint32_t Decode_HmacSecretSalt(const uint8_t* cursor, const uint8_t* end, WEBAUTHN_HMAC_SECRET_SALT** out);
uint32_t Decode_HmacSecretSaltValues(const uint8_t* cursor, const uint8_t* end,
                                     WEBAUTHN_HMAC_SECRET_SALT_VALUES** out);

namespace detail {

// A decoder's walk over its fields: each step moves the cursor, and the first failed step
// logs "Decode error. func:%s, line:%d" under the decoder's own name.
class FieldWalk {
public:
    FieldWalk(const uint8_t* start, const uint8_t* end, const char* name) : start(start), at(start), end(end), name(name) {}
    bool Step(uint32_t taken, int line);
    const uint8_t* At() const { return at; }
    const uint8_t* End() const { return end; }
    uint32_t Taken() const { return static_cast<uint32_t>(at - start); }
    // How many of `count` elements to make room for: every element takes at least 4 bytes of
    // wire, so a count beyond what is left gets room for one element more than can fit, and
    // the decode of that element fails the way it would in a list of any length.
    uint32_t ElementsToTry(uint32_t count) const;

private:
    const uint8_t* start;
    const uint8_t* at;
    const uint8_t* end;
    const char* name;
};

// Zero-filled allocations of the wire layer; null on failure.
template <class T>
T* AllocZeroed(size_t count = 1) {
    return static_cast<T*>(WireCalloc(count, sizeof(T)));
}

inline wchar16** TextOut(PCWSTR* field) { return const_cast<wchar16**>(field); }

}  // namespace detail
}  // namespace webauthn
