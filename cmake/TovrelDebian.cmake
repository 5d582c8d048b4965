# The Debian packages: one per install component, each with the copyright file and changelog Debian
# wants in usr/share/doc/<package>. Included by tovrel_install_package(), in its scope, before CPack.
set(TOVREL_DEB_REVISION 1)
set(TOVREL_DEB_VERSION ${PROJECT_VERSION}-${TOVREL_DEB_REVISION})
set(TOVREL_DEB_DOC_DIR ${PROJECT_BINARY_DIR}/debian)

# tovrel_wrap(OUT TEXT FIRST REST): TEXT's words in lines of at most 78 characters (Debian's changelog
# and descriptions allow 80), the first line starting with FIRST, the others with REST.
function(tovrel_wrap out text first rest)
  string(REGEX REPLACE "[ \n]+" " " text "${text}")
  string(STRIP "${text}" text)
  set(result "")
  set(prefix "${first}")
  while(NOT text STREQUAL "")
    string(LENGTH "${prefix}" used)
    math(EXPR room "78 - ${used}")
    string(LENGTH "${text}" length)
    if(length LESS_EQUAL room)
      string(APPEND result "${prefix}${text}\n")
      break()
    endif()
    math(EXPR room "${room} + 1")
    string(SUBSTRING "${text}" 0 ${room} head)
    string(FIND "${head}" " " cut REVERSE)
    if(cut LESS_EQUAL 0)
      string(FIND "${text}" " " cut)
    endif()
    if(cut EQUAL -1)
      string(APPEND result "${prefix}${text}\n")
      break()
    endif()
    string(SUBSTRING "${text}" 0 ${cut} line)
    math(EXPR cut "${cut} + 1")
    string(SUBSTRING "${text}" ${cut} -1 text)
    string(APPEND result "${prefix}${line}\n")
    set(prefix "${rest}")
  endwhile()
  set(${out} "${result}" PARENT_SCOPE)
endfunction()

# changelog.Debian.gz from CHANGELOG.md: one entry per "## VERSION — DATE" section (DATE YYYY-MM-DD, or
# anything else for the unreleased one, dated SOURCE_DATE_EPOCH), its "### Kind" headings and bullets kept.
function(tovrel_debian_changelog out)
  file(STRINGS ${PROJECT_SOURCE_DIR}/CHANGELOG.md lines ENCODING UTF-8)
  list(APPEND lines "## end")
  set(text "")
  set(entry "")
  set(item "")
  # "## end" closes the last entry.
  foreach(line IN LISTS lines)
    if(NOT item STREQUAL "" AND NOT line MATCHES "^  +[^ ]")
      tovrel_wrap(wrapped "${item}" "  * " "    ")
      string(APPEND entry "${wrapped}")
      set(item "")
    endif()
    if(line MATCHES "^## ([^ ]+) ?[^ ]* ?(.*)$")
      if(entry)
        string(APPEND text "${entry}\n -- ${CPACK_PACKAGE_CONTACT}  ${date}\n\n")
        set(entry "")
      endif()
      set(version ${CMAKE_MATCH_1})
      set(epoch ${TOVREL_SOURCE_DATE_EPOCH})
      if(CMAKE_MATCH_2 MATCHES "^([0-9][0-9][0-9][0-9])-0?([0-9]+)-0?([0-9]+)$")
        # Days since 1970-01-01 of a civil date (proleptic Gregorian), the year counted from March.
        set(y ${CMAKE_MATCH_1})
        set(m ${CMAKE_MATCH_2})
        set(d ${CMAKE_MATCH_3})
        if(m LESS_EQUAL 2)
          math(EXPR y "${y} - 1")
          math(EXPR m "${m} + 9")
        else()
          math(EXPR m "${m} - 3")
        endif()
        math(EXPR era "${y} / 400")
        math(EXPR yoe "${y} - ${era} * 400")
        math(EXPR doy "(153 * ${m} + 2) / 5 + ${d} - 1")
        math(EXPR epoch "(${era} * 146097 + ${yoe} * 365 + ${yoe} / 4 - ${yoe} / 100 + ${doy} - 719468) * 86400")
      endif()
      set(ENV{SOURCE_DATE_EPOCH} ${epoch})
      string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
      if(version MATCHES "^[0-9]")
        set(entry "tovrel (${version}-${TOVREL_DEB_REVISION}) unstable; urgency=medium\n\n")
      endif()
    elseif(NOT entry)
      continue()
    elseif(line MATCHES "^### (.*)$")
      string(APPEND entry "  [ ${CMAKE_MATCH_1} ]\n")
    elseif(line MATCHES "^- (.*)$")
      set(item "${CMAKE_MATCH_1}")
    elseif(NOT item STREQUAL "")
      string(APPEND item " ${line}")
    endif()
  endforeach()
  set(ENV{SOURCE_DATE_EPOCH} ${TOVREL_SOURCE_DATE_EPOCH})
  string(REGEX REPLACE "\n\n$" "\n" text "${text}")
  file(WRITE ${out}.new "${text}")
  file(COPY_FILE ${out}.new ${out} ONLY_IF_DIFFERENT)
  if(${out} IS_NEWER_THAN ${out}.gz)
    execute_process(COMMAND gzip -9nkf ${out} COMMAND_ERROR_IS_FATAL ANY)
  endif()
