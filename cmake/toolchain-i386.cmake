# 32-bit x86 build on an x86_64 Debian host: g++-multilib for code, the :i386 -dev
# packages for libraries, qemu-i386 to run the test programs (this kernel cannot
# execute i386 binaries itself).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_C_FLAGS_INIT "-m32")
set(CMAKE_CXX_FLAGS_INIT "-m32")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-m32")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_FIND_ROOT_PATH /usr/lib/i386-linux-gnu /lib/i386-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(PKG_CONFIG_EXECUTABLE /usr/bin/i686-linux-gnu-pkg-config CACHE FILEPATH "" FORCE)
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/i386-linux-gnu/pkgconfig:/usr/share/pkgconfig")
# Runs the test programs; -L / lets the emulator find the i386 loader and libraries.
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-i386;-L;/)
set(PW_ARCH_I386 ON CACHE BOOL "32-bit build" FORCE)
