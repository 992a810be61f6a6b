# Runs PROGRAM with the arguments in ARGS (separated by "|") and fails
# unless it exits with STATUS within the time limit and one line of its
# output (standard output and error together) matches REGEX whole.
#   cmake -DPROGRAM=... -DARGS=a|b -DSTATUS=0 -DREGEX=... -P run_example.cmake
string(REPLACE "|" ";" args "${ARGS}")
execute_process(COMMAND ${PROGRAM} ${args}
                RESULT_VARIABLE status
                OUTPUT_VARIABLE out ERROR_VARIABLE out
                TIMEOUT 100)
message("${out}")
if(NOT status STREQUAL "${STATUS}")
  message(FATAL_ERROR "${PROGRAM} ended with \"${status}\", expected ${STATUS}")
endif()
string(REGEX MATCH "\n${REGEX}\n" found "\n${out}\n")
if(NOT found)
  message(FATAL_ERROR "no line of the output matches: ${REGEX}")
endif()
