// Checks of the built plug-in image as a host sees it: what it imports and its version.
#include <windows.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <string>
#include <vector>

#include "sim/authenticator_client.h"

namespace {

std::wstring PluginPath() { return sim::BesideProgram(L"fido2Client.dll"); }

std::string Lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(tolower(c)); });
    return s;
}

std::vector<std::string> ImportedDlls(HMODULE module) {
    auto* base = reinterpret_cast<const uint8_t*>(module);
    auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& dir = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    std::vector<std::string> names;
    if (dir.VirtualAddress == 0) return names;
    for (auto* d = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + dir.VirtualAddress); d->Name; ++d) {
        names.push_back(Lower(reinterpret_cast<const char*>(base + d->Name)));
    }
    return names;
}

struct LoadedPlugin {
    LoadedPlugin() : module(LoadLibraryW(PluginPath().c_str())) {}
    ~LoadedPlugin() {
        if (module) FreeLibrary(module);
    }
    HMODULE module;
};

TEST(PluginImage, ImportsOnlySystemLibraries) {
    LoadedPlugin plugin;
    ASSERT_NE(plugin.module, nullptr) << "fido2Client.dll not found beside the test";
    const std::set<std::string> system = {"kernel32.dll", "user32.dll", "advapi32.dll", "ws2_32.dll",
                                          "msvcrt.dll",   "ole32.dll",  "shell32.dll",  "version.dll",
                                          "bcrypt.dll",   "wtsapi32.dll", "userenv.dll", "ntdll.dll"};
    auto imports = ImportedDlls(plugin.module);
    EXPECT_FALSE(imports.empty());
    for (const std::string& name : imports) {
        EXPECT_TRUE(system.count(name)) << "the plug-in must not need " << name;
    }
}

std::vector<std::string> ExportedNames(HMODULE module) {
    auto* base = reinterpret_cast<const uint8_t*>(module);
    auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& dir = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
    std::vector<std::string> names;
    if (dir.VirtualAddress == 0) return names;
    auto* exports = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(base + dir.VirtualAddress);
    auto* nameRvas = reinterpret_cast<const DWORD*>(base + exports->AddressOfNames);
    for (DWORD i = 0; i < exports->NumberOfNames; ++i) names.push_back(reinterpret_cast<const char*>(base + nameRvas[i]));
    std::sort(names.begin(), names.end());
    return names;
}

TEST(PluginImage, ExportsExactlyTheHostContract) {
    LoadedPlugin plugin;
    ASSERT_NE(plugin.module, nullptr);
    const std::vector<std::string> expected = {"DllMain",
                                               "TBXService_PluginCreateInstance",
                                               "TBXService_PluginDestroyInstance",
                                               "TBXService_PluginExit",
                                               "TBXService_PluginGetTokenName",
                                               "TBXService_PluginInit"};
    EXPECT_EQ(ExportedNames(plugin.module), expected);
}

TEST(PluginImage, CarriesProductVersion100) {
    std::wstring path = PluginPath();
    DWORD ignored = 0;
    DWORD size = GetFileVersionInfoSizeW(path.c_str(), &ignored);
    ASSERT_GT(size, 0u);
    std::vector<uint8_t> block(size);
    ASSERT_TRUE(GetFileVersionInfoW(path.c_str(), 0, size, block.data()));
    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT length = 0;
    ASSERT_TRUE(VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&fixed), &length));
    EXPECT_EQ(HIWORD(fixed->dwProductVersionMS), 1u);
    EXPECT_EQ(LOWORD(fixed->dwProductVersionMS), 0u);
    EXPECT_EQ(HIWORD(fixed->dwProductVersionLS), 0u);
    wchar_t* text = nullptr;
    ASSERT_TRUE(VerQueryValueW(block.data(), L"\\StringFileInfo\\040904B0\\ProductVersion",
                               reinterpret_cast<void**>(&text), &length));
    EXPECT_STREQ(text, L"1.0.0");
}

}  // namespace
