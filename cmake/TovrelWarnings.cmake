# Warning flags shared by every target of the project.
add_library(tovrel_warnings INTERFACE)
target_compile_options(tovrel_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
  -Wcast-align -Wnull-dereference -Wimplicit-fallthrough -Wformat=2)
if(TOVREL_WERROR)
  target_compile_options(tovrel_warnings INTERFACE -Werror)
endif()