endfunction()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/CHANGELOG.md)
tovrel_debian_changelog(${TOVREL_DEB_DOC_DIR}/changelog.Debian)

# tovrel_deb(COMPONENT PACKAGE SECTION DEPENDS DESCRIPTION [BUNDLED FILE...]): the package of one install
# component. DESCRIPTION is the synopsis, a newline, then the extended description (one paragraph,
# wrapped here). Each BUNDLED file (cmake/debian/NAME.copyright) names third-party files the package
# carries, with their licences.
macro(tovrel_deb component package section depends description)
  string(TOUPPER ${component} _tovrel_c)
  set(CPACK_DEBIAN_${_tovrel_c}_PACKAGE_NAME ${package})
  set(CPACK_DEBIAN_${_tovrel_c}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${_tovrel_c}_PACKAGE_DEPENDS "${depends}")
  string(FIND "${description}" "\n" _tovrel_cut)
  string(SUBSTRING "${description}" 0 ${_tovrel_cut} _tovrel_synopsis)
  math(EXPR _tovrel_cut "${_tovrel_cut} + 1")
  string(SUBSTRING "${description}" ${_tovrel_cut} -1 _tovrel_text)
  tovrel_wrap(_tovrel_text "${_tovrel_text}" "" "")
  set(CPACK_DEBIAN_${_tovrel_c}_DESCRIPTION "${_tovrel_synopsis}\n${_tovrel_text}")
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  tovrel_debian_docs(${component} ${package} ${ARGN})
endmacro()
function(tovrel_debian_docs component package)
  set(TOVREL_COPYRIGHT_FILES "")
  set(TOVREL_COPYRIGHT_LICENSES "")
  foreach(bundle IN LISTS ARGN)
    file(READ ${PROJECT_SOURCE_DIR}/cmake/debian/${bundle}.copyright stanza)
    string(APPEND TOVREL_COPYRIGHT_FILES "${stanza}")
    string(REGEX MATCHALL "\nLicense: [^\n]+" licenses "${stanza}")
    foreach(license IN LISTS licenses)
      string(REGEX REPLACE "^\nLicense: " "" license "${license}")
      if(NOT TOVREL_COPYRIGHT_LICENSES MATCHES "License: ${license}\n")
        file(READ ${PROJECT_SOURCE_DIR}/cmake/debian/${license}.license text)
        string(APPEND TOVREL_COPYRIGHT_LICENSES "${text}")
      endif()
    endforeach()
  endforeach()
  configure_file(${PROJECT_SOURCE_DIR}/cmake/debian/copyright.in ${TOVREL_DEB_DOC_DIR}/${package}/copyright @ONLY)
  # Only in the package: `cmake --install` lays the plain LICENSE, NOTICE and CHANGELOG.md instead.
  install(FILES ${TOVREL_DEB_DOC_DIR}/${package}/copyright ${TOVREL_DEB_DOC_DIR}/changelog.Debian.gz
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component} EXCLUDE_FROM_ALL)
endfunction()

