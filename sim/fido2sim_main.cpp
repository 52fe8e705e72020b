// fido2sim: tools around the real plug-in and the host simulator.
//   fido2sim soak [--seconds N] [--sample-seconds N] [--csv FILE]
//   fido2sim replay [--wait-ms N] [--authenticator=none|sim]  < requests.hex
//   fido2sim doctor [--json]
#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "sim/demo.h"
#include "sim/doctor.h"
#include "sim/replay.h"
#include "sim/soak.h"

namespace {

int Usage() {
    std::cerr << "usage: fido2sim demo [--json FILE]\n"
                 "       fido2sim soak [--seconds N] [--sample-seconds N] [--csv FILE]\n"
                 "       fido2sim replay [--wait-ms N] [--authenticator=none|sim]\n"
                 "  Reads request PDUs as hex, one per line, from standard input and prints\n"
                 "  the plug-in's answer to each as hex, or - when none came within the wait.\n"
                 "       fido2sim doctor [--json]\n"
                 "  What the plug-in would find on this machine; exit status 0 when redirection would work.\n";
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && strcmp(argv[1], "demo") == 0) {
        std::string json;
        for (int i = 2; i < argc; ++i) {
            if (strcmp(argv[i], "--json") == 0 && i + 1 < argc) {
                json = argv[++i];
            } else {
                return Usage();
            }
        }
        return sim::RunDemo(json, std::cout, std::cerr);
    }
    if (argc >= 2 && strcmp(argv[1], "doctor") == 0) {
        if (argc > 3 || (argc == 3 && strcmp(argv[2], "--json") != 0)) return Usage();
        return sim::RunDoctor(argc == 3, std::cout);
    }
    if (argc >= 2 && strcmp(argv[1], "soak") == 0) {
        sim::SoakOptions options;
        for (int i = 2; i < argc; ++i) {
            std::string arg = argv[i];
            char* end = nullptr;
            if (arg == "--seconds" && i + 1 < argc) {
                options.seconds = strtod(argv[++i], &end);
            } else if (arg == "--sample-seconds" && i + 1 < argc) {
                options.sampleSeconds = strtod(argv[++i], &end);
            } else if (arg == "--csv" && i + 1 < argc) {
                options.csvPath = argv[++i];
            } else {
                return Usage();
            }
            if (end && (*end != '\0' || end == argv[i])) return Usage();
        }
        if (options.seconds <= 0 || options.sampleSeconds <= 0) return Usage();
        return sim::RunSoak(options, std::cout, std::cerr);
    }
    if (argc < 2 || strcmp(argv[1], "replay") != 0) return Usage();
    sim::ReplayOptions options;
    for (int i = 2; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--wait-ms" && i + 1 < argc) {
            options.waitMs = static_cast<uint32_t>(strtoul(argv[++i], nullptr, 10));
        } else if (arg.rfind("--wait-ms=", 0) == 0) {
            options.waitMs = static_cast<uint32_t>(strtoul(arg.c_str() + 10, nullptr, 10));
        } else if (arg.rfind("--authenticator=", 0) == 0) {
            options.authenticator = arg.substr(16);
            if (options.authenticator != "none" && options.authenticator != "sim") return Usage();
        } else {
            return Usage();
        }
    }
    // Plain line feeds, so that the answers compare as they are in any pipeline.
    _setmode(_fileno(stdout), _O_BINARY);
    return sim::RunReplay(options, std::cin, std::cout, std::cerr);
}
