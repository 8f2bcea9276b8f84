# 32-bit x86 Linux with the host's multilib g++ (Debian: g++-multilib). This
# machine's kernel may not run 32-bit programs, so tests and test discovery run
# them under qemu-i386 (Debian: qemu-user).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)

set(CMAKE_C_FLAGS_INIT "-m32")
set(CMAKE_CXX_FLAGS_INIT "-m32")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-m32")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-m32")

find_program(ZURESOURCE_QEMU_I386 qemu-i386 REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${ZURESOURCE_QEMU_I386})
