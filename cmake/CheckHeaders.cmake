# check-headers compiles every public header on its own, as a program that includes nothing else would,
# and twice, for the guard. Part of the default target. A header that drags in what callers are to be
# spared stops the build here too.
file(GLOB headers CONFIGURE_DEPENDS RELATIVE "${PROJECT_SOURCE_DIR}/include"
  "${PROJECT_SOURCE_DIR}/include/*/*.h")
set(sources "")
foreach(header IN LISTS headers)
  string(MAKE_C_IDENTIFIER "${header}" stem)
  set(source "${PROJECT_BINARY_DIR}/check-headers/${stem}.cc")
  file(CONFIGURE OUTPUT "${source}" @ONLY CONTENT [[
#include <@header@>
#include <@header@>
#if defined(BOOST_ASIO_DETAIL_CONFIG_HPP) || defined(LDAP_API_VERSION)
#error "@header@ makes its users compile Boost.Asio, Boost.Beast or libldap"
#endif
]])
  list(APPEND sources "${source}")
endforeach()

add_library(check-headers OBJECT ${sources})
target_link_libraries(check-headers PRIVATE vlxpkx509 pkx509_options)
set_target_properties(check-headers PROPERTIES UNITY_BUILD OFF)
# Nothing of it is run: the front end is all that counts.
target_compile_options(check-headers PRIVATE -O0 -g0)
