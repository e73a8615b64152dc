# One short, repeatable run of a fuzz target for ctest. New inputs go to a scratch directory in the build
# tree (libFuzzer writes into its first corpus directory); the checked-in seeds are only read.
#   cmake -DFUZZER=exe -DSEEDS=dir -DWORK=dir -DRUNS=n -P RunShort.cmake
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK}/new ${WORK}/artifacts)
execute_process(COMMAND ${FUZZER} -runs=${RUNS} -seed=1 -print_final_stats=1
                        -artifact_prefix=${WORK}/artifacts/ ${WORK}/new ${SEEDS}
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${FUZZER} failed (${rc}); the input that did it is in ${WORK}/artifacts")
endif()
