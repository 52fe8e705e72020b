// Complete WebAuthn requests as a browser would make them, in every options version, for
// tests, seeds of the fuzz corpus, the replay tool and the demo. The arena owns every
// string and byte of the records it builds.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include "wire/webauthn_records.h"

namespace agent {

class SampleArena {
public:
    const wchar16* Text(const std::u16string& text);
    uint8_t* Bytes(const std::vector<uint8_t>& bytes);
    uint8_t* Bytes(const std::string& text) { return Bytes(std::vector<uint8_t>(text.begin(), text.end())); }
    template <class T>
    T* New(size_t count = 1) {
        blocks.emplace_back(count * sizeof(T), 0);
        return reinterpret_cast<T*>(blocks.back().data());
    }

private:
    std::deque<std::u16string> texts;
    std::deque<std::vector<uint8_t>> blocks;
};

// optionsVersion 0 builds no options at all. `full` fills every optional record that the
// version has; otherwise optional records are absent (presence 0) and lists are empty.
webauthn::Fido2MakeCredentialRequest SampleMakeCredential(SampleArena& arena, uint32_t optionsVersion, bool full);
webauthn::Fido2GetAssertionRequest SampleGetAssertion(SampleArena& arena, uint32_t optionsVersion, bool full);
const webauthn::GUID* SampleGuid(SampleArena& arena);

}  // namespace agent
