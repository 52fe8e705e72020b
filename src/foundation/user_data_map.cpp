#include "foundation/user_data_map.h"

#include <windows.h>

#include <atomic>

#include "sysutil/process_utils.h"

namespace userdata {

uint64_t KeyBase() {
    uint64_t process = GetCurrentProcessId() & 0xFFFFu;
    uint64_t session = ProcessUtils::GetSessionID(true) & 0xFFFFu;
    return (process << 48) | (session << 32);
}

uint32_t NextKeyCounter() {
    static std::atomic<uint32_t> counter{0};
    return ++counter;
}

}  // namespace userdata
