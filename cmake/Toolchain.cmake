# Flags that apply to everything built here, third-party code included:
# target architecture and sanitizers must agree across every object.

if(ROUTINGLIB_M32)
  # The library ships for 32-bit x86. SSE2 floating point keeps double
  # arithmetic rounding exactly as on x86-64, so numeric results match.
  add_compile_options(-m32 -msse2 -mfpmath=sse)
  add_link_options(-m32)
  set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
  include(${CMAKE_CURRENT_LIST_DIR}/I386Emulator.cmake)
endif()

if(ROUTINGLIB_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

if(ROUTINGLIB_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "ROUTINGLIB_FUZZ needs clang (libFuzzer): use the fuzz preset")
  endif()
  # Coverage for libFuzzer in every object; the fuzz targets link its driver.
  add_compile_options(-fsanitize=fuzzer-no-link)
  add_link_options(-fsanitize=fuzzer-no-link)
endif()
