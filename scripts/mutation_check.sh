#!/usr/bin/env bash
# Plants small faults in the product one at a time and runs the suite against each: every fault
# must make at least one test fail. Run by hand; it is not part of scripts/test.sh.
#
#   scripts/mutation_check.sh [--list] [--no-baseline] [fault ...]
#
# The faults are applied to a scratch copy of the tracked files of this working tree (committed
# or not), in MUTATION_DIR (default: build/mutation/ of this tree), never to the tree
# itself. One build folder serves every fault; the compiler cache makes each rebuild a few
# files. Each run goes through CTest and ends at the first failure, so a killed fault costs up to
# its first failing test and a surviving one the whole suite. Left out: bench_json and bench_tests,
# which time and tabulate figures and can't see a fault in the product's behaviour.
#
# Exit status: 0 when every selected fault was killed; 1 when one survived, didn't apply or
# didn't build; 2 for a usage error or a baseline that isn't green.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
work=${MUTATION_DIR:-$root/build/mutation}
# Laid out as a worktree with its build folder inside, so that the compiler cache (relative to
# the folder above, see build.sh) finds this tree's objects under the same names.
src=$work/tree
build=$src/build
excluded='^(bench_json|bench_tests)$'

names=() files=() olds=() news=()
# fault NAME FILE OLD NEW: NEW replaces OLD, which must occur exactly once in FILE.
fault() { names+=("$1"); files+=("$2"); olds+=("$3"); news+=("$4"); }

plugin=src/plugin/fido2_client_plugin.cpp
fault cancel_removed_from_stop "$plugin" \
  'HRESULT hr = webauthn::CancelCurrentOperation()(reinterpret_cast<webauthn::GUID*>(cancelGuid.bytes));' \
  'HRESULT hr = 0;'
fault supersede_skipped "$plugin" \
  $'    ReachOperationPoint(kPointStopping);\n    StopCurrentOperation();\n' \
  $'    ReachOperationPoint(kPointStopping);\n'
fault frame_length_off_by_one src/wire/pdu.cpp \
  'return need > length ? FrameCheck::Overrun' \
  'return need > static_cast<uint64_t>(length) + 1 ? FrameCheck::Overrun'
fault version_gate_off_by_one src/wire/request_decoders.cpp \
  'if (ok && r->dwVersion >= 3) ok = w.Step(Decode_CredentialList(w.At(), end, &r->pExcludeCredentialList)' \
  'if (ok && r->dwVersion >= 4) ok = w.Step(Decode_CredentialList(w.At(), end, &r->pExcludeCredentialList)'
fault second_destroy_guard_removed src/channel/rpc_manager.cpp \
  'if (!instance || instance->destroyRequested.exchange(true)) {' \
  'if (!instance || (instance->destroyRequested.exchange(true) && false)) {'
fault decoded_record_not_released src/wire/record_release.cpp \
  $'    Free_ClientData(request->pClientData);\n    Free_AuthenticatorMakeCredentialOptions(request->pMakeCredentialOptions);' \
  $'    Free_AuthenticatorMakeCredentialOptions(request->pMakeCredentialOptions);'
fault wrong_hresult_on_cut_request "$plugin" \
  $'    if (!request) {\n        Op::LogDecodeFailure();' \
  $'    if (!request) {\n        hr = static_cast<HRESULT>(0x80070057);\n        Op::LogDecodeFailure();'
fault answer_after_channel_loss "$plugin" \
  'if (plugin->OperationShouldStop(nullptr)) answer = false;' \
  'plugin->OperationShouldStop(nullptr);'
fault operation_lock_not_taken "$plugin" \
  $'bool Fido2ClientPlugin::OperationShouldStop(const void* cancellationId) {\n    std::lock_guard<std::mutex> lock(operationMutex);\n' \
  $'bool Fido2ClientPlugin::OperationShouldStop(const void* cancellationId) {\n'
fault send_gate_not_taken src/channel/rpc_plugin_instance.cpp \
  $'    instance->sendMutex.Acquire();\n    instance->sendHolder = GetCurrentThreadId();' \
  $'    instance->sendHolder = GetCurrentThreadId();'
