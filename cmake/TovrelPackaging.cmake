# Install rules, the CMake package (TovrelConfig.cmake, namespaced targets Tovrel::*), pkg-config
# files and the Debian packages (CPack).
include(CMakePackageConfigHelpers)

set(TOVREL_CMAKE_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Tovrel)
set_property(GLOBAL PROPERTY TOVREL_INSTALLED_TARGETS "")
set_property(GLOBAL PROPERTY TOVREL_INSTALLED_PARTS "")

# The timestamp of everything the packages carry (files, changelog, man pages): the last commit's date,
# so that packaging the same commit twice gives the same files. A tree outside git takes a fixed date.
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  set(TOVREL_SOURCE_DATE_EPOCH $ENV{SOURCE_DATE_EPOCH})
else()
  execute_process(COMMAND git log -1 --format=%ct WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
                  OUTPUT_VARIABLE TOVREL_SOURCE_DATE_EPOCH OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  if(NOT TOVREL_SOURCE_DATE_EPOCH MATCHES "^[0-9]+$")
    set(TOVREL_SOURCE_DATE_EPOCH 1767225600)
  endif()
endif()

# The libraries come in Debian packages by what a host needs: the component with its headless backends
# (libtovrel1), and the parts below, each a library package with its -dev package and export set.
#   qt       libtovrel-qt1       the Qt backend (Qt 6 Widgets and WebEngine)
#   virtual  libtovrel-virtual1  the virtual-time backend (tovrel-sim, tests)
#   c        libtovrel-c1        the C interface, on the linux backend
# tovrel_part_components(PART RUNTIME DEVELOPMENT EXPORT): the install components and export set of a
# part; an empty PART is the component's own.
function(tovrel_part_components part runtime development export)
  if(part)
    set(${runtime} ${part} PARENT_SCOPE)
    set(${development} ${part}_development PARENT_SCOPE)
    set(${export} TovrelTargets_${part} PARENT_SCOPE)
  else()
    set(${runtime} runtime PARENT_SCOPE)
    set(${development} development PARENT_SCOPE)
    set(${export} TovrelTargets PARENT_SCOPE)
  endif()
endfunction()

# tovrel_install_library(TARGET EXPORT_NAME NAME [OUTPUT_NAME FILE] [PART qt|virtual|c]): installs one
# library of the public package as Tovrel::NAME, with a versioned SONAME when shared.
function(tovrel_install_library target)
  cmake_parse_arguments(ARG "" "EXPORT_NAME;OUTPUT_NAME;PART" "" ${ARGN})
  tovrel_part_components("${ARG_PART}" runtime development export)
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
  install(TARGETS ${target} EXPORT ${export}
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${runtime} NAMELINK_COMPONENT ${development}
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${development}
          INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  set_property(GLOBAL APPEND PROPERTY TOVREL_INSTALLED_TARGETS ${ARG_EXPORT_NAME})
  if(ARG_PART)
    set_property(GLOBAL APPEND PROPERTY TOVREL_INSTALLED_PARTS ${ARG_PART})
  endif()
endfunction()

# tovrel_install_headers(DIR [PART P]): installs a backend's public headers (DIR/tovrel/...) under the one root.
function(tovrel_install_headers dir)
  cmake_parse_arguments(ARG "" "PART" "" ${ARGN})
  tovrel_part_components("${ARG_PART}" runtime development export)
  install(DIRECTORY ${dir}/tovrel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT ${development}
          FILES_MATCHING PATTERN "*.h")
endfunction()

# tovrel_install_program(TARGET [COMPONENT C]): installs a program with its man page, generated from
# its --help and --version by help2man when that is found, and installed compressed as Debian wants it
# (gzip -n: no name or time in the header, the same bytes every time).
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
      OUTPUT ${page} ${page}.gz
      COMMAND ${CMAKE_COMMAND} -E env ${ARG_ENVIRONMENT} SOURCE_DATE_EPOCH=${TOVREL_SOURCE_DATE_EPOCH}
              ${TOVREL_HELP2MAN} --no-info --no-discard-stderr --name=${description} --output=${page}
              $<TARGET_FILE:${target}>
      COMMAND gzip -9nkf ${page}
      DEPENDS ${target}
      COMMENT "Writing the man page of ${target}"
      VERBATIM)
    add_custom_target(${target}_manpage ALL DEPENDS ${page}.gz)
    install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${ARG_COMPONENT})
  endif()
endfunction()

# Called once at the end of the top-level list: the package files and CPack.
function(tovrel_install_package)
  get_property(TOVREL_COMPONENTS GLOBAL PROPERTY TOVREL_INSTALLED_TARGETS)
  get_property(TOVREL_PARTS GLOBAL PROPERTY TOVREL_INSTALLED_PARTS)
  list(REMOVE_DUPLICATES TOVREL_PARTS)
  set(TOVREL_SHARED ${BUILD_SHARED_LIBS})
  # One targets file per part, in the part's -dev package; TovrelConfig.cmake loads those installed.
  install(EXPORT TovrelTargets NAMESPACE Tovrel:: DESTINATION ${TOVREL_CMAKE_INSTALL_DIR} COMPONENT development)
  foreach(part IN LISTS TOVREL_PARTS)
    install(EXPORT TovrelTargets_${part} NAMESPACE Tovrel:: DESTINATION ${TOVREL_CMAKE_INSTALL_DIR}
            COMPONENT ${part}_development)
  endforeach()
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
    set(component development)
    if(pc STREQUAL "tovrel-c")
      set(component c_development)
    endif()
    configure_file(${PROJECT_SOURCE_DIR}/cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/pkgconfig/${pc}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
            COMPONENT ${component})
  endforeach()

  set(CPACK_PACKAGE_NAME tovrel)
  set(CPACK_PACKAGE_VENDOR "The Tovrel developers")
  set(CPACK_PACKAGE_CONTACT "The Tovrel developers <dev@tovrel.invalid>")
  set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
  set(CPACK_GENERATOR DEB)
  set(CPACK_STRIP_FILES ON)
  set(CPACK_DEB_COMPONENT_INSTALL ON)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  # cpack reads SOURCE_DATE_EPOCH for every time in the packages; TovrelCPackOptions.cmake sets it.
  set(CPACK_TOVREL_SOURCE_DATE_EPOCH ${TOVREL_SOURCE_DATE_EPOCH})
  set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/TovrelCPackOptions.cmake)
  include(TovrelDebian)
  # Libraries: the ldconfig trigger registers them. CPack writes a postinst and a postrm calling ldconfig
  # into every package with libraries in /usr/lib unless the package brings its own: these do nothing.
  foreach(component runtime ${TOVREL_PARTS})
    string(TOUPPER ${component} c)
    set(CPACK_DEBIAN_${c}_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/debian/triggers
        ${PROJECT_SOURCE_DIR}/cmake/debian/postinst ${PROJECT_SOURCE_DIR}/cmake/debian/postrm)
    set(CPACK_DEBIAN_${c}_PACKAGE_CONTROL_STRICT_PERMISSION ON)
  endforeach()
  include(CPack)
endfunction()
