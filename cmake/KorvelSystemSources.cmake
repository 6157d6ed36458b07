# Source files named for an operating system are built only where it is the
# one in use: *_windows.cpp on Windows, *_posix.cpp everywhere else,
# *_linux.cpp on Linux. Filters the list in the variable named by var.
function(korvel_keep_system_sources var)
  set(sources ${${var}})
  if(WIN32)
    list(FILTER sources EXCLUDE REGEX "_(posix|linux)\\.cpp$")
  else()
    list(FILTER sources EXCLUDE REGEX "_windows\\.cpp$")
    if(NOT CMAKE_SYSTEM_NAME STREQUAL "Linux")
      list(FILTER sources EXCLUDE REGEX "_linux\\.cpp$")
    endif()
  endif()
  set(${var} ${sources} PARENT_SCOPE)
endfunction()
