#include "support/registry_isolation.h"

#include <gtest/gtest.h>

namespace {

const wchar_t kKey[] = L"Software\\Fido2IsolationProbe";

bool ReadHklm(DWORD* value) {
    DWORD size = sizeof(*value);
    return RegGetValueW(HKEY_LOCAL_MACHINE, kKey, L"probe", RRF_RT_REG_DWORD, nullptr, value, &size) ==
           ERROR_SUCCESS;
}

TEST(RegistryIsolation, WritesLandInAPrivateKeyOfItsOwnAndVanishWithIt) {
    DWORD value = 0;
    ASSERT_FALSE(ReadHklm(&value)) << "the shared prefix must not hold the probe";
    std::wstring privatePath;
    {
        ScopedHklmOverride isolation;
        ASSERT_TRUE(isolation.IsActive());
        privatePath = isolation.PrivatePath();
        DWORD written = 0x1234;
        ASSERT_TRUE(WriteHklmValue(kKey, L"probe", REG_DWORD, &written, sizeof(written)));
        ASSERT_TRUE(ReadHklm(&value));
        EXPECT_EQ(value, 0x1234u);
        HKEY direct = nullptr;
        std::wstring below = privatePath + L"\\" + kKey;
        EXPECT_EQ(RegOpenKeyExW(HKEY_CURRENT_USER, below.c_str(), 0, KEY_READ, &direct), ERROR_SUCCESS);
        if (direct) RegCloseKey(direct);
    }
    EXPECT_FALSE(ReadHklm(&value)) << "after the override HKLM is the real one again";
    HKEY gone = nullptr;
    EXPECT_NE(RegOpenKeyExW(HKEY_CURRENT_USER, privatePath.c_str(), 0, KEY_READ, &gone), ERROR_SUCCESS);
    ScopedHklmOverride next;
    EXPECT_NE(next.PrivatePath(), privatePath) << "two overrides in a row get different keys";
}

}  // namespace
