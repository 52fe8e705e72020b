// The texts of the log's first lines: the version and date of a module, and the name and
// version of the operating system.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>

namespace ProcessUtils {

// The value that means "nothing held" for a Holder.
class InvalidValue {
public:
    virtual ~InvalidValue() = default;
    virtual void* GetInvalid() const = 0;
};

class InvalidNullValue : public InvalidValue {
public:
    void* GetInvalid() const override { return nullptr; }
};

// Owns a block of the runtime's heap.
template <class T, class Invalid, int Tag>
class Holder {
public:
    Holder() { value = static_cast<T>(invalid.GetInvalid()); }
    virtual ~Holder() { Reset(static_cast<T>(invalid.GetInvalid())); }
    void Reset(T next) {
        if (value != invalid.GetInvalid()) free(value);
        value = next;
    }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;

    T value;

private:
    Invalid invalid;
};

// The version block of a file, on the stack.
class MemoryBuffer : public Holder<void*, InvalidNullValue, 10> {
public:
    bool Allocate(int32_t bytes) {
        Reset(bytes > 0 ? malloc(static_cast<size_t>(bytes)) : nullptr);
        size = value ? bytes : 0;
        return value != nullptr;
    }
    int32_t size = 0;
};

// "Mon dd yyyy hh:mm:ss" of the last write, in local time; empty if the file can't be read.
std::string GetFileDateText(const std::string& path);
// "<product version> (<date>)", with "unknown" for a block without one; empty without a block.
std::string GetProductVersionText(const std::string& path);
std::string GetFileVersionText(const std::string& path);
std::string GetOSVersionText();

}  // namespace ProcessUtils
