# The portable wire code with the agent's codec and the silent log calls: what the native
# builds (fuzzing, coverage, benchmarks) compile. ROOT is the repository's root.
set(NATIVE_WIRE_SOURCES
  ${ROOT}/src/wire/pdu.cpp
  ${ROOT}/src/wire/record_decoders.cpp
  ${ROOT}/src/wire/request_decoders.cpp
  ${ROOT}/src/wire/record_release.cpp
  ${ROOT}/sim/agent_codec.cpp
  ${ROOT}/sim/agent_samples.cpp
  ${ROOT}/fuzz/native_log.cpp
)
