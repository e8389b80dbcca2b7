# What "cmake --install" puts where, and how other projects find it: a CMake package and a pkg-config file.
# The installed tree can be moved as a whole; no file in it names its own place.
include(CMakePackageConfigHelpers)

set(package_directory "${CMAKE_INSTALL_LIBDIR}/cmake/pkx509")

install(TARGETS vlxpkx509
  EXPORT pkx509Targets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" NAMELINK_COMPONENT Development)
install(TARGETS pkx509 RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/pkx509" "${PROJECT_SOURCE_DIR}/include/velantrix"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
  COMPONENT Development
  FILES_MATCHING PATTERN "*.h")

# CMake package
install(EXPORT pkx509Targets
  NAMESPACE pkx509::
  DESTINATION "${package_directory}"
  COMPONENT Development)
configure_package_config_file(
  "${PROJECT_SOURCE_DIR}/cmake/pkx509Config.cmake.in"
  "${PROJECT_BINARY_DIR}/package/pkx509Config.cmake"
  INSTALL_DESTINATION "${package_directory}"
  NO_SET_AND_CHECK_MACRO)
# The minor version may be newer than what is asked for; the major version is the SOVERSION.
write_basic_package_version_file("${PROJECT_BINARY_DIR}/package/pkx509ConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES
  "${PROJECT_BINARY_DIR}/package/pkx509Config.cmake"
  "${PROJECT_BINARY_DIR}/package/pkx509ConfigVersion.cmake"
  DESTINATION "${package_directory}"
  COMPONENT Development)

# pkg-config: the prefix is given relative to the file itself. A directory that was configured as an
# absolute one is taken as it is (cmake_path APPEND does that).
cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY "${PROJECT_BINARY_DIR}" NORMALIZE
  OUTPUT_VARIABLE pc_prefix)
cmake_path(RELATIVE_PATH pc_prefix BASE_DIRECTORY "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig")
set(pc_includedir "\${prefix}")
cmake_path(APPEND pc_includedir "${CMAKE_INSTALL_INCLUDEDIR}")
set(pc_libdir "\${prefix}")
cmake_path(APPEND pc_libdir "${CMAKE_INSTALL_LIBDIR}")
configure_file("${PROJECT_SOURCE_DIR}/cmake/pkx509.pc.in" "${PROJECT_BINARY_DIR}/package/pkx509.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/package/pkx509.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
  COMPONENT Development)

# Documentation of the tool, and completion of its command lines in bash.
file(GLOB man_pages CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/docs/man/*.[1-8]")
foreach(page IN LISTS man_pages)
  cmake_path(GET page EXTENSION LAST_ONLY section)
  string(SUBSTRING "${section}" 1 -1 section)
  install(FILES "${page}" DESTINATION "${CMAKE_INSTALL_MANDIR}/man${section}")
endforeach()
file(GLOB completions CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/tools/completion/pkx509")
install(FILES ${completions} DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions")
