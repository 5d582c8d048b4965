# Applies TOVREL_SANITIZE to every target compiled after this point.
# Line tables (-g1) are all a sanitizer's report needs for file:line frames; full debug information made
# these builds a quarter slower to compile. TOVREL_SANITIZE_DEBUG_INFO=-g brings it back for a debugger.
set(TOVREL_SANITIZE_DEBUG_INFO "-g1" CACHE STRING "Debug information of sanitizer builds (-g1: line tables)")
if(TOVREL_SANITIZE)
  add_compile_options(-fsanitize=${TOVREL_SANITIZE} -fno-omit-frame-pointer ${TOVREL_SANITIZE_DEBUG_INFO})
  add_link_options(-fsanitize=${TOVREL_SANITIZE})
  if(TOVREL_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()
