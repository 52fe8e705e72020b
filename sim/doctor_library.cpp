// The library part of the doctor: the plug-in's own one attempt to bind webauthn.dll, and
// what the API version that the library reports means for the records on either side.
#include <memory>

#include "plugin/webauthn_binding.h"
#include "sim/doctor.h"
#include "sysutil/string_utils.h"
#include "sysutil/version_texts.h"
#include "wire/response_encoders.h"
#include "wire/webauthn_records.h"

namespace sim {

namespace {

// The newest version of each record at each API version, as the platform's public webauthn.h
// lists them in the notes of its WEBAUTHN_API_VERSION_n constants.
struct ApiRecords {
    DWORD api;
    DWORD makeCredentialOptions;
    DWORD getAssertionOptions;
    DWORD attestation;
    DWORD assertion;
};
const ApiRecords kPlatformRecords[] = {
    {1, 3, 4, 3, 1}, {2, 3, 4, 3, 1}, {3, 4, 5, 4, 2}, {4, 5, 6, 4, 3}, {5, 5, 6, 4, 3},
};

const ApiRecords* PlatformRecords(DWORD api) {
    for (const ApiRecords& row : kPlatformRecords) {
        if (row.api == api) return &row;
    }
    return nullptr;
}

std::string SystemText(DWORD code) {
    char* raw = nullptr;
    FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS |
                       FORMAT_MESSAGE_MAX_WIDTH_MASK,
                   nullptr, code, 0, reinterpret_cast<char*>(&raw), 0, nullptr);
    std::unique_ptr<char, HLOCAL(WINAPI*)(HLOCAL)> text(raw, LocalFree);
    std::string result = text ? text.get() : "";
    while (!result.empty() && result.back() == ' ') result.pop_back();
    return result;
}

}  // namespace

DoctorLibrary ExamineLibrary() {
    DoctorLibrary library;
    library.usable = webauthn::LoadWebauthn();
    HMODULE module = GetModuleHandleW(L"webauthn.dll");
    library.loaded = module != nullptr;
    if (module) {
        wchar_t path[MAX_PATH] = {};
        DWORD length = GetModuleFileNameW(module, path, MAX_PATH);
        library.path = StringUtils::WideToUtf8(std::wstring(path, length));
        library.fileVersion = ProcessUtils::GetFileVersionText(library.path);
    } else if (!library.usable) {
        // The plug-in keeps only its verdict; the system's reason comes from asking once more.
        HMODULE again = LoadLibraryW(L"webauthn.dll");
        library.loadError = again ? 0 : GetLastError();
        library.loadErrorText = SystemText(library.loadError);
    }
    if (module && !library.usable) {
        for (const webauthn::WebauthnEntry& row : webauthn::webauthnTable) {
            if (!row.function) {
                library.missingExport = row.exportName;
                break;
            }
        }
    }
    if (!library.usable) return library;
    library.apiVersion = webauthn::ApiVersionNumber()();

    const ApiRecords* platform = PlatformRecords(library.apiVersion);
    library.apiInTable = platform != nullptr;
    library.records = {
        {"make-credential options", false, platform ? platform->makeCredentialOptions : 0,
         webauthn::kMakeCredentialOptionsNewest},
        {"get-assertion options", false, platform ? platform->getAssertionOptions : 0,
         webauthn::kGetAssertionOptionsNewest},
        {"credential attestation", true, platform ? platform->attestation : 0, webauthn::kAttestationNewest},
        {"assertion", true, platform ? platform->assertion : 0, webauthn::kAssertionNewest},
    };
    return library;
}

}  // namespace sim
