# One interface target carries what every translation unit of the project is compiled with.
add_library(pkx509_options INTERFACE)
target_compile_features(pkx509_options INTERFACE cxx_std_20)
target_compile_options(pkx509_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
  -Wnon-virtual-dtor -Wcast-qual -Wformat=2 -Wundef -Wmissing-declarations
  # Source paths in assertion texts are relative to the project, so that builds are reproducible.
  "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=")
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # g++ (seen with 12 and 14) takes the inlined small-string code of its own library for overlapping
  # and overlong copies.
  target_compile_options(pkx509_options INTERFACE
    -Wno-array-bounds -Wno-restrict -Wno-stringop-overflow -Wno-stringop-overread)
endif()
if(CMAKE_UNITY_BUILD AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # It takes what is included for headers, whose unnamed namespaces other sources would see.
  target_compile_options(pkx509_options INTERFACE -Wno-subobject-linkage)
endif()
if(CMAKE_UNITY_BUILD AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # In kB: up to here it does not look for what it could free, which takes a sixth of its time where all sources of
  # a program are one.
  target_compile_options(pkx509_options INTERFACE --param=ggc-min-heapsize=400000)
endif()
if(PKX509_WARNINGS_AS_ERRORS)
  target_compile_options(pkx509_options INTERFACE -Werror)
endif()
if(PKX509_SANITIZE)
  target_compile_options(pkx509_options INTERFACE
    "-fsanitize=${PKX509_SANITIZE}" -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(pkx509_options INTERFACE "-fsanitize=${PKX509_SANITIZE}")
  # g++ says that it cannot follow the memory fences of Boost.Asio, which every operation has.
  if(PKX509_SANITIZE MATCHES "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(pkx509_options INTERFACE -Wno-tsan)
  endif()
endif()

# For what is around the library: without the checks that stand at every access to a member, it compiles in
# two thirds of the time. A null pointer ends the process anyway, and AddressSanitizer watches it. To be
# named behind pkx509_options, which switches them on.
add_library(pkx509_fewer_checks INTERFACE)
if(PKX509_SANITIZE MATCHES "undefined")
  target_compile_options(pkx509_fewer_checks INTERFACE -fno-sanitize=null,alignment,vptr,object-size)
endif()

# What tests, fuzz targets and what they share are compiled with. It is the library that has to be as it is
# shipped; what is around it compiles twice as fast when it is not optimised.
add_library(pkx509_test_options INTERFACE)
target_link_libraries(pkx509_test_options INTERFACE pkx509_options pkx509_fewer_checks)
target_compile_options(pkx509_test_options INTERFACE
  "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-O0>")
