// "FIDO2Flags", read once per process: the CTest entry gives the registry value and the
// expected strictness.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "plugin/webauthn_binding.h"
#include "support/registry_isolation.h"
#include "wire/response_encoders.h"

namespace {

const wchar_t kKey[] = L"Software\\Orvane, Inc.\\Orvane TBXService\\Plugins\\fido2";

void WriteFlags(const std::string& setting) {
    if (setting == "absent") return;
    if (setting.rfind("dword:", 0) == 0) {
        DWORD value = static_cast<DWORD>(strtoul(setting.c_str() + 6, nullptr, 10));
        ASSERT_TRUE(WriteHklmValue(kKey, L"FIDO2Flags", REG_DWORD, &value, sizeof(value)));
        return;
    }
    std::wstring text(setting.begin(), setting.end());
    ASSERT_TRUE(WriteHklmValue(kKey, L"FIDO2Flags", REG_SZ, text.c_str(),
                               static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))));
}

TEST(Fido2Flags, ReadOnceAndDecideTheVersionMode) {
    const char* setting = getenv("FIDO2_TEST_FLAGS");
    const char* expect = getenv("FIDO2_TEST_EXPECT_STRICT");
    if (!setting || !expect) GTEST_SKIP() << "run by CTest with a setting";
    const bool strict = std::string(expect) == "1";
    ScopedHklmOverride isolation;
    WriteFlags(setting);
    EXPECT_EQ(webauthn::GetFIDO2Flags(), strict);
    WriteFlags(strict ? "0" : "1");
    EXPECT_EQ(webauthn::GetFIDO2Flags(), strict) << "a later change has no effect";

    // The setting decides what the encoders do with a record newer than they know.
    webauthn::SetStrictVersionsPolicy(webauthn::GetFIDO2Flags);
    webauthn::WEBAUTHN_CREDENTIAL_ATTESTATION newer{};
    newer.dwVersion = webauthn::kAttestationNewest + 1;
    std::vector<uint8_t> data(webauthn::Size_AuthenticatorMakeCredentialResponse(&newer));
    EXPECT_EQ(webauthn::Encode_AuthenticatorMakeCredentialResponse(data.data(), data.data() + data.size(), 0, &newer) == 0,
              strict);
    webauthn::SetStrictVersionsPolicy(nullptr);
}

}  // namespace