fault decode_error_level_changed "$plugin" \
  'SY_LOG(LOG_ERROR, kLabel, "Fail to decode GetAssertion request package\n");' \
  'SY_LOG(LOG_WARN, kLabel, "Fail to decode GetAssertion request package\n");'
fault killed_worker_level_changed src/foundation/sy_thread.cpp \
  'SY_LOG(LOG_WARN, "SyThread::Terminate()", "Thread %s(0x%04X) terminated"' \
  'SY_LOG(LOG_INFO, "SyThread::Terminate()", "Thread %s(0x%04X) terminated"'
fault stop_kills_after_500ms "$plugin" \
  'constexpr uint32_t kStopWaitMs = 5000;' \
  'constexpr uint32_t kStopWaitMs = 500;'
fault destroyed_handle_left_in_registry src/channel/rpc_plugin_instance.cpp \
  'UnregisterInstance(old) ? "removed" : "not found"' \
  '(old == 0) ? "removed" : "not found"'
fault lookup_without_registry_lock src/foundation/user_data_map.h \
  $'    WeakT Find(uint64_t key) {\n        SyMutexGuard guard(&mutex);\n' \
  $'    WeakT Find(uint64_t key) {\n'

fault stop_ignores_load_under_way "$plugin" \
  '[this] { return !bindingPending; })' \
  '[this] { return true; })'
fault stop_loads_the_library "$plugin" \
  $'    if (!workerThread) {\n        SY_LOG(LOG_DEBUG, kLabel, "There is no worker thread running!\\n");' \
  $'    webauthn::LoadWebauthn();\n    if (!workerThread) {\n        SY_LOG(LOG_DEBUG, kLabel, "There is no worker thread running!\\n");'
fault destroy_leaves_worker src/plugin/fido2_client.cpp \
  $'    if (instance) static_cast<Fido2ClientPlugin*>(instance.Get())->StopCurrentOperation();\n' \
  $'    (void)instance;\n'
fault exit_leaves_worker src/plugin/fido2_client.cpp \
  $'    Fido2ClientPlugin::StopAllOperations();\n' \
  $'    (void)0;\n'
fault thread_failure_escapes "$plugin" \
  '    } catch (const std::exception& e) {' \
  '    } catch (const std::bad_alloc& e) {'
fault allocation_failure_line "$plugin" \
  'SY_LOG(LOG_ERROR, Op::kLabel, "Fail to allocate response pdu.\n");' \
  'SY_LOG(LOG_ERROR, Op::kLabel, "%s", Op::kEncodeFailure);'

# Faults below the product's plug-in path, one block per area, each killed by that area's own tests.
# foundation and sysutil
fault release_frees_one_early src/foundation/rc_object.cpp \
  $'        if (count > 0) {\n            refCount.store(count' \
  $'        if (count > 1) {\n            refCount.store(count'
fault auto_reset_event_made_manual src/foundation/sy_event.cpp \
  'new SyEventData(CreateEventA(nullptr, manualReset, initiallySignalled,' \
  'new SyEventData(CreateEventA(nullptr, TRUE, initiallySignalled,'
fault poll_item_timer_not_rearmed src/foundation/sy_poll_thread.cpp \
  'InsertItem(toRun.Get(), true);' \
  'InsertItem(toRun.Get(), false);'
fault abandoned_lock_depth_kept src/foundation/sy_mutex.cpp \
  $'            d->depth = 0;\n            break;' \
  $'            break;'
fault utf8_to_wide_drops_last_character src/sysutil/string_utils.cpp \
  $'    return result;\n}\n\nstd::string FromWide' \
  $'    result.pop_back();\n    return result;\n}\n\nstd::string FromWide'
fault append_size_misses_buffered_writes src/sysutil/file_utils.cpp \
  $'        if (fflush(stream) != 0) return false;\n        value = _filelengthi64' \
  $'        value = _filelengthi64'

