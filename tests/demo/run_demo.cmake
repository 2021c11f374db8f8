# cmake -DDEMO=<palomir-demo> -DOUT=<dir> -DSCREENS=<a.png;b.png> -P run_demo.cmake
# Starts from an empty output folder, so that screens of an earlier run
# cannot stand in for missing ones.
file(REMOVE_RECURSE "${OUT}")
execute_process(
  COMMAND "${DEMO}" --out "${OUT}" --pace 0
  RESULT_VARIABLE status
  OUTPUT_VARIABLE output
  ERROR_VARIABLE errors)
message("${output}")
if(NOT status EQUAL 0)
  message(FATAL_ERROR "palomir-demo exited with ${status}\n${errors}")
endif()
if(NOT output MATCHES "All [0-9]+ checks passed")
  message(FATAL_ERROR "palomir-demo did not report all checks passed")
endif()
foreach(screen IN LISTS SCREENS)
  set(path "${OUT}/${screen}")
  if(NOT EXISTS "${path}")
    message(FATAL_ERROR "palomir-demo did not write ${screen}")
  endif()
  file(SIZE "${path}" size)
  file(READ "${path}" signature LIMIT 8 HEX)
  if(size LESS 1024 OR NOT signature STREQUAL "89504e470d0a1a0a")
    message(FATAL_ERROR "${screen} is no PNG picture (${size} bytes, starts ${signature})")
  endif()
endforeach()
file(GLOB logs "${OUT}/caches/*/Logs/palomir-main-*.log")
if(NOT logs)
  message(FATAL_ERROR "palomir-demo left no log file under ${OUT}/caches")
endif()
