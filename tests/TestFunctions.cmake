# _pkx509_test_program(<name> <source>...)
# What every test executable has in common. GoogleTest is compiled once, as the precompiled header of
# pkx509_gtest_pch.
function(_pkx509_test_program name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE pkx509_test_support GTest::gtest pkx509_test_options)
  target_precompile_headers(${name} REUSE_FROM pkx509_gtest_pch)
endfunction()

# _pkx509_gtest(<name> <source>...)
# Each test case that CTest finds in the executable is a CTest test, in a process of its own. What
# PKX509_GTEST_PROPERTIES holds are further properties of these tests.
function(_pkx509_gtest name)
  _pkx509_test_program(${name} ${ARGN})
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT 120 ${PKX509_GTEST_PROPERTIES})
endfunction()

# _pkx509_quick_gtest(<name> <source>...)
# For test cases that take less time than the start of a process: each test suite is a CTest test. The suites
# are known as soon as the executable is built; before that CTest has a test that fails for want of it.
function(_pkx509_quick_gtest name)
  _pkx509_test_program(${name} ${ARGN})
  set(suites "${CMAKE_CURRENT_BINARY_DIR}/${name}_suites.cmake")
  add_custom_command(TARGET ${name} POST_BUILD
    COMMAND "${CMAKE_COMMAND}" "-DPROGRAM=$<TARGET_FILE:${name}>" "-DSUITES=${suites}"
            -P "${PROJECT_SOURCE_DIR}/tests/ListSuites.cmake"
    BYPRODUCTS "${suites}"
    VERBATIM)
  file(CONFIGURE OUTPUT "${CMAKE_CURRENT_BINARY_DIR}/${name}_tests.cmake" @ONLY CONTENT [[
if(EXISTS "@suites@")
  include("@suites@")
else()
  add_test("@name@_IsBuilt" "@name@")
endif()
]])
  set_property(DIRECTORY APPEND PROPERTY
    TEST_INCLUDE_FILES "${CMAKE_CURRENT_BINARY_DIR}/${name}_tests.cmake")
endfunction()

# _pkx509_private_view_gtest(<name> <source>...)
# Each test case runs in a private view of the file system. What CMake calls the emulator stands in
# front of the command line of every test, also where nothing is cross-compiled.
function(_pkx509_private_view_gtest name)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${PKX509_PRIVATE_VIEW})
  _pkx509_gtest(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE pkx509_private_view_main)
endfunction()

# pkx509_unit_test(<name> [MEASURES] <source>...)
# A test of single classes, linked to the archive in which nothing is hidden. Without PKX509_UNIT_TESTS only
# those are run that measure something of the library as it is shipped, or that a sanitizer gets in the way of; the
# others can still be built.
function(pkx509_unit_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "MEASURES" "" "")
  if(PKX509_UNIT_TESTS OR arg_MEASURES)
    _pkx509_quick_gtest(${name} ${arg_UNPARSED_ARGUMENTS})
  else()
    _pkx509_test_program(${name} ${arg_UNPARSED_ARGUMENTS})
    set_target_properties(${name} PROPERTIES EXCLUDE_FROM_ALL ON)
  endif()
  target_link_libraries(${name} PRIVATE pkx509_internal GTest::gtest_main)
endfunction()

# pkx509_integration_test(<name> <source>...)
# A test of the shared library as it is shipped, in a private view of the file system in which the
# library's fixed directories are the test's own and empty.
function(pkx509_integration_test name)
  _pkx509_private_view_gtest(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE vlxpkx509)
endfunction()
