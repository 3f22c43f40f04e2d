# A native 32-bit x86 build on a 64-bit x86 Linux machine, with Debian's
# gcc-multilib and g++-multilib: the programs run here, as they are.
#   cmake -S . -B build/m32 -DCMAKE_TOOLCHAIN_FILE=cmake/linux-i686.cmake
# Only 32-bit libraries are seen. Debian ships none of libfuse3,
# libmosquitto, libmodbus or libexpat for this architecture without adding
# i386 as a foreign one, so vukra comes without mount and poll --mqtt, the
# benchmarks (which measure against libmodbus and libexpat) are left out,
# and GoogleTest is built from Debian's sources (package googletest).
set(CMAKE_C_FLAGS_INIT -m32)
set(CMAKE_CXX_FLAGS_INIT -m32)
set(CMAKE_EXE_LINKER_FLAGS_INIT -m32)
set(CMAKE_SHARED_LINKER_FLAGS_INIT -m32)
set(CMAKE_MODULE_LINKER_FLAGS_INIT -m32)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(FIND_LIBRARY_USE_LIB64_PATHS OFF)
# pkg-config looks only where i386 packages would put their .pc files.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/i386-linux-gnu/pkgconfig:/usr/lib32/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")
set(MODBUS_VUKRA_BENCH OFF CACHE BOOL "The benchmarks need libmodbus and libexpat")
# -O2, as the 64-bit build: at -O3 GCC 12 warns falsely (-Wrestrict) inside
# libstdc++'s std::string when size_t is 32 bits wide.
set(CMAKE_C_FLAGS_RELEASE "-O2 -DNDEBUG" CACHE STRING "")
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG" CACHE STRING "")
