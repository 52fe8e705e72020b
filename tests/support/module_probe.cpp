// A DLL that asks the product's module functions from inside a library, as the plug-in does.
#include <windows.h>

#include "sysutil/process_utils.h"
#include "sysutil/string_utils.h"

extern "C" __declspec(dllexport) int ProbeModulePath(int ownModule, char* buffer, int size) {
    std::string path = ProcessUtils::GetModulePath(ownModule != 0);
    return StringUtils::CopyBounded(buffer, path.c_str(), size - 1);
}
