# Applies TOVREL_SANITIZE to every target compiled after this point.
if(TOVREL_SANITIZE)
  add_compile_options(-fsanitize=${TOVREL_SANITIZE} -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=${TOVREL_SANITIZE})
  if(TOVREL_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()
