#include "sim/replay.h"

#include <cctype>

#include "sim/authenticator_client.h"
#include "sim/host_sim.h"

namespace sim {

std::optional<std::vector<uint8_t>> ParseHexLine(const std::string& line) {
    std::vector<uint8_t> bytes;
    int high = -1;
    for (char c : line) {
        if (c == ' ' || c == '\t' || c == '\r') {
            if (high >= 0) return std::nullopt;  // a blank inside a byte
            continue;
        }
        if (!isxdigit(static_cast<unsigned char>(c))) return std::nullopt;
        int nibble = isdigit(static_cast<unsigned char>(c)) ? c - '0' : (tolower(c) - 'a' + 10);
        if (high < 0) {
            high = nibble;
        } else {
            bytes.push_back(static_cast<uint8_t>((high << 4) | nibble));
            high = -1;
        }
    }
    if (high >= 0) return std::nullopt;
    return bytes;
}

std::string ToHex(const std::vector<uint8_t>& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (uint8_t b : bytes) {
        text += kDigits[b >> 4];
        text += kDigits[b & 15];
    }
    return text;
}

namespace {

bool IsBlank(const std::string& line) {
    for (char c : line) {
        if (!isspace(static_cast<unsigned char>(c))) return false;
    }
    return true;
}
}  // namespace

int RunReplay(const ReplayOptions& options, std::istream& in, std::ostream& out, std::ostream& err) {
    if (options.authenticator == "sim" && !UseAuthenticatorFolder(L"sim-authenticator")) {
        err << "replay: the software authenticator (sim-authenticator\\webauthn.dll) is missing\n";
        return 2;
    }
    Host& host = Host::Get();
    if (!host.LoadPlugin()) {
        err << "replay: fido2Client.dll could not be loaded\n";
        return 2;
    }
    host.Init();
    TBXUserData instance = 0;
    if (!host.CreateInstance(&instance)) {
        err << "replay: the plug-in refused to create an instance\n";
        return 2;
    }
    host.BringUp();

    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line[0] == '#') continue;
        if (IsBlank(line)) continue;
        auto pdu = ParseHexLine(line);
        if (!pdu) {
            err << "replay: not a hex PDU: " << line << "\n";
            out << "-\n";
            continue;
        }
        const size_t before = host.Messages().size();
        host.DeliverMessage(*pdu);
        if (host.WaitForMessages(before + 1, options.waitMs)) {
            auto messages = host.Messages();
            const SentMessage& answer = messages[before];
            out << (answer.params.empty() ? std::string() : ToHex(answer.params[0])) << "\n";
        } else {
            out << "-\n";
        }
        out.flush();
    }
    host.DestroyInstance(instance);
    host.Exit();
    return 0;
}

}  // namespace sim