# log engine and writers
fault batch_mode_past_threshold src/logging/log_writer.cpp \
  'queue.Size() >= batchThreshold) EnterBatchMode();' \
  'queue.Size() > batchThreshold) EnterBatchMode();'
fault disabled_writer_drop_uncounted src/logging/log_writer.cpp \
  $'    if (!enabled) {\n        ++queue.droppedCount;\n' \
  $'    if (!enabled) {\n'
fault roll_limit_in_decimal_megabytes src/logging/file_writer.cpp \
  'static_cast<uint64_t>(size) >= limit * kBytesPerMB) {' \
  'static_cast<uint64_t>(size) >= limit * 1000000) {'
fault deletion_keeps_one_file_too_many src/logging/log_file_deletion.cpp \
  'while (foundFiles.size() > keep) {' \
  'while (foundFiles.size() > keep + 1) {'
fault rolling_files_clamp_off_by_one src/logging/file_writer.cpp \
  'std::min(ParseNumber(value), kMaxRollingFiles);' \
  'std::min(ParseNumber(value), kMaxRollingFiles - 1);'
fault syslog_header_without_msgid src/logging/socket_writer.cpp \
  '.%03dZ %s %s - - ",' \
  '.%03dZ %s %s - ",'
fault stdout_writer_on_stderr src/logging/std_writers.h \
  'FILE* Stream() override { return stdout; }' \
  'FILE* Stream() override { return stderr; }'
fault program_data_folder_used_unmade src/logging/log_folder.cpp \
  'return FileUtils::IsDirectory(folder) ? folder : std::string();' \
  'return folder;'

# registry, channel and plug-in glue
fault watcher_walk_one_level_short src/registry/sy_reg_watcher.cpp \
  'if (candidate == ".") break;' \
  'if (candidate == "." || depth > 0) break;'
fault watcher_not_rearmed src/registry/sy_reg_watcher.cpp \
  'if (!WatchRegKey()) return false;' \
  'if (!OpenRegKey()) return false;'
fault number_getter_takes_reg_none src/registry/sy_reg_key.cpp \
  $'        case REG_BINARY:\n            if (dataSize >= 8) return little(8);' \
  $'        case REG_NONE:\n        case REG_BINARY:\n            if (dataSize >= 8) return little(8);'
fault channel_state_line_level src/channel/rpc_plugin_instance.cpp \
  'FunctionTrace trace(LOG_INFO, kLabel, nullptr, "%s(0x%p) - rpcPlugin(0x%p) Channel is now %s\n"' \
  'FunctionTrace trace(LOG_DEBUG, kLabel, nullptr, "%s(0x%p) - rpcPlugin(0x%p) Channel is now %s\n"'
fault fido2_flags_any_bit src/plugin/webauthn_binding.cpp \
  'return (flags & 1) != 0;' \
  'return flags != 0;'
fault tcp_setting_whole_word src/channel/rpc_manager.cpp \
  '_strnicmp(value.c_str(), "true", 4) == 0' \
  '_stricmp(value.c_str(), "true") == 0'
fault variant_table_made_optional src/channel/rpc_manager.cpp \
  $'        trace.SetExitText(LOG_ERROR, "Failed to get TBXRPC_VariantInterface\\n");\n        return false;' \
  $'        trace.SetExitText(LOG_ERROR, "Failed to get TBXRPC_VariantInterface\\n");'
fault pending_side_channel_requested_again src/channel/rpc_plugin_instance.cpp \
  $'        if (sideChannelPending) {\n            SY_LOG(LOG_ERROR, kLabel, "Side channel request failed.\\n");' \
  $'        if (false && sideChannelPending) {\n            SY_LOG(LOG_ERROR, kLabel, "Side channel request failed.\\n");'

# wire and the test doubles
fault list_count_one_past_bytes src/wire/record_decoders.cpp \
  'const uint64_t room = static_cast<uint64_t>(end - at) / 4 + 1;' \
  'const uint64_t room = static_cast<uint64_t>(end - at) / 4;'
