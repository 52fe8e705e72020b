// Entry of fido2Client.dll. Nothing happens at load beyond building the static objects.
#include <windows.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD, LPVOID) { return TRUE; }
