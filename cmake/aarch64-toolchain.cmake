# Debian's cross compiler on the arm64 packages that scripts/aarch64_sysroot unpacks; programs run under qemu's user-mode
# emulation, which finds the shared libraries in the same place.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(TALVO_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/aarch64_sysroot)
get_filename_component(TALVO_SYSROOT ${TALVO_SYSROOT} ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH ${TALVO_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
foreach(kind INCLUDE LIBRARY PACKAGE)
  set(CMAKE_FIND_ROOT_PATH_MODE_${kind} ONLY)
endforeach()
# Debian's choice among the builds of OpenBLAS is a link that only an installed package has.
set(CMAKE_LIBRARY_PATH /usr/lib/aarch64-linux-gnu/openblas-pthread)
set(CMAKE_INCLUDE_PATH /usr/include/aarch64-linux-gnu/openblas-pthread)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${TALVO_SYSROOT}/usr/lib/aarch64-linux-gnu")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64;-L;${TALVO_SYSROOT})