fault buf_length_big_endian src/wire/pdu.cpp \
  $'    WriteLe32(cursor, length);\n    if (!Fits(cursor, end, total)) {' \
  $'    WriteLe32(cursor, __builtin_bswap32(length));\n    if (!Fits(cursor, end, total)) {'
fault attestation_extensions_gate src/wire/response_encoders.cpp \
  'if (a->dwVersion >= 2 && !s.Nested(Encode_Extensions, &a->Extensions)) return false;' \
  'if (a->dwVersion >= 3 && !s.Nested(Encode_Extensions, &a->Extensions)) return false;'
fault assertion_signed_without_client_data sim/authenticator/webauthn_sim.cpp \
  'out.signature = key->SignEs256(signed_);' \
  'out.signature = key->SignEs256(out.authData);'
fault doctor_exit_0_without_library sim/doctor.cpp \
  'return report.redirectionWorks ? 0 : 1;' \
  'return 0;'
fault trend_slack_counts_as_rise sim/soak_trend.cpp \
  'verdict.rising = verdict.lastMean - verdict.middleMean > allowed;' \
  'verdict.rising = verdict.lastMean - verdict.middleMean >= allowed;'
crypto=sim/authenticator/crypto_thread.cpp
simauth=sim/authenticator/webauthn_sim.cpp
fault crypto_on_the_callers_thread "$crypto" \
  'here = GetCurrentThreadId() == threadId ||' \
  'here = true ||'
fault killed_crypto_caller_not_reaped "$crypto" \
  'if ((*it)->running || !Ended((*it)->caller.Get())) {' \
  'if ((*it)->running || (*it)->caller.Valid()) {'
fault crypto_killed_not_counted "$simauth" \
  'return S().killed + S().crypto.Killed();' \
  'return S().killed;'
fault reset_keeps_the_crypto_thread "$simauth" \
  $'    s.crypto.Stop();\n    s.crypto.ClearKilled();' \
  $'    s.crypto.ClearKilled();'
fault stop_drops_the_queued_jobs "$crypto" \
  'if (!job && stopRequested) return;' \
  'if (stopRequested) return;'

usage() {
  sed -n '5p' "$0" | sed 's/^# *//' >&2
  exit 2
}

baseline=1
selected=()
for arg in "$@"; do
  case $arg in
    --list) printf '%s\n' "${names[@]}"; exit 0 ;;
    --no-baseline) baseline=0 ;;
    -*) usage ;;
    *) selected+=("$arg") ;;
  esac
done
for want in "${selected[@]}"; do
  printf '%s\n' "${names[@]}" | grep -qx -- "$want" || { echo "mutation: no fault named $want" >&2; exit 2; }
done

# Replaces the one occurrence of OLD in FILE by NEW (with NEW empty: only checks that there is
# one); fails loudly on none or several.
replace_once() {
  python3 - "$@" <<'PY'
import sys
path, old, new = sys.argv[1:4]
text = open(path, encoding="utf-8").read()
count = text.count(old)
if count != 1:
    sys.exit(f"mutation: the edit for {path} matches {count} places, not one")
if new:
    open(path, "w", encoding="utf-8").write(text.replace(old, new))
PY
}

