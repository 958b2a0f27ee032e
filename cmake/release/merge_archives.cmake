# Joins static archives into one with GNU ar's MRI script, so that the
# installed client library needs nothing else of ours:
#   cmake -DAR=<ar> -DOUT=<archive> -DLIBS=<a|b|c> [-DMRI=<script>] -P merge_archives.cmake
string(REPLACE "|" ";" libs "${LIBS}")
if(NOT MRI)
  set(MRI "${OUT}.mri")
endif()
set(script "CREATE ${OUT}\n")
foreach(lib ${libs})
  string(APPEND script "ADDLIB ${lib}\n")
endforeach()
string(APPEND script "SAVE\nEND\n")
file(WRITE "${MRI}" "${script}")
file(REMOVE "${OUT}")
execute_process(COMMAND "${AR}" -M INPUT_FILE "${MRI}" RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "merging ${LIBS} into ${OUT} failed")
endif()
