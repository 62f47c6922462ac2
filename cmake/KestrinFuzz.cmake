# KESTRIN_FUZZ builds the libFuzzer targets of fuzz/ (clang only): every object is instrumented
# for coverage and checked by the address and undefined-behaviour sanitizers, and fuzz/ links its
# targets with libFuzzer's main. Without it, fuzz/ builds each target as a replay test instead.
option(KESTRIN_FUZZ "Build the libFuzzer targets of fuzz/ (needs clang)" OFF)

if(KESTRIN_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "KESTRIN_FUZZ needs clang; configure with the fuzz preset")
  endif()
  if(KESTRIN_SANITIZERS)
    message(FATAL_ERROR "KESTRIN_FUZZ brings its own sanitizers; leave KESTRIN_SANITIZERS empty")
  endif()
  # Undefined behaviour aborts, so that libFuzzer keeps the input that caused it.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,undefined)
endif()
