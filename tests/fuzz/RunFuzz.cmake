# Runs one fuzz target for a bounded time: first every input of its corpus
# (the regression seeds), then new inputs. New interesting inputs go to the
# build tree, never into the committed corpus; a failing input is written
# to WORK as crash-*, leak-*, timeout-* or oom-*: add it to the corpus once
# the fault is fixed.
if(DEFINED ENV{ROUTINGLIB_FUZZ_SECONDS})
  set(SECONDS $ENV{ROUTINGLIB_FUZZ_SECONDS})
endif()
file(MAKE_DIRECTORY ${WORK}/new)
execute_process(
  COMMAND ${FUZZER} -max_total_time=${SECONDS} -timeout=20 -rss_limit_mb=2048
          -print_final_stats=1 -artifact_prefix=${WORK}/ ${WORK}/new ${CORPUS}
  RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${FUZZER} failed (${status}); the input is in ${WORK}")
endif()
