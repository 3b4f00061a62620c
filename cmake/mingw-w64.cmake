# Windows with Debian's MinGW-w64 (posix threads), for x86_64 (the default) or i686 as VELTRA_ARCHITECTURE says.
# Everything specific to this toolchain is here.
set(VELTRA_ARCHITECTURE x86_64 CACHE STRING "Processor of the Windows programs: x86_64 or i686")
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VELTRA_ARCHITECTURE)
set(_prefix ${VELTRA_ARCHITECTURE}-w64-mingw32)

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR ${VELTRA_ARCHITECTURE})
set(CMAKE_CXX_COMPILER ${_prefix}-g++-posix)
set(CMAKE_RC_COMPILER ${_prefix}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${_prefix})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# Windows 8 and later; the C++ runtime is linked statically, so that the products import system DLLs only.
set(CMAKE_CXX_FLAGS_INIT "-D_WIN32_WINNT=0x0602 -DWINVER=0x0602 -fno-ident")
set(_link "-static -Wl,--nxcompat -Wl,--dynamicbase -Wl,--no-insert-timestamp")
if(VELTRA_ARCHITECTURE STREQUAL "x86_64")
    string(APPEND _link " -Wl,--high-entropy-va")
else()
    # The export lists name stdcall functions without the decoration that they have in 32-bit object files.
    string(APPEND _link " -Wl,--enable-stdcall-fixup")
endif()
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_link}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_link}")
