# pkx509_component(<room>
#   [DEPENDS <room>...] [CALLS_UP <room> <reason>...]
#   [HEADERS <public header>...] SOURCES <source>...)
# One room of src/, named by its folder below src/, as an object library. The shared library is made of
# all of them, and so is the archive that unit tests link to reach what the shared library hides.
#
# A room may include its own files and those of the rooms that it DEPENDS on, nothing else. Those rooms
# have to be there already, so that no circle can be declared. CALLS_UP names the exceptions: a room
# above this one, and why the design asks for it. HEADERS are the public headers, below include/, that
# belong to the room; each belongs to one.
#
# tests/rooms holds what is declared against the includes.
function(pkx509_component room)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "DEPENDS;CALLS_UP;HEADERS;SOURCES")
  if(arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "${room}: unknown arguments: ${arg_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT CMAKE_CURRENT_SOURCE_DIR STREQUAL "${PROJECT_SOURCE_DIR}/src/${room}")
    message(FATAL_ERROR "${room} is declared in ${CMAKE_CURRENT_SOURCE_DIR}")
  endif()
  string(REPLACE "/" "_" target "pkx509_${room}")
  foreach(lower IN LISTS arg_DEPENDS)
    string(REPLACE "/" "_" lower_target "pkx509_${lower}")
    if(NOT TARGET ${lower_target})
      message(FATAL_ERROR "${room} depends on ${lower}, which is no room below it")
    endif()
  endforeach()

  add_library(${target} OBJECT ${arg_SOURCES})
  target_include_directories(${target} PUBLIC
    "${PROJECT_SOURCE_DIR}/include" "${PROJECT_SOURCE_DIR}/src")
  target_link_libraries(${target} PUBLIC OpenSSL::Crypto Boost::headers PRIVATE pkx509_options)
  target_compile_definitions(${target} PRIVATE PKX509_BUILDING)
  # All tests are run with these checks, and wait for the library.
  if(PKX509_SANITIZE MATCHES "address")
    target_compile_options(${target} PRIVATE -O1)
  endif()
  set_property(GLOBAL APPEND PROPERTY PKX509_COMPONENTS ${target})

  # For the test, a line for each thing that was declared.
  set(lines "room ${room}\n")
  foreach(lower IN LISTS arg_DEPENDS)
    string(APPEND lines "depends ${room} ${lower}\n")
  endforeach()
  while(arg_CALLS_UP)
    list(POP_FRONT arg_CALLS_UP upper reason)
    string(APPEND lines "calls-up ${room} ${upper} ${reason}\n")
  endwhile()
  foreach(header IN LISTS arg_HEADERS)
    string(APPEND lines "header ${room} ${header}\n")
  endforeach()
  set_property(GLOBAL APPEND_STRING PROPERTY PKX509_ROOMS "${lines}")
endfunction()
