# What is installed, in three components that are packages, too: the library, what it takes to build with it, and the tools.
include(CMakePackageConfigHelpers)

# ---- The library ----

install(TARGETS veskrt EXPORT veskrt
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development)

# ---- To build with it: headers, the host as a static library, packages for CMake and pkg-config ----

install(DIRECTORY include/veskrt DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
set_target_properties(veskhost_static PROPERTIES OUTPUT_NAME veskhost EXPORT_NAME host)
install(TARGETS veskhost_static EXPORT veskrt
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)

set(cmake_directory ${CMAKE_INSTALL_LIBDIR}/cmake/veskrt)
install(EXPORT veskrt NAMESPACE veskrt:: FILE veskrtTargets.cmake
  DESTINATION ${cmake_directory} COMPONENT development)
configure_package_config_file(cmake/veskrtConfig.cmake.in ${CMAKE_BINARY_DIR}/veskrtConfig.cmake
  INSTALL_DESTINATION ${cmake_directory} PATH_VARS VESK_COLLECTOR_DIRECTORY)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/veskrtConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/veskrtConfig.cmake ${CMAKE_BINARY_DIR}/veskrtConfigVersion.cmake
  DESTINATION ${cmake_directory} COMPONENT development)

file(RELATIVE_PATH VESK_PREFIX_FROM_PKGCONFIG ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
foreach(package veskrt veskrt-host)
  configure_file(cmake/${package}.pc.in ${CMAKE_BINARY_DIR}/${package}.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/${package}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()

# ---- The tools, with the host to preload and the collectors ----

set(programs veskrun veskctl)
if(TARGET veskreport)
  list(APPEND programs veskreport)
endif()
set(collectors veskhost veskheap veskannotations)

install(TARGETS ${programs} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
set_target_properties(${collectors} PROPERTIES INSTALL_RPATH $ORIGIN/..)
install(TARGETS ${collectors} LIBRARY DESTINATION ${VESK_COLLECTOR_DIRECTORY} COMPONENT tools)
foreach(program ${programs})
  install(FILES man/${program}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  install(FILES completions/${program}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
endforeach()
install(FILES man/veskheap.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)

# All that is installed, without tests and benchmarks.
add_custom_target(installed DEPENDS veskrt veskhost_static ${programs} ${collectors})

# ---- Packages ----

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL library development tools)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_CONTACT "The VESKRT developers <veskrt@localhost>")
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_SOURCE_DIR}/cmake/compress_manuals.cmake)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})

set(same_library "libveskrt${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
set(about "VESKRT gives analysis tools that run inside another program memory,
locks, a log, options, containers and a command channel of their own,
so that the program does not notice them.

This package has")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libveskrt${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "${about} the library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libveskrt-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS ${same_library})
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "${about} what it takes to write collectors and hosts.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME veskrt-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS ${same_library})
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "${about} programs that run other programs under collectors: a
heap profiler, and a reader of annotated places; and a program that
turns their results into reports.")

include(CPack)
