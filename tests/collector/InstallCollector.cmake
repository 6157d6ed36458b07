# Installs the package's Collector component into a fresh prefix and runs the
# installed korvel-collector: it must be there and answer --help.
#   cmake -DBUILD_DIR=... -DPREFIX=... -DBINDIR=bin -P InstallCollector.cmake
file(REMOVE_RECURSE ${PREFIX})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX}
                        --component Collector
                RESULT_VARIABLE installed OUTPUT_VARIABLE log ERROR_VARIABLE log)
if(NOT installed EQUAL 0)
  message(FATAL_ERROR "cmake --install failed: ${log}")
endif()
set(program ${PREFIX}/${BINDIR}/korvel-collector)
if(NOT EXISTS ${program})
  message(FATAL_ERROR "the install holds no ${BINDIR}/korvel-collector:\n${log}")
endif()
execute_process(COMMAND ${program} --help RESULT_VARIABLE ran OUTPUT_VARIABLE help)
if(NOT ran EQUAL 0 OR NOT help MATCHES "korvel-collector expect")
  message(FATAL_ERROR "the installed korvel-collector --help answered ${ran}: ${help}")
endif()
message(STATUS "installed ${program}")
