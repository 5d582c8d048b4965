# Install rules, the CMake package (TovrelConfig.cmake, namespaced targets Tovrel::*), pkg-config
# files and the Debian packages (CPack).
include(CMakePackageConfigHelpers)

set(TOVREL_CMAKE_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Tovrel)
set_property(GLOBAL PROPERTY TOVREL_INSTALLED_TARGETS "")

# tovrel_install_library(TARGET EXPORT_NAME NAME [OUTPUT_NAME FILE]): installs one library of the
# public package as Tovrel::NAME, with a versioned SONAME when shared.
function(tovrel_install_library target)
  cmake_parse_arguments(ARG "" "EXPORT_NAME;OUTPUT_NAME" "" ${ARGN})
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${ARG_EXPORT_NAME})
  add_library(Tovrel::${ARG_EXPORT_NAME} ALIAS ${target})
  get_target_property(type ${target} TYPE)
  if(NOT type STREQUAL "INTERFACE_LIBRARY")
    # No <target>_EXPORTS define (the sources do not read it): a static and a shared build compile alike.
    set_target_properties(${target} PROPERTIES OUTPUT_NAME ${ARG_OUTPUT_NAME} DEFINE_SYMBOL ""
                          VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  endif()
  if(type STREQUAL "SHARED_LIBRARY")
    target_link_options(${target} PRIVATE "LINKER:--version-script=${PROJECT_SOURCE_DIR}/cmake/tovrel.map"
                        "LINKER:--no-undefined")
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/tovrel.map)
  endif()
  install(TARGETS ${target} EXPORT TovrelTargets
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
          INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  set_property(GLOBAL APPEND PROPERTY TOVREL_INSTALLED_TARGETS ${ARG_EXPORT_NAME})
endfunction()

# tovrel_install_headers(DIR): installs a backend's public headers (DIR/tovrel/...) under the one root.
function(tovrel_install_headers dir)
  install(DIRECTORY ${dir}/tovrel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
          FILES_MATCHING PATTERN "*.h")
endfunction()

# tovrel_install_program(TARGET [COMPONENT C]): installs a program with its man page, generated from
# its --help and --version by help2man when that is found.
find_program(TOVREL_HELP2MAN help2man)
function(tovrel_install_program target)
  cmake_parse_arguments(ARG "" "COMPONENT" "ENVIRONMENT" ${ARGN})
  if(NOT ARG_COMPONENT)
    set(ARG_COMPONENT tools)
  endif()
  install(TARGETS ${target} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${ARG_COMPONENT})
  if(TOVREL_BUILD_MANPAGES AND TOVREL_HELP2MAN AND NOT CMAKE_CROSSCOMPILING)
    get_target_property(description ${target} TOVREL_DESCRIPTION)
    set(page ${CMAKE_CURRENT_BINARY_DIR}/${target}.1)
    add_custom_command(
      OUTPUT ${page}
      COMMAND ${CMAKE_COMMAND} -E env ${ARG_ENVIRONMENT}
              ${TOVREL_HELP2MAN} --no-info --no-discard-stderr --name=${description} --output=${page}
              $<TARGET_FILE:${target}>
      DEPENDS ${target}
      COMMENT "Writing the man page of ${target}"
      VERBATIM)
    add_custom_target(${target}_manpage ALL DEPENDS ${page})
    install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${ARG_COMPONENT})
  endif()
endfunction()

# Called once at the end of the top-level list: the package files and CPack.
function(tovrel_install_package)
  get_property(TOVREL_COMPONENTS GLOBAL PROPERTY TOVREL_INSTALLED_TARGETS)
  set(TOVREL_SHARED ${BUILD_SHARED_LIBS})
  install(EXPORT TovrelTargets NAMESPACE Tovrel:: DESTINATION ${TOVREL_CMAKE_INSTALL_DIR} COMPONENT development)
  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/TovrelConfig.cmake.in
                                ${PROJECT_BINARY_DIR}/TovrelConfig.cmake
                                INSTALL_DESTINATION ${TOVREL_CMAKE_INSTALL_DIR})
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/TovrelConfigVersion.cmake
                                   COMPATIBILITY SameMajorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/TovrelConfig.cmake ${PROJECT_BINARY_DIR}/TovrelConfigVersion.cmake
          DESTINATION ${TOVREL_CMAKE_INSTALL_DIR} COMPONENT development)

  # pkg-config, relocatable (the prefix is found from the file's own folder): private dependencies
  # matter only to a static link.
  file(RELATIVE_PATH TOVREL_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  string(REGEX REPLACE "/$" "" TOVREL_PC_TO_PREFIX "${TOVREL_PC_TO_PREFIX}")
  foreach(pc tovrel tovrel-linux tovrel-c)
    if((pc STREQUAL "tovrel-linux" AND NOT TARGET tovrel_linux) OR (pc STREQUAL "tovrel-c" AND NOT TARGET tovrel_c))
      continue()
    endif()
    configure_file(${PROJECT_SOURCE_DIR}/cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/pkgconfig/${pc}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
            COMPONENT development)
  endforeach()

  set(CPACK_PACKAGE_NAME tovrel)
  set(CPACK_PACKAGE_VENDOR "The Tovrel developers")
  set(CPACK_PACKAGE_CONTACT "The Tovrel developers <dev@tovrel.invalid>")
  set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
  set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
  set(CPACK_GENERATOR DEB)
  set(CPACK_STRIP_FILES ON)
  set(CPACK_DEB_COMPONENT_INSTALL ON)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/lib)
  set(CPACK_DEBIAN_PACKAGE_SECTION libs)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtovrel${PROJECT_VERSION_MAJOR})
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtovrel-dev)
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
      "libtovrel${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), nlohmann-json3-dev")
  set(CPACK_DEBIAN_SERVER_PACKAGE_NAME tovrel-server)
  set(CPACK_DEBIAN_SERVER_PACKAGE_SECTION net)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tovrel-tools)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libtovrel${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-tovrel)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "libtovrel${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), python3")
  set(CPACK_COMPONENTS_ALL runtime development server tools python)
  include(CPack)
endfunction()
