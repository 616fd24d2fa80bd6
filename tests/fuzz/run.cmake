# Runs one libFuzzer target for SECONDS seconds on a fresh work corpus (WORK), seeded from SEEDS
# and, when it exists, EXTRA_SEEDS. Only the work corpus is written to; seed directories are read.
file(REMOVE_RECURSE "${WORK}")
file(MAKE_DIRECTORY "${WORK}" "${ARTIFACTS}")
set(corpora "${WORK}" "${SEEDS}")
if(EXTRA_SEEDS AND IS_DIRECTORY "${EXTRA_SEEDS}")
  list(APPEND corpora "${EXTRA_SEEDS}")
endif()
# A dictionary of the format's keywords, when the target has one, gets mutations past the first
# keyword check sooner.
set(options)
if(DICT AND EXISTS "${DICT}")
  list(APPEND options -dict=${DICT})
endif()
# A fixed seed makes the run repeat itself: a run of N seconds explores a prefix of what a longer
# run with the same seed explores, so a gate run cannot fail on an input that a longer run here
# passed. Open-ended fuzzing for new findings passes its own -seed (or none) to the target.
if(NOT SEED)
  set(SEED 1)
endif()
execute_process(
  COMMAND "${FUZZER}" -seed=${SEED} -max_total_time=${SECONDS} -timeout=10 -rss_limit_mb=2048
    -max_len=${MAX_LEN} -print_final_stats=1 -artifact_prefix=${ARTIFACTS}/ ${options} ${corpora}
  WORKING_DIRECTORY "${ARTIFACTS}"
  RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${FUZZER} failed (${status}); the input is in ${ARTIFACTS}")
endif()
