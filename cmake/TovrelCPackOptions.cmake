# Read by cpack before it packages: every time stamp in the packages (files, archive members) is the
# one the build chose, unless the caller sets its own.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
  set(ENV{SOURCE_DATE_EPOCH} ${CPACK_TOVREL_SOURCE_DATE_EPOCH})
endif()
# Each package's description starts with its own synopsis (CPACK_DEBIAN_<COMPONENT>_DESCRIPTION):
# CPack would put the project's one-line summary before it.
unset(CPACK_PACKAGE_DESCRIPTION_SUMMARY)
