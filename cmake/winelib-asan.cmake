# Winelib on this machine: the sources are compiled for the host by Debian's wineg++ and run against the real
# Win32 API of Wine, so that AddressSanitizer, LeakSanitizer and UndefinedBehaviorSanitizer see our code.
set(CMAKE_CXX_COMPILER wineg++)

# wineg++ turns a program into NAME.exe.so and a start script, which CMake's trial programs do not expect.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

set(CMAKE_CXX_FLAGS_INIT "-D_WIN32_WINNT=0x0602 -DWINVER=0x0602 \
-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer")
set(CMAKE_CXX_FLAGS_DEBUG_INIT "-O1")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fsanitize=address,undefined")
set(CMAKE_CXX_STANDARD_LIBRARIES "-lasan -lubsan" CACHE STRING "")