wanted() { [ ${#selected[@]} -eq 0 ] || printf '%s\n' "${selected[@]}" | grep -qx -- "$1"; }

# Brings the scratch copy level with the tracked and new files of this tree. Only files whose
# bytes differ are written, with a fresh time stamp, so that the build rebuilds just those.
sync_sources() {
  mkdir -p "$src"
  (cd "$root" && git ls-files -z --cached --others --exclude-standard) | python3 -c '
import os, shutil, sys
root, dest = sys.argv[1:3]
wanted = set()
for rel in sys.stdin.buffer.read().decode().split("\0"):
    source = os.path.join(root, rel)
    if not rel or not os.path.isfile(source):
        continue
    wanted.add(rel)
    target = os.path.join(dest, rel)
    if os.path.isfile(target) and open(target, "rb").read() == open(source, "rb").read():
        continue
    os.makedirs(os.path.dirname(target), exist_ok=True)
    shutil.copyfile(source, target)
for folder, subfolders, files in os.walk(dest):
    if folder == dest:
        subfolders[:] = [s for s in subfolders if s != "build"]
    for name in files:
        rel = os.path.relpath(os.path.join(folder, name), dest)
        if rel not in wanted:
            os.remove(os.path.join(folder, name))
' "$root" "$src"
}

build_scratch() { BUILD_DIR="$build" bash "$src/scripts/build.sh" >"$work/build.log" 2>&1; }

# Runs the suite; prints the first failing test, or nothing when all passed. CTest's own
# --stop-on-failure still waits for the test running beside the failed one, which may hang
# until its time-out under a fault; so the run is ended here at the first failure reported:
# CTest's process group, and the Windows programs of this build's prefix with the server.
run_suite() {
  local log=$work/ctest.log first=""
  # With the timings of earlier runs CTest starts the longest tests first, so every fault would
  # wait for the two-minute soak; without them the suite runs in its declared order, the quick
  # unit programs first, and a fault they kill costs seconds.
  rm -f "$build/Testing/Temporary/CTestCostData.txt"
  setsid ctest --test-dir "$build" -j2 -E "$excluded" --stop-on-failure --output-on-failure >"$log" 2>&1 &
  local pid=$!
  while kill -0 "$pid" 2>/dev/null; do
    first=$(sed -nE 's/.*Test +#[0-9]+: ([^ ]+) .*(\*\*\*|Not Run).*/\1/p' "$log" | head -n1)
    if [ -n "$first" ]; then
      kill -- "-$pid" 2>/dev/null || true
      wine_down
      wine_up
      break
    fi
    sleep 2
  done
  wait "$pid" 2>/dev/null || true
  [ -n "$first" ] || first=$(sed -nE 's/.*Test +#[0-9]+: ([^ ]+) .*(\*\*\*|Not Run).*/\1/p' "$log" | head -n1)
  echo "$first"
}

echo "mutation: scratch copy in $src, build in $build"
sync_sources
# Every edit must apply before an hour goes into the runs.
for i in "${!names[@]}"; do
  if wanted "${names[$i]}"; then replace_once "$src/${files[$i]}" "${olds[$i]}" "" || exit 2; fi
done
bash "$src/scripts/setup.sh" >/dev/null
build_scratch || { echo "mutation: the unchanged sources don't build; see $work/build.log" >&2; exit 2; }
. "$src/scripts/wine-env.sh"
wine_up
trap wine_down EXIT

if [ "$baseline" = 1 ]; then
  echo "mutation: baseline run of the unchanged suite"
  first=$(run_suite)
  if [ -n "$first" ]; then
    echo "mutation: the unchanged suite fails ($first); see $work/ctest.log" >&2
    exit 2
  fi
fi

results=()
status=0
for i in "${!names[@]}"; do
  name=${names[$i]} file=${files[$i]}
  wanted "$name" || continue
  echo "mutation: $name in $file"
  cp "$src/$file" "$work/original"
  if ! replace_once "$src/$file" "${olds[$i]}" "${news[$i]}"; then
    results+=("$name|$file|NOT APPLIED|-")
    status=1
    continue
  fi
  if ! build_scratch; then
    outcome="BUILD FAILED" first="-"
    cp "$work/build.log" "$work/build-$name.log"
  else
    first=$(run_suite)
    cp "$work/ctest.log" "$work/ctest-$name.log"
    if [ -n "$first" ]; then outcome=killed; else outcome=SURVIVED first="-"; fi
  fi
  [ "$outcome" = killed ] || status=1
  results+=("$name|$file|$outcome|$first")
  cp "$work/original" "$src/$file"
  echo "mutation:   $outcome ${first}"
done
# The scratch build goes back to the unchanged sources for the next run.
build_scratch || true

echo
printf '%-34s %-40s %-12s %s\n' fault file outcome "first failing test"
for row in "${results[@]}"; do
  IFS='|' read -r name file outcome first <<<"$row"
  printf '%-34s %-40s %-12s %s\n' "$name" "$file" "$outcome" "$first"
done
exit "$status"
