# zuresource_library(<name> SOURCES <file>... [EXPORT <set>] [PRIVATE_HEADERS <file>...])
#
# One shared library of the project: target <name> and alias zuresource::<name>,
# its headers in the folder <name>/ beside its sources (included as
# <name>/<header>.h), warnings on, the project's version, and, once installed,
# its sibling libraries found beside it. With ZURESOURCE_INSTALL, its install
# rules: the library into export set <set> (zuresourceTargets by default) and
# every header of <name>/ but the private ones.
function(zuresource_library name)
  cmake_parse_arguments(ARG "" "EXPORT" "SOURCES;PRIVATE_HEADERS" ${ARGN})
  if(NOT ARG_EXPORT)
    set(ARG_EXPORT zuresourceTargets)
  endif()
  add_library(${name} SHARED ${ARG_SOURCES})
  add_library(zuresource::${name} ALIAS ${name})
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
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
  set(excluded)
  foreach(header IN LISTS ARG_PRIVATE_HEADERS)
    list(APPEND excluded PATTERN ${header} EXCLUDE)
  endforeach()
  install(DIRECTORY ${name}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${name}
          FILES_MATCHING PATTERN "*.h" ${excluded})
endfunction()
