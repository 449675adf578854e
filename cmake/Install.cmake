# What `cmake --install` puts under the prefix, and the package that other
# projects consume:
#
#   lib/                        the shared libraries
#   lib/cmake/RoutingLib/       RoutingLibConfig.cmake (+ version, targets):
#                               find_package(RoutingLib CONFIG) gives the
#                               imported targets RoutingLib::<library> and
#                               cog_schema()
#   lib/pkgconfig/routinglib.pc the same libraries for pkg-config
#   include/routinglib/         public, platform and generated headers (one
#                               include root: <Cog/...>, <RoutingLib/...>,
#                               <Routing.h>, ...)
#   share/routinglib/schema/    the schema units, importable by a consumer's
#   share/routinglib/tools/cogc the schema compiler
#   share/routinglib/cmake/     its CMake function (finds ../tools/cogc)
#   bin/routinglib              the operator's tool
#
# `cpack -G DEB` (from the build folder) packages the same under /usr.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(ROUTINGLIB_INCLUDE_ROOT ${CMAKE_INSTALL_INCLUDEDIR}/routinglib)
set(ROUTINGLIB_DATA_DIR ${CMAKE_INSTALL_DATADIR}/routinglib)
set(ROUTINGLIB_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/RoutingLib)

get_property(platform_libraries GLOBAL PROPERTY ROUTINGLIB_INSTALLED_LIBRARIES)
set(installed_libraries ${platform_libraries} RoutingLib)

foreach(lib ${installed_libraries})
  target_include_directories(${lib} INTERFACE $<INSTALL_INTERFACE:${ROUTINGLIB_INCLUDE_ROOT}>)
  # The libraries find each other beside themselves wherever they are installed.
  set_target_properties(${lib} PROPERTIES INSTALL_RPATH "$ORIGIN")
endforeach()
set_target_properties(routinglib PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

install(TARGETS ${installed_libraries} EXPORT RoutingLibTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS routinglib RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

foreach(lib ${platform_libraries})
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/${lib}/ DESTINATION ${ROUTINGLIB_INCLUDE_ROOT}/${lib}
          FILES_MATCHING PATTERN "*.h")
endforeach()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/src-includes/ DESTINATION ${ROUTINGLIB_INCLUDE_ROOT}
        FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${CMAKE_BINARY_DIR}/generated/ DESTINATION ${ROUTINGLIB_INCLUDE_ROOT}
        FILES_MATCHING PATTERN "*.h")

install(DIRECTORY ${PROJECT_SOURCE_DIR}/schema/ DESTINATION ${ROUTINGLIB_DATA_DIR}/schema
        FILES_MATCHING PATTERN "*.cog" PATTERN "*.h")
install(FILES ${PROJECT_SOURCE_DIR}/tools/cogc/cogc.py ${PROJECT_SOURCE_DIR}/tools/cogc/README.md
        DESTINATION ${ROUTINGLIB_DATA_DIR}/tools/cogc
        PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                    WORLD_READ WORLD_EXECUTE)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/tools/cogc/cogclib DESTINATION ${ROUTINGLIB_DATA_DIR}/tools/cogc
        FILES_MATCHING PATTERN "*.py" PATTERN "*.j2" PATTERN "__pycache__" EXCLUDE)
install(FILES ${PROJECT_SOURCE_DIR}/cmake/CogSchema.cmake DESTINATION ${ROUTINGLIB_DATA_DIR}/cmake)

install(EXPORT RoutingLibTargets NAMESPACE RoutingLib:: DESTINATION ${ROUTINGLIB_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/RoutingLibConfig.cmake.in
  ${CMAKE_BINARY_DIR}/package/RoutingLibConfig.cmake
  INSTALL_DESTINATION ${ROUTINGLIB_CMAKE_DIR}
  PATH_VARS ROUTINGLIB_INCLUDE_ROOT ROUTINGLIB_DATA_DIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/package/RoutingLibConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/package/RoutingLibConfig.cmake
              ${CMAKE_BINARY_DIR}/package/RoutingLibConfigVersion.cmake
        DESTINATION ${ROUTINGLIB_CMAKE_DIR})

# pkg-config: the libraries in link order (dependents first).
set(pc_libs "")
foreach(lib RoutingLib Mount Loop Velnet Tunnel Vrf Memtab Tracelet Activity Cog)
  if(TARGET ${lib})
    string(APPEND pc_libs " -l${lib}")
  endif()
endforeach()
file(RELATIVE_PATH pc_prefix_from_pcfiledir /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${PROJECT_SOURCE_DIR}/cmake/routinglib.pc.in ${CMAKE_BINARY_DIR}/package/routinglib.pc
               @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/package/routinglib.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Debian package: `cpack -G DEB` in the build folder.
set(CPACK_PACKAGE_NAME routinglib)
set(CPACK_PACKAGE_VENDOR "RoutingLib developers")
set(CPACK_PACKAGE_CONTACT "RoutingLib developers <routinglib@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "routing data model library for routing agents, its schema compiler and tool")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
# The headers need Boost's; cog_schema() runs the compiler with Python and Jinja.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libboost-dev (>= 1.81), python3, python3-jinja2")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/lib)
include(CPack)
