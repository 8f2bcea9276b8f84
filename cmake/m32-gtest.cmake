# Debian ships GoogleTest's libraries for the host architecture only, and its
# sources in /usr/src/googletest: build those for this target and let the
# tests' find_package(GTest) take them.
include(FetchContent)
set(INSTALL_GTEST OFF CACHE BOOL "Install GoogleTest with this project" FORCE)
FetchContent_Declare(GTest SOURCE_DIR /usr/src/googletest OVERRIDE_FIND_PACKAGE)
