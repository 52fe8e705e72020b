// fido2sim demo: the whole road with the host simulator, the real plug-in and the software
// authenticator, told step by step.
#pragma once

#include <ostream>
#include <string>

namespace sim {

// Returns the exit status: 0 when every step behaved as it must. With a json path, the
// registration and the authentication are also written as WebAuthn PublicKeyCredential JSON.
int RunDemo(const std::string& jsonPath, std::ostream& out, std::ostream& err);

}  // namespace sim
