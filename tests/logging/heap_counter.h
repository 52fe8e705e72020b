// Counts the heap allocations that this program's own code makes on the thread that made the
// counter, for the life of the counter: the program's imports of malloc, calloc and realloc
// (operator new lands in malloc too) are pointed at counting stand-ins. One counter at a time.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstring>

class HeapCounter {
public:
    HeapCounter() : slots{Import("malloc"), Import("calloc"), Import("realloc")} {
        if (!slots[0] || !slots[1] || !slots[2]) return;
        thread = GetCurrentThreadId();
        count = 0;
        for (int i = 0; i < 3; ++i) real[i] = Swap(slots[i], counting[i]);
        hooked = true;
    }
    ~HeapCounter() {
        if (!Hooked()) return;
        for (int i = 0; i < 3; ++i) Swap(slots[i], real[i]);
    }
    // False if the imports couldn't be found: the count then proves nothing.
    bool Hooked() const { return hooked; }
    long Count() const { return count; }

    HeapCounter(const HeapCounter&) = delete;
    HeapCounter& operator=(const HeapCounter&) = delete;

private:
    static void Counted() {
        if (GetCurrentThreadId() == thread) ++count;
    }
    static void* Malloc(size_t size) { return Counted(), reinterpret_cast<void* (*)(size_t)>(real[0])(size); }
    static void* Calloc(size_t n, size_t size) {
        return Counted(), reinterpret_cast<void* (*)(size_t, size_t)>(real[1])(n, size);
    }
    static void* Realloc(void* block, size_t size) {
        return Counted(), reinterpret_cast<void* (*)(void*, size_t)>(real[2])(block, size);
    }

    // The slot of the program's import table that holds the named function, or null.
    static void** Import(const char* name) {
        auto* base = reinterpret_cast<uint8_t*>(GetModuleHandleW(nullptr));
        auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
        const IMAGE_DATA_DIRECTORY& dir = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
        if (dir.VirtualAddress == 0) return nullptr;
        for (auto* desc = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + dir.VirtualAddress); desc->Name; ++desc) {
            auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + desc->OriginalFirstThunk);
            auto* slot = reinterpret_cast<IMAGE_THUNK_DATA*>(base + desc->FirstThunk);
            for (; names->u1.AddressOfData; ++names, ++slot) {
                if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) continue;
                auto* byName = reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
                if (strcmp(reinterpret_cast<const char*>(byName->Name), name) == 0) {
                    return reinterpret_cast<void**>(&slot->u1.Function);
                }
            }
        }
        return nullptr;
    }
    static void* Swap(void** slot, void* value) {
        DWORD old = 0;
        VirtualProtect(slot, sizeof(void*), PAGE_READWRITE, &old);
        void* previous = *slot;
        *slot = value;
        VirtualProtect(slot, sizeof(void*), old, &old);
        return previous;
    }

    void** slots[3];
    bool hooked = false;
    static inline void* real[3] = {};
    static inline void* const counting[3] = {reinterpret_cast<void*>(&Malloc), reinterpret_cast<void*>(&Calloc),
                                             reinterpret_cast<void*>(&Realloc)};
    static inline DWORD thread = 0;
    static inline std::atomic<long> count{0};
};
