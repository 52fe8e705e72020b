// "FIDO2Flags", read once per process: the CTest entry gives the registry value and the
// expected strictness.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "plugin/webauthn_binding.h"
#include "support/registry_isolation.h"

namespace {

void WriteFlags(const std::string& setting) {
    const wchar_t key[] = L"Software\\Orvane, Inc.\\Orvane TBXService\\Plugins\\fido2";
    if (setting.rfind("dword:", 0) == 0) {
        DWORD value = static_cast<DWORD>(strtoul(setting.c_str() + 6, nullptr, 10));
        ASSERT_TRUE(WriteHklmValue(key, L"FIDO2Flags", REG_DWORD, &value, sizeof(value)));
    } else if (setting != "absent") {
        std::wstring text(setting.begin(), setting.end());
        ASSERT_TRUE(WriteHklmValue(key, L"FIDO2Flags", REG_SZ, text.c_str(), static_cast<DWORD>((text.size() + 1) * 2)));
    }
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
}

}  // namespace
