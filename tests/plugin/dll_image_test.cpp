// The built plug-in image as a host sees it: what it imports and what it exports.
#include <windows.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "sim/authenticator_client.h"

namespace {

TEST(PluginImage, ImportsOnlySystemLibrariesAndExportsExactlyTheHostContract) {
    HMODULE module = LoadLibraryW(sim::BesideProgram(L"fido2Client.dll").c_str());
    ASSERT_NE(module, nullptr) << "fido2Client.dll not found beside the test";
    auto at = [&](DWORD rva) { return reinterpret_cast<const uint8_t*>(module) + rva; };
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(module);
    const auto* headers = reinterpret_cast<const IMAGE_NT_HEADERS64*>(at(dos->e_lfanew));
    auto directory = [&](int entry) { return at(headers->OptionalHeader.DataDirectory[entry].VirtualAddress); };
    const std::set<std::string> system = {"kernel32.dll", "user32.dll", "advapi32.dll", "ws2_32.dll", "msvcrt.dll",
                                          "ole32.dll", "shell32.dll", "version.dll", "bcrypt.dll", "wtsapi32.dll",
                                          "userenv.dll", "ntdll.dll"};
    size_t imports = 0;
    for (auto* d = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(directory(IMAGE_DIRECTORY_ENTRY_IMPORT)); d->Name;
         ++d, ++imports) {
        std::string name = reinterpret_cast<const char*>(at(d->Name));
        std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return static_cast<char>(tolower(c)); });
        EXPECT_TRUE(system.count(name)) << "the plug-in must not need " << name;
    }
    EXPECT_GT(imports, 0u);

    const auto* exports = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(directory(IMAGE_DIRECTORY_ENTRY_EXPORT));
    const auto* nameRvas = reinterpret_cast<const DWORD*>(at(exports->AddressOfNames));
    std::vector<std::string> names;
    for (DWORD i = 0; i < exports->NumberOfNames; ++i) names.push_back(reinterpret_cast<const char*>(at(nameRvas[i])));
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"DllMain", "TBXService_PluginCreateInstance", "TBXService_PluginDestroyInstance",
                                               "TBXService_PluginExit", "TBXService_PluginGetTokenName",
                                               "TBXService_PluginInit"}));
    FreeLibrary(module);
}

}  // namespace
