# Installing like any Debian software: `cmake --install build --prefix DIR` (or the .deb
# that `cpack` makes from the same rules) puts
#   bin/velmo                          the broker program and command line
#   lib/libvelmo.so                    the framework
#   share/velmo/                       the SDK data folder, found from lib/ as ../share/velmo
#   lib/python3/dist-packages/         _ivelmo.so, ivelmo.py and the package velmo, where
#                                      Debian's python3 imports them for the prefix /usr
# Installed programs find the library through a relative RPATH, so any prefix works.
set(VELMO_INSTALL_PYTHONDIR "lib/python3/dist-packages"
    CACHE STRING "Where the Python modules go, relative to the prefix")

set_target_properties(velmo-broker PROPERTIES INSTALL_RPATH "$ORIGIN/../lib")

if(VELMO_BUILD_PYTHON)
  set_target_properties(ivelmo PROPERTIES INSTALL_RPATH "$ORIGIN/../..")
  install(TARGETS ivelmo LIBRARY DESTINATION ${VELMO_INSTALL_PYTHONDIR})
  install(FILES ${PROJECT_BINARY_DIR}/python/ivelmo.py DESTINATION ${VELMO_INSTALL_PYTHONDIR})
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/python/velmo DESTINATION ${VELMO_INSTALL_PYTHONDIR}
          FILES_MATCHING PATTERN "*.py" PATTERN "__pycache__" EXCLUDE)
endif()

# `cpack` (run in the build folder) makes velmo_<version>_<arch>.deb from the rules above.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME velmo)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Velmo developers <velmo@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Distributed robot-software framework: brokers, modules and Python binding")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
# The libraries the binaries link (gSOAP, TinyXML-2, the C++ runtime) become dependencies.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "python3 (>= 3.9)")
include(CPack)
