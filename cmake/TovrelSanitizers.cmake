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

# No compiler cache serves the sanitizer builds (each compiles from scratch, once): there the libraries
# with the most files parse the headers that nearly all of their files include once, precompiled. The
# optimised builds leave it to the cache, which a precompiled header would defeat.
if(TOVREL_SANITIZE)
  set(tovrel_precompile_default ON)
else()
  set(tovrel_precompile_default OFF)
endif()
option(TOVREL_PRECOMPILE_HEADERS "Precompile the common headers of the largest libraries" ${tovrel_precompile_default})

# tovrel_precompile_headers(TARGET [HEADER...]): the JSON library and the standard headers every large
# library uses, and the HEADERs given, precompiled for TARGET when TOVREL_PRECOMPILE_HEADERS is on.
function(tovrel_precompile_headers target)
  if(TOVREL_PRECOMPILE_HEADERS)
    target_precompile_headers(${target} PRIVATE <utility> <algorithm> <chrono> <functional> <map> <memory>
                              <optional> <string> <vector> <nlohmann/json.hpp> ${ARGN})
  endif()
endfunction()
