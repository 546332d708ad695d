# The Debian package (cpack -G DEB, or `make package` at the top): one
# package with the libraries, headers, package configs, pmdbctl and its man
# page, installed under /usr.  Its Depends are worked out by dpkg-shlibdeps
# from the shared objects it holds.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME pmdb)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "pmdb maintainers <pmdb@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "Port mapper database of a line card, kept in shared memory")
set(CPACK_PACKAGE_DESCRIPTION
  "libpmdb keeps the mapping of a line card's interfaces onto the switching chip's logical interfaces, punt keys and OAM sessions in shared memory for every data-plane process of the card; libpmdb_reader reads its tables from any process. Also the table store and host platform service libraries, headers, CMake and pkg-config files, and the operator's tool pmdbctl.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# The build keeps its debug information; the package does not.
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The package's own libraries sit beside each other; dpkg-shlibdeps looks
# for them there rather than in an installed package.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/platform
  ${PROJECT_BINARY_DIR}/platform/tabra ${PROJECT_BINARY_DIR}/platform/reader
  ${PROJECT_BINARY_DIR}/port-mapper/lib/pmdb)
include(CPack)
