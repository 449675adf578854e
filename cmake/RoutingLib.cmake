# Helpers for the project's own targets. Warnings are errors in our code only.

function(rl_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror -Wno-unused-parameter)
endfunction()

# rl_library(Name SOURCES ... [DEPS ...] [INCLUDES ...])
# A shared library of the project: one per platform piece and one for the
# routing library itself.
function(rl_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;INCLUDES" ${ARGN})
  add_library(${name} SHARED ${ARG_SOURCES})
  rl_warnings(${name})
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/platform>
                             ${ARG_INCLUDES})
  target_link_libraries(${name} PUBLIC ${ARG_DEPS})
  # The same names as the installed package's imported targets.
  add_library(RoutingLib::${name} ALIAS ${name})
  set_property(GLOBAL APPEND PROPERTY ROUTINGLIB_INSTALLED_LIBRARIES ${name})
endfunction()

# rl_test(Name SOURCES ... [DEPS ...])
# A GoogleTest executable registered with CTest, one test per case.
function(rl_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;PROPERTIES" ${ARGN})
  if(NOT ROUTINGLIB_TESTS)
    return()
  endif()
  add_executable(${name} ${ARG_SOURCES})
  rl_warnings(${name})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gtest_main GTest::gmock)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  if(ROUTINGLIB_EMULATOR)
    # Programs a test starts itself go through the same emulator.
    list(APPEND ARG_PROPERTIES ENVIRONMENT ROUTINGLIB_TEST_EMULATOR=${ROUTINGLIB_EMULATOR})
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 120 PROPERTIES ${ARG_PROPERTIES})
endfunction()

# rl_bench(Name SOURCES ... [DEPS ...])
function(rl_bench name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  if(NOT ROUTINGLIB_BENCH)
    return()
  endif()
  add_executable(${name} ${ARG_SOURCES})
  rl_warnings(${name})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} benchmark::benchmark)
endfunction()

# rl_test_dir(Name [DEPS ...] [PROPERTIES ...])
# One test executable from every *Test.cpp in the calling folder.
function(rl_test_dir name)
  cmake_parse_arguments(ARG "" "" "DEPS;PROPERTIES" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*Test.cpp)
  rl_test(${name} SOURCES ${sources} DEPS ${ARG_DEPS} PROPERTIES ${ARG_PROPERTIES})
endfunction()
