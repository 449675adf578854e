# Installs the build into a fresh prefix and uses it from outside, as a
# project that has only the installed package would:
#  1. a CMake project (examples/consumer/) through find_package(RoutingLib CONFIG),
#     with a schema of its own that imports a library unit, built with
#     -Wall -Wextra -Werror, and run;
#  2. a plain C++ program (examples/plain/) through pkg-config, same warnings, run.
#
#   cmake -DBUILD=<build dir> -DEXAMPLES=<examples folder> -DWORK=<scratch dir>
#         -DCXX=<compiler> -DGENERATOR=<generator> -P PackageTest.cmake
cmake_minimum_required(VERSION 3.25)

function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${what} failed (${status}):\n${out}")
  endif()
  set(run_output "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK})
set(prefix ${WORK}/prefix)
run("install" ${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix})

# 1. find_package
run("consumer configure" ${CMAKE_COMMAND} -S ${EXAMPLES}/consumer -B ${WORK}/consumer -G ${GENERATOR}
    -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
run("consumer build" ${CMAKE_COMMAND} --build ${WORK}/consumer)
run("consumer run" ${WORK}/consumer/station)
message(STATUS "station: ${run_output}")
if(NOT run_output MATCHES "station: ok")
  message(FATAL_ERROR "the consumer program did not finish: ${run_output}")
endif()

# 2. pkg-config
file(GLOB pc_file ${prefix}/lib*/pkgconfig/routinglib.pc ${prefix}/lib/*/pkgconfig/routinglib.pc)
if(NOT pc_file)
  message(FATAL_ERROR "no routinglib.pc under ${prefix}")
endif()
get_filename_component(pc_dir ${pc_file} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
run("pkg-config" pkg-config --cflags --libs routinglib)
string(STRIP "${run_output}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run("pkg-config libdir" pkg-config --variable=libdir routinglib)
string(STRIP "${run_output}" libdir)
run("plain build" ${CXX} -std=c++20 -Wall -Wextra -Werror ${EXAMPLES}/plain/main.cpp -o ${WORK}/plain
    ${flags} -Wl,-rpath,${libdir})
run("plain run" ${WORK}/plain)
message(STATUS "plain: ${run_output}")
if(NOT run_output MATCHES "plain: ok")
  message(FATAL_ERROR "the plain program did not finish: ${run_output}")
endif()
