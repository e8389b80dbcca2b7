# pkx509_component(<folder> <source>...)
# An object library for one folder of src/. The shared library is made of all of them, and so is the
# archive that unit tests link to reach what the shared library hides.
function(pkx509_component name)
  add_library(pkx509_${name} OBJECT ${ARGN})
  target_include_directories(pkx509_${name} PUBLIC
    "${PROJECT_SOURCE_DIR}/include" "${PROJECT_SOURCE_DIR}/src")
  target_link_libraries(pkx509_${name} PUBLIC OpenSSL::Crypto Boost::headers PRIVATE pkx509_options)
  target_compile_definitions(pkx509_${name} PRIVATE PKX509_BUILDING)
  # Tests wait for the library; what is around it compiles twice as fast when it is not optimised.
  if(PKX509_SANITIZE)
    target_compile_options(pkx509_${name} PRIVATE -O1)
  endif()
  set_property(GLOBAL APPEND PROPERTY PKX509_COMPONENTS pkx509_${name})
endfunction()
