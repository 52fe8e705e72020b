// fido2sim replay: feeds captured request PDUs to the real plug-in and prints its answers.
#pragma once

#include <cstdint>
#include <istream>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace sim {

struct ReplayOptions {
    uint32_t waitMs = 2000;
    std::string authenticator = "none";
};

// Hex with optional blanks between bytes; nullopt for anything else.
std::optional<std::vector<uint8_t>> ParseHexLine(const std::string& line);
std::string ToHex(const std::vector<uint8_t>& bytes);

// Brings one instance to ready, then answers each request line of `in` with one line on
// `out`: the answer in lowercase hex, or "-" when none came within the wait. Returns the
// process exit status.
int RunReplay(const ReplayOptions& options, std::istream& in, std::ostream& out, std::ostream& err);

}  // namespace sim
