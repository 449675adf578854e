# cog_schema(TARGET <target> SCHEMAS <file.cog>... [OUTDIR <dir>]
#            [SEARCH <dir>...] [HEADERS <dir>...] [ROOT <dir>])
#
# Compiles each schema unit with cogc into <OUTDIR>/<Unit>.h and
# <Unit>.cpp (default OUTDIR: <build>/generated) and adds the sources to
# <target>, whose users then include the generated headers by unit name.
#
#   SEARCH   folders where units named by `import` are looked for, after the
#            importing unit's own folder. RoutingLib's own schema folder is
#            always searched last, so that a schema may import its units
#            (`import Routing;`) and use or extend their types.
#   HEADERS  include roots under which the headers named by `extern` lines
#            are looked for. Where RoutingLib is installed, its include root
#            is always one of them (the library's units name headers there).
#            Without HEADERS inside RoutingLib's own tree: its platform/ and
#            src-includes/ folders.
#   ROOT     paths in the generated files' first line and in error messages
#            are relative to it (default: the calling project's source dir).
#
# The compiler is found beside this file (../tools/cogc, in the source tree
# and where it is installed), so the function works from any project.
# A depfile written by cogc lists the schema, every unit it imports and the
# compiler's own templates and sources, so editing any of them rebuilds
# exactly the units that depend on it.
get_filename_component(home ${CMAKE_CURRENT_LIST_DIR}/.. ABSOLUTE)
set_property(GLOBAL PROPERTY COG_SCHEMA_HOME ${home})

function(cog_schema)
  get_property(_COG_SCHEMA_HOME GLOBAL PROPERTY COG_SCHEMA_HOME)
  set(COGC ${_COG_SCHEMA_HOME}/tools/cogc/cogc.py)
  if(NOT EXISTS ${COGC})
    message(FATAL_ERROR "cog_schema: the schema compiler is not at ${COGC}")
  endif()
  if(NOT Python3_EXECUTABLE)
    find_package(Python3 REQUIRED COMPONENTS Interpreter)
  endif()
  file(GLOB COGC_SOURCES CONFIGURE_DEPENDS
       ${_COG_SCHEMA_HOME}/tools/cogc/cogclib/*.py
       ${_COG_SCHEMA_HOME}/tools/cogc/cogclib/templates/*.j2)
  cmake_parse_arguments(ARG "" "TARGET;OUTDIR;ROOT" "SCHEMAS;SEARCH;HEADERS" ${ARGN})
  if(NOT ARG_OUTDIR)
    set(ARG_OUTDIR ${CMAKE_BINARY_DIR}/generated)
  endif()
  if(NOT ARG_ROOT)
    set(ARG_ROOT ${PROJECT_SOURCE_DIR})
  endif()
  set(search)
  foreach(dir ${ARG_SEARCH} ${_COG_SCHEMA_HOME}/schema)
    list(APPEND search -I ${dir})
  endforeach()
  set(headers)
  # Set by the installed package's config file: its include root.
  if(ARG_HEADERS OR ROUTINGLIB_COG_HEADERS)
    foreach(dir ${ARG_HEADERS} ${ROUTINGLIB_COG_HEADERS})
      list(APPEND headers --headers ${dir})
    endforeach()
  endif()
  foreach(schema ${ARG_SCHEMAS})
    get_filename_component(schema ${schema} ABSOLUTE)
    get_filename_component(unit ${schema} NAME_WE)
    set(header ${ARG_OUTDIR}/${unit}.h)
    set(source ${ARG_OUTDIR}/${unit}.cpp)
    set(depfile ${ARG_OUTDIR}/${unit}.d)
    add_custom_command(
      OUTPUT ${header} ${source}
      COMMAND ${Python3_EXECUTABLE} ${COGC} ${schema} -o ${ARG_OUTDIR} --depfile ${depfile}
              --root ${ARG_ROOT} ${search} ${headers}
      DEPENDS ${schema} ${COGC} ${COGC_SOURCES}
      DEPFILE ${depfile}
      COMMENT "cogc ${unit}"
      VERBATIM)
    target_sources(${ARG_TARGET} PRIVATE ${source} ${header})
    list(APPEND outputs ${header} ${source})
  endforeach()
  # The rule that runs cogc belongs to a target of this directory; the user
  # target (possibly defined elsewhere) builds after it.
  add_custom_target(${ARG_TARGET}_cogc DEPENDS ${outputs})
  add_dependencies(${ARG_TARGET} ${ARG_TARGET}_cogc)
  target_include_directories(${ARG_TARGET} PUBLIC $<BUILD_INTERFACE:${ARG_OUTDIR}>)
endfunction()
