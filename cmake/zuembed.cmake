# zu_embed(<target> <header> NAMESPACE <ns> FILES <symbol>=<file>...)
#
# Web assets and other texts kept as real files (.js, .css, .html) and built
# into <target>: each file becomes `extern const char <symbol>[]` in namespace
# <ns>, its text byte for byte, declared in the generated header <header>
# (include it as "<header>") and defined in a generated source. Editing a file
# rebuilds the target.
set(ZU_EMBED_SCRIPT ${CMAKE_CURRENT_LIST_DIR}/zuembedgen.cmake)

function(zu_embed target header)
  cmake_parse_arguments(ARG "" "NAMESPACE" "FILES" ${ARGN})
  set(dir ${CMAKE_CURRENT_BINARY_DIR}/embedded)
  get_filename_component(stem ${header} NAME_WE)
  set(source ${dir}/${stem}.cpp)
  set(inputs)
  set(pairs)
  foreach(pair IN LISTS ARG_FILES)
    string(REPLACE "=" ";" parts ${pair})
    list(GET parts 0 symbol)
    list(GET parts 1 file)
    get_filename_component(file ${file} ABSOLUTE BASE_DIR ${CMAKE_CURRENT_SOURCE_DIR})
    list(APPEND inputs ${file})
    list(APPEND pairs "${symbol}=${file}")
  endforeach()
  string(REPLACE ";" "|" pairs "${pairs}")
  add_custom_command(
    OUTPUT ${dir}/${header} ${source}
    COMMAND ${CMAKE_COMMAND} -DHEADER=${dir}/${header} -DSOURCE=${source}
            -DNAMESPACE=${ARG_NAMESPACE} -DROOT=${PROJECT_SOURCE_DIR} "-DPAIRS=${pairs}" -P ${ZU_EMBED_SCRIPT}
    DEPENDS ${inputs} ${ZU_EMBED_SCRIPT}
    COMMENT "Embedding ${header}"
    VERBATIM)
  target_sources(${target} PRIVATE ${source} ${dir}/${header})
  target_include_directories(${target} PRIVATE ${dir})
endfunction()
