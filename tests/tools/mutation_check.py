#!/usr/bin/env python3
"""Plants one small fault at a time in the product, rebuilds, runs the tests that guard it and
reports whether they caught it. Run by hand; it takes minutes per fault.

    python3 tests/tools/mutation_check.py [--build DIR] [--full] [NAME...]

--full runs the whole suite for each fault instead of the fault's own CTest entries. Every
source file is restored after each fault, also on Ctrl-C. The table ends with a line per
fault: caught (some test failed) or MISSED. Exit status 1 if any fault was missed.
"""
import argparse
import os
import subprocess
import sys

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))

# name, file, text as it stands, text with the fault, CTest entries that must catch it
FAULTS = [
    ("stop-without-cancel", "src/plugin/fido2_client_plugin.cpp",
     "HRESULT hr = webauthn::CancelCurrentOperation()(reinterpret_cast<webauthn::GUID*>(cancelGuid.bytes));",
     "HRESULT hr = 0;",
     "worker_|operations"),
    ("supersede-skipped", "src/plugin/fido2_client_plugin.cpp",
     "    ReachOperationPoint(kPointStopping);\n    StopCurrentOperation();\n",
     "    ReachOperationPoint(kPointStopping);\n",
     "operations|stress"),
    ("kill-after-500-ms", "src/plugin/fido2_client_plugin.cpp",
     "workerThread->StopOrTerminate(kStopWaitMs, 0);",
     "workerThread->StopOrTerminate(500, 0);",
     "worker_StopKill"),
    ("stop-ignores-load-under-way", "src/plugin/fido2_client_plugin.cpp",
     "[this] { return !bindingPending; })",
     "[this] { return true; })",
     "worker_WorkerPoints"),
    ("stop-loads-the-library", "src/plugin/fido2_client_plugin.cpp",
     "    if (!workerThread) {\n        SY_LOG(LOG_DEBUG, kLabel, \"There is no worker thread running!\\n\");",
     "    webauthn::LoadWebauthn();\n    if (!workerThread) {\n"
     "        SY_LOG(LOG_DEBUG, kLabel, \"There is no worker thread running!\\n\");",
     "worker_WorkerPoints"),
    ("destroy-leaves-worker", "src/plugin/fido2_client.cpp",
     "    if (instance) static_cast<Fido2ClientPlugin*>(instance.Get())->StopCurrentOperation();\n",
     "",
     "operations"),
    ("exit-leaves-worker", "src/plugin/fido2_client.cpp",
     "    Fido2ClientPlugin::StopAllOperations();\n",
     "",
     "operations"),
    ("thread-failure-escapes", "src/plugin/fido2_client_plugin.cpp",
     "    } catch (const std::exception& e) {",
     "    } catch (const std::bad_alloc& e) {",
     "worker_WorkerFailures"),
    ("allocation-failure-line", "src/plugin/fido2_client_plugin.cpp",
     "SY_LOG(LOG_ERROR, Op::kLabel, \"Fail to allocate response pdu.\\n\");",
     "SY_LOG(LOG_ERROR, Op::kLabel, \"%s\", Op::kEncodeFailure);",
     "worker_WorkerFailures"),
    ("answer-after-stop", "src/plugin/fido2_client_plugin.cpp",
     "            if (plugin->OperationShouldStop(nullptr)) answer = false;",
     "            plugin->OperationShouldStop(nullptr);",
     "worker_|operations|stress"),
]


def run(command, env):
    return subprocess.run(command, cwd=ROOT, env=env, shell=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default=os.path.join(ROOT, "build-mutation"))
    parser.add_argument("--full", action="store_true")
    parser.add_argument("names", nargs="*")
    args = parser.parse_args()
    env = dict(os.environ, BUILD_DIR=args.build, build=args.build)
    chosen = [f for f in FAULTS if not args.names or f[0] in args.names]
    results = []
    for name, path, original, faulty, entries in chosen:
        full = os.path.join(ROOT, path)
        with open(full) as f:
            kept = f.read()
        if kept.count(original) != 1:
            results.append((name, "NOT APPLIED: the text to change is not there once"))
            continue
        try:
            with open(full, "w") as f:
                f.write(kept.replace(original, faulty))
            built = run("bash scripts/build.sh", env)
            if built.returncode != 0:
                results.append((name, "NOT BUILT"))
                continue
            regex = "" if args.full else "-R '%s'" % entries
            tests = run(". scripts/wine-env.sh && wine_up && ctest --test-dir \"$BUILD_DIR\" -j2 %s; "
                        "status=$?; wine_down; exit $status" % regex, env)
            failed = [line.split(" - ", 1)[1].split(" ")[0] for line in tests.stdout.splitlines()
                      if line.rstrip().endswith("(Failed)") or line.rstrip().endswith("(Timeout)")]
            results.append((name, "caught by " + ", ".join(failed) if tests.returncode != 0 else "MISSED"))
        finally:
            with open(full, "w") as f:
                f.write(kept)
        print("%-28s %s" % results[-1], flush=True)
    run("bash scripts/build.sh", env)  # leave the build as the sources are
    print("\nfault                        outcome")
    for name, outcome in results:
        print("%-28s %s" % (name, outcome))
    return 0 if all(outcome.startswith("caught") for _, outcome in results) else 1


if __name__ == "__main__":
    sys.exit(main())
