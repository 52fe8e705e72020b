// A second process that keeps a log file open the way a running writer does (append, no
// deny mode) until told to let go: file_holder PATH READY_EVENT RELEASE_EVENT.
#include <windows.h>

#include <share.h>
#include <cstdio>

int wmain(int argc, wchar_t** argv) {
    if (argc != 4) return 2;
    FILE* file = _wfsopen(argv[1], L"a", _SH_DENYNO);
    if (!file) return 3;
    HANDLE ready = OpenEventW(EVENT_MODIFY_STATE, FALSE, argv[2]);
    HANDLE release = OpenEventW(SYNCHRONIZE, FALSE, argv[3]);
    if (!ready || !release) return 4;
    SetEvent(ready);
    // Bounded, so that a test that dies never leaves the file held for good.
    DWORD waited = WaitForSingleObject(release, 120000);
    fclose(file);
    CloseHandle(ready);
    CloseHandle(release);
    return waited == WAIT_OBJECT_0 ? 0 : 5;
}
