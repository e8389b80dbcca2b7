# cmake -DPROGRAM=<test executable> -DSUITES=<file> -P ListSuites.cmake
# Writes a file for CTest with a test for each test suite of the executable, and beside each, for
# scripts/check, how many test cases it has.
execute_process(COMMAND "${PROGRAM}" --gtest_list_tests
  OUTPUT_VARIABLE output RESULT_VARIABLE result TIMEOUT 60)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${PROGRAM} --gtest_list_tests: ${result}")
endif()

# Suites end with a full stop, cases are indented; behind either can stand what it is made from.
string(REGEX REPLACE "[][;]" "" output "${output}")
string(REPLACE "\n" ";" lines "${output}")
set(suites "")
foreach(line IN LISTS lines)
  if(line MATCHES "^([^ ]+)\\.( +#.*)?$")
    set(suite "${CMAKE_MATCH_1}")
    list(APPEND suites "${suite}")
    set("cases_${suite}" 0)
  elseif(line MATCHES "^  ")
    math(EXPR "cases_${suite}" "${cases_${suite}} + 1")
  endif()
endforeach()
if(NOT suites)
  message(FATAL_ERROR "${PROGRAM} --gtest_list_tests: no test suite")
endif()

set(tests "")
foreach(suite IN LISTS suites)
  string(APPEND tests
    "add_test(\"${suite}\" \"${PROGRAM}\" \"--gtest_filter=${suite}.*\") # cases: ${cases_${suite}}\n"
    "set_tests_properties(\"${suite}\" PROPERTIES TIMEOUT 300)\n")
endforeach()
file(WRITE "${SUITES}" "${tests}")
