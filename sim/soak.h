// fido2sim soak: the demo's road in a loop for a given time, through the host simulator in
// strict mode with the real plug-in and the software authenticator, while the process's
// private memory, handles, threads and live heap bytes are sampled into a CSV. The plug-in
// logs at VERBOSE into 1 MB rolling files in "soak-log" beside the CSV and to syslog.
#pragma once

#include <ostream>
#include <string>

namespace sim {

struct SoakOptions {
    double seconds = 120;
    double sampleSeconds = 10;
    std::string csvPath = "soak.csv";
};

// Returns 0 when every answer was the one due, none came where none was due, the host saw no
// breach of its contract, no resource kept rising after warm-up and the log rolled and reached
// the syslog receiver; 1 otherwise, 2 when the plug-in, the authenticator or the log could not
// be set up or the CSV not written.
int RunSoak(const SoakOptions& options, std::ostream& out, std::ostream& err);

}  // namespace sim
