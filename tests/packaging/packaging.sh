#!/usr/bin/env bash
# The three ways a project takes the library in, each run as a test:
#   packaging.sh install SOURCE BUILD WORK        installs BUILD to WORK/prefix
#   packaging.sh find_package SOURCE BUILD WORK   the consumer, through find_package
#   packaging.sh pkg_config SOURCE BUILD WORK     a one-file program, through pkg-config
#   packaging.sh add_subdirectory SOURCE BUILD WORK
#                                                 the consumer with the source tree inside,
#                                                 which must bring the library alone
# SOURCE is the checkout, BUILD its build folder, WORK a scratch folder.
set -euo pipefail
mode=$1 source=$2 build=$3 work=$4
consumer=$source/packaging/consumer
prefix=$work/prefix
configure=(cmake -G "Unix Makefiles" -DCMAKE_BUILD_TYPE=RelWithDebInfo)
[ -n "${CMAKE_CXX_COMPILER_LAUNCHER:-}" ] &&
  configure+=(-DCMAKE_CXX_COMPILER_LAUNCHER="$CMAKE_CXX_COMPILER_LAUNCHER")

case "$mode" in
  install)
    rm -rf "$prefix"
    cmake --install "$build" --prefix "$prefix"
    # Private headers (internal/<library>/ in the source) are never installed.
    while IFS= read -r private; do
      installed=$prefix/include/${private#*/internal/}
      if [ -e "$installed" ]; then
        echo "private header installed: $installed" >&2
        exit 1
      fi
    done < <(find "$source" -path "$source/build*" -prune -o -path '*/internal/*.h' -print)
    ;;
  find_package)
    "${configure[@]}" -S "$consumer" -B "$work/installed" -DCMAKE_PREFIX_PATH="$prefix"
    cmake --build "$work/installed"
    "$work/installed/consumer"
    # The Python module, where Debian's Python finds it under the prefix.
    if [ -d "$prefix/lib/python3/dist-packages" ]; then
      PYTHONPATH="$prefix/lib/python3/dist-packages" /usr/bin/python3 -c \
        'import zuresource; print(zuresource.Resource("Head").http_get())'
    fi
    ;;
  pkg_config)
    pcdir=$(dirname "$(find "$prefix" -name zuresource.pc)")
    export PKG_CONFIG_PATH=$pcdir
    # shellcheck disable=SC2046 # pkg-config's output is a list of words
    c++ -o "$work/pc-consumer" "$consumer/main.cpp" $(pkg-config --cflags --libs zuresource)
    LD_LIBRARY_PATH="$(pkg-config --variable=libdir zuresource)" "$work/pc-consumer"
    ;;
  add_subdirectory)
    "${configure[@]}" -S "$consumer" -B "$work/embedded" -DZURESOURCE_SOURCE_DIR="$source"
    cmake --build "$work/embedded" -j 2
    "$work/embedded/consumer"
    for dir in tests bench apps python; do
      if [ -e "$work/embedded/zuresource/$dir" ]; then
        echo "add_subdirectory() built zuresource's $dir" >&2
        exit 1
      fi
    done
    if grep -q zuresourceTargets "$work/embedded/zuresource/cmake_install.cmake"; then
      echo "add_subdirectory() added zuresource's install rules" >&2
      exit 1
    fi
    ;;
  *)
    echo "usage: $0 install|find_package|pkg_config|add_subdirectory SOURCE BUILD WORK" >&2
    exit 2
    ;;
esac
