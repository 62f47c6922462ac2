# Every Kestrin target links this interface target privately; the ci and asan presets turn the
# warnings into errors through CMAKE_COMPILE_WARNING_AS_ERROR.
add_library(kestrin_warnings INTERFACE)
add_library(kestrin::warnings ALIAS kestrin_warnings)
target_compile_options(kestrin_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
  -Woverloaded-virtual -Wnon-virtual-dtor -Wimplicit-fallthrough)
