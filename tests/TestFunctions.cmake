# _pkx509_gtest(<name> <source>...)
# What every test executable has in common. GoogleTest is compiled once, as the precompiled header of
# pkx509_gtest_pch, and each test case that CTest finds in the executable is a CTest test.
function(_pkx509_gtest name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE pkx509_test_support GTest::gtest pkx509_options)
  target_precompile_headers(${name} REUSE_FROM pkx509_gtest_pch)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()

# _pkx509_private_view_gtest(<name> <source>...)
# Each test case runs in a private view of the file system. What CMake calls the emulator stands in
# front of the command line of every test, also where nothing is cross-compiled.
function(_pkx509_private_view_gtest name)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${PKX509_PRIVATE_VIEW})
  _pkx509_gtest(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE pkx509_private_view_main)
endfunction()

# pkx509_unit_test(<name> <source>...)
# A test of single classes, linked to the archive in which nothing is hidden.
function(pkx509_unit_test name)
  _pkx509_gtest(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE pkx509_internal GTest::gtest_main)
endfunction()

# pkx509_integration_test(<name> <source>...)
# A test of the shared library as it is shipped, in a private view of the file system in which the
# library's fixed directories are the test's own and empty.
function(pkx509_integration_test name)
  _pkx509_private_view_gtest(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE vlxpkx509)
endfunction()
