// The built plug-in image as a host machine sees it: it must load without any library beside it.
#include <windows.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "sim/authenticator_client.h"

namespace {

TEST(PluginImage, ImportsOnlySystemLibraries) {
    HMODULE module = LoadLibraryW(sim::BesideProgram(L"fido2Client.dll").c_str());
    ASSERT_NE(module, nullptr) << "fido2Client.dll not found beside the test";
    auto at = [&](DWORD rva) { return reinterpret_cast<const uint8_t*>(module) + rva; };
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(module);
    const auto* headers = reinterpret_cast<const IMAGE_NT_HEADERS64*>(at(dos->e_lfanew));
    const std::set<std::string> system = {"kernel32.dll", "user32.dll", "advapi32.dll", "ws2_32.dll", "msvcrt.dll",
                                          "ole32.dll", "shell32.dll", "version.dll", "bcrypt.dll", "wtsapi32.dll",
                                          "userenv.dll", "ntdll.dll"};
    size_t imports = 0;
    const DWORD table = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
    for (auto* d = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(at(table)); d->Name; ++d, ++imports) {
        std::string name = reinterpret_cast<const char*>(at(d->Name));
        std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return static_cast<char>(tolower(c)); });
        EXPECT_TRUE(system.count(name)) << "the plug-in must not need " << name;
    }
    EXPECT_GT(imports, 0u);
    FreeLibrary(module);
}

}  // namespace