set(CPACK_COMPONENTS_ALL "")
set(CPACK_DEBIAN_PACKAGE_RELEASE ${TOVREL_DEB_REVISION})
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/lib)
# shlibs: a program built against 1.x.y needs at least that version, under the same SONAME.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(major ${PROJECT_VERSION_MAJOR})
set(runtime "libtovrel${major} (= ${TOVREL_DEB_VERSION})")
set(libs_note "\nThe libraries keep their binary interface within a major version (the SONAME's).")
tovrel_deb(runtime libtovrel${major} libs ""
  "location-marketing component with its Linux backend (shared libraries)
Tovrel delivers geofenced offers on the device: the host application embeds the component, which
watches the user's position against the places of running campaigns, fetches offers from the service
and shows them as notifications and in its own screens.
This package holds what a headless host needs: the component, its view model, the HTTP client on
libcurl and the Linux backend (main loop, positions from gpsd, reachability, notifications over D-Bus).
It brings in no toolkit.${libs_note}")
tovrel_deb(development libtovrel-dev libdevel "${runtime}, nlohmann-json3-dev"
  "location-marketing component with its Linux backend (development files)
Tovrel delivers geofenced offers on the device, embedded in a host application.
This package holds the C++ headers of the component and its Linux backend, the CMake package
(find_package(Tovrel COMPONENTS linux)) and the pkg-config files tovrel and tovrel-linux.")

if("qt" IN_LIST TOVREL_PARTS)
  tovrel_deb(qt libtovrel-qt${major} libs "${runtime}"
    "location-marketing component: Qt 6 backend (shared library)
Tovrel delivers geofenced offers on the device, embedded in a host application.
This package holds the Qt backend: the component's main loop on Qt's event loop and its screens as
Qt Widgets, pages shown with Qt WebEngine, and the images they use.${libs_note}")
  tovrel_deb(qt_development libtovrel-qt-dev libdevel
    "libtovrel-qt${major} (= ${TOVREL_DEB_VERSION}), libtovrel-dev (= ${TOVREL_DEB_VERSION}), qt6-base-dev, qt6-webengine-dev"
    "location-marketing component: Qt 6 backend (development files)
Tovrel delivers geofenced offers on the device, embedded in a host application.
This package holds the Qt backend's headers and its part of the CMake package
(find_package(Tovrel COMPONENTS qt)).")
endif()
if("virtual" IN_LIST TOVREL_PARTS)
  tovrel_deb(virtual libtovrel-virtual${major} libs "${runtime}"
    "location-marketing component: virtual-time backend (shared library)
Tovrel delivers geofenced offers on the device, embedded in a host application.
This package holds the virtual backend, on which a whole session runs in virtual time along a
scripted route: what tovrel-sim and tests are built on.${libs_note}")
  tovrel_deb(virtual_development libtovrel-virtual-dev libdevel
    "libtovrel-virtual${major} (= ${TOVREL_DEB_VERSION}), libtovrel-dev (= ${TOVREL_DEB_VERSION})"
    "location-marketing component: virtual-time backend (development files)
Tovrel delivers geofenced offers on the device, embedded in a host application.
This package holds the virtual backend's headers and its part of the CMake package
(find_package(Tovrel COMPONENTS virtual)).")
endif()
if("c" IN_LIST TOVREL_PARTS)
  tovrel_deb(c libtovrel-c${major} libs "${runtime}"
    "location-marketing component: C interface (shared library)
Tovrel delivers geofenced offers on the device, embedded in a host application.
This package holds the C interface: one device on the Linux backend, for hosts written in C and for
other languages' bindings. It brings in no toolkit.${libs_note}")
  tovrel_deb(c_development libtovrel-c-dev libdevel
    "libtovrel-c${major} (= ${TOVREL_DEB_VERSION}), libtovrel-dev (= ${TOVREL_DEB_VERSION})"
    "location-marketing component: C interface (development files)
Tovrel delivers geofenced offers on the device, embedded in a host application.
This package holds the C header tovrel/tovrel.h, the pkg-config file tovrel-c and the C interface's
part of the CMake package (find_package(Tovrel COMPONENTS c)).")
  tovrel_deb(python python3-tovrel python "libtovrel-c${major} (= ${TOVREL_DEB_VERSION}), python3"
    "location-marketing component: Python 3 package
Tovrel delivers geofenced offers on the device, embedded in a host application.
This package holds the Python module tovrel, which runs one device on the Linux backend through the
C interface (ctypes): nothing is compiled when it is installed.")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
endif()

if(TARGET tovrel-server)
  set(console "")
  if(TOVREL_BUILD_CONSOLE)
    set(console console)
  endif()
  tovrel_deb(server tovrel-server net ""
    "self-hostable service for the Tovrel location-marketing component
tovrel-server is the service the component talks to: it keeps apps, places, campaigns and offers in
SQLite or PostgreSQL, answers the devices' requests and counts the funnel from trigger to delivery.
An admin listener serves health checks, metrics, an admin API and the campaign console in the browser.
This package holds the program, its man page, a sandboxed systemd unit and example settings."
    ${console})
endif()
if(TARGET tovrel-sim)
  set(leaflet "")
  if(TOVREL_SIM_HAVE_LEAFLET)
    set(leaflet report-leaflet)
  endif()
  set(virtual_depends "${runtime}")
  if(TARGET tovrel_virtual)
    set(virtual_depends "${runtime}, libtovrel-virtual${major} (= ${TOVREL_DEB_VERSION})")
  endif()
  tovrel_deb(tools tovrel-tools devel "${virtual_depends}"
    "simulator for the Tovrel location-marketing component
tovrel-sim runs a whole session of the component along a route in virtual time, against an embedded
service or a given one, and reports per offer how it reached the user or why not; with fleet, many
devices at once. Its HTML report draws the route on a map.
This package holds the program, its man page and example places, routes and content."
    ${leaflet})
endif()
if(TARGET tovrel-demo)
  tovrel_deb(demo tovrel-demo x11 "${runtime}, libtovrel-qt${major} (= ${TOVREL_DEB_VERSION})"
    "desktop demonstration of the Tovrel location-marketing component
tovrel-demo is a desktop host on the Qt backend: it starts a session against an embedded service (or a
given one) and shows the component's screens: the place map, the settings menu and the offers.")
endif()
