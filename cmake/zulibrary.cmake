# zuresource_library(<name> SOURCES <file>... [EXPORT <set>])
#
# One shared library of the project: target <name> and alias zuresource::<name>,
# its headers in the folder <name>/ beside its sources (included as
# <name>/<header>.h), warnings on, the project's version, and, once installed,
# its sibling libraries found beside it. With ZURESOURCE_INSTALL, its install
# rules: the library into export set <set> (zuresourceTargets by default) and
# every header of <name>/.
#
# Installed and private headers are kept apart by folder: <name>/ holds the
# installed ones only; private headers go to internal/<name>/ beside it, seen
# by the library's own sources (still included as <name>/<header>.h) and
# never installed nor checked as public. A program of this project that needs
# them too links <name>_internal (zuresource::<name>_internal): the library
# with its internal folder, neither installed nor exported.
function(zuresource_library name)
  cmake_parse_arguments(ARG "" "EXPORT" "SOURCES" ${ARGN})
  if(NOT ARG_EXPORT)
    set(ARG_EXPORT zuresourceTargets)
  endif()
  add_library(${name} SHARED ${ARG_SOURCES})
  add_library(zuresource::${name} ALIAS ${name})
  # Listed for the header self-containment check (tests/headers).
  set_property(GLOBAL APPEND PROPERTY ZURESOURCE_LIBRARIES ${name})
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  if(IS_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/internal)
    target_include_directories(${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/internal)
    add_library(${name}_internal INTERFACE)
    add_library(zuresource::${name}_internal ALIAS ${name}_internal)
    target_include_directories(${name}_internal INTERFACE ${CMAKE_CURRENT_SOURCE_DIR}/internal)
    target_link_libraries(${name}_internal INTERFACE ${name})
  endif()
  target_compile_options(${name} PRIVATE -Wall -Wextra)
  set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION}
                        SOVERSION ${PROJECT_VERSION_MAJOR} INSTALL_RPATH "$ORIGIN")
  if(NOT ZURESOURCE_INSTALL)
    return()
  endif()
  install(TARGETS ${name} EXPORT ${ARG_EXPORT}
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
          RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(DIRECTORY ${name}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${name}
          FILES_MATCHING PATTERN "*.h")
endfunction()
