# Installation, package config, pkg-config files and the Debian package.
#
# Included last from the top-level CMakeLists.txt, once every target exists.
# What a data-plane program gets from an install:
#
#   lib/libpmdb.so, libpmdb_reader.so, libtabra.so, libpmdb_host.so
#       soname lib<name>.so.<PMDB_SOVERSION>; each library finds the others
#       next to itself ($ORIGIN), so a prefix can be moved as a whole
#   include/pmdb/       the public headers and the platform service headers;
#                       they include each other by file name, so one
#                       -I<prefix>/include and #include <pmdb/pmdb.h> suffice
#   bin/pmdbctl, share/man/man1/pmdbctl.1
#   lib/cmake/pmdb/     find_package(pmdb): pmdb::pmdb, pmdb::reader
#                       (and pmdb::tabra, pmdb::host for the platform calls)
#   lib/pkgconfig/      pmdb.pc, pmdb-reader.pc
#
# The host-only extension headers (platform/include/host/) are not
# installed: they are this repository's test and tool hooks, not services a
# card's program may count on.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(PMDB_INSTALL_LIBRARIES pmdb pmdb_reader tabra pmdb_host)
foreach(lib ${PMDB_INSTALL_LIBRARIES})
  if(NOT TARGET ${lib})
    message(STATUS "pmdb: ${lib} is not built; no install rules")
    return()
  endif()
endforeach()

set(PMDB_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/pmdb)
set(PMDB_INCLUDE_SUBDIR pmdb)

# The soname's number: raised whenever an exported call, or the layout of a
# record in shared memory, changes in a way that programs built against the
# previous one would misread.  Files are named after the project version.
set(PMDB_SOVERSION 0)
set_target_properties(${PMDB_INSTALL_LIBRARIES} PROPERTIES
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PMDB_SOVERSION}
  INSTALL_RPATH "$ORIGIN")
install(TARGETS ${PMDB_INSTALL_LIBRARIES}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)

file(GLOB PMDB_INSTALL_HEADERS ${PMDB_INCLUDE_DIR}/*.h ${PMDB_PLATFORM_INCLUDE_DIR}/*.h)
install(FILES ${PMDB_INSTALL_HEADERS}
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${PMDB_INCLUDE_SUBDIR} COMPONENT dev)

if(TARGET pmdbctl)
  set_target_properties(pmdbctl PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS pmdbctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
  install(FILES ${PROJECT_SOURCE_DIR}/tools/pmdbctl/pmdbctl.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime)
endif()

# find_package(pmdb): the config file locates its prefix from its own place.
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/pmdbConfig.cmake.in
  ${PROJECT_BINARY_DIR}/pmdbConfig.cmake
  INSTALL_DESTINATION ${PMDB_CMAKE_DIR}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
# 0.x releases make no promise between minor versions.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/pmdbConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/pmdbConfig.cmake ${PROJECT_BINARY_DIR}/pmdbConfigVersion.cmake
  DESTINATION ${PMDB_CMAKE_DIR} COMPONENT dev)

# pkg-config: the prefix is found from the .pc file's own place, so a moved
# prefix still works.
file(RELATIVE_PATH PMDB_PC_TO_PREFIX
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" PMDB_PC_TO_PREFIX "${PMDB_PC_TO_PREFIX}")
foreach(pc pmdb pmdb-reader)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endforeach()

include(${CMAKE_CURRENT_LIST_DIR}/pmdbPackage.cmake)
