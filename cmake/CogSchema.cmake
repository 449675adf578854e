# cog_schema(TARGET <target> SCHEMAS <file.cog>... [OUTDIR <dir>] [SEARCH <dir>...])
#
# Compiles each schema unit with tools/cogc into <OUTDIR>/<Unit>.h and
# <Unit>.cpp (default OUTDIR: <build>/generated) and adds the sources to
# <target>, whose users then include the generated headers by unit name.
# A depfile written by cogc lists the schema, every unit it imports and the
# compiler's own templates and sources, so editing any of them rebuilds
# exactly the units that depend on it.
function(cog_schema)
  set(COGC ${PROJECT_SOURCE_DIR}/tools/cogc/cogc.py)
  file(GLOB COGC_SOURCES CONFIGURE_DEPENDS
       ${PROJECT_SOURCE_DIR}/tools/cogc/cogclib/*.py
       ${PROJECT_SOURCE_DIR}/tools/cogc/cogclib/templates/*.j2)
  cmake_parse_arguments(ARG "" "TARGET;OUTDIR" "SCHEMAS;SEARCH" ${ARGN})
  if(NOT ARG_OUTDIR)
    set(ARG_OUTDIR ${CMAKE_BINARY_DIR}/generated)
  endif()
  set(search)
  foreach(dir ${ARG_SEARCH})
    list(APPEND search -I ${dir})
  endforeach()
  foreach(schema ${ARG_SCHEMAS})
    get_filename_component(schema ${schema} ABSOLUTE)
    get_filename_component(unit ${schema} NAME_WE)
    set(header ${ARG_OUTDIR}/${unit}.h)
    set(source ${ARG_OUTDIR}/${unit}.cpp)
    set(depfile ${ARG_OUTDIR}/${unit}.d)
    add_custom_command(
      OUTPUT ${header} ${source}
      COMMAND ${Python3_EXECUTABLE} ${COGC} ${schema} -o ${ARG_OUTDIR} --depfile ${depfile}
              --root ${PROJECT_SOURCE_DIR} ${search}
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
  target_include_directories(${ARG_TARGET} PUBLIC ${ARG_OUTDIR})
endfunction()
