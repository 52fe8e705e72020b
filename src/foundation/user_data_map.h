// Registries from 64-bit handles to weak pointers. A host callback carries a handle, never a
// pointer: it finds its object here, or learns that the object has gone.
#pragma once

#include <cstdint>
#include <map>

#include "foundation/rc_object.h"
#include "foundation/sy_mutex.h"

namespace userdata {
// The upper 32 bits of every key of this process: process id and session id, 16 bits each.
uint64_t KeyBase();
// The next value of the one process-wide counter (the lower half of a key).
uint32_t NextKeyCounter();
}  // namespace userdata

template <class WeakT>
class UserDataMap : public RCObject {
public:
    UserDataMap() : RCObject(), keyBase(userdata::KeyBase()) {}
    explicit UserDataMap(bool counted) : RCObject(counted), keyBase(userdata::KeyBase()) {}
    ~UserDataMap() override {
        SyMutexGuard guard(&mutex);
        entries.clear();
    }

    uint64_t Add(const WeakT& entry) {
        SyMutexGuard guard(&mutex);
        uint64_t key;
        // A key stays unique while its object lives, also when the counter wraps round.
        do {
            key = keyBase | userdata::NextKeyCounter();
        } while (entries.count(key) || (key & 0xFFFFFFFFu) == 0);
        entries.emplace(key, entry);
        return key;
    }

    WeakT Find(uint64_t key) {
        SyMutexGuard guard(&mutex);
        auto it = entries.find(key);
        return it == entries.end() ? WeakT() : it->second;
    }

    bool Remove(uint64_t key) {
        SyMutexGuard guard(&mutex);
        return entries.erase(key) > 0;
    }

    size_t Size() {
        SyMutexGuard guard(&mutex);
        return entries.size();
    }

    uint64_t GetKeyBase() const { return keyBase; }

private:
    std::map<uint64_t, WeakT> entries;
    uint64_t keyBase;
    SyMutex mutex;
};
