# Winelib on this machine: the sources are compiled for the host by Debian's wineg++ and run against the real
# Win32 API of Wine, so that the sanitizers named in VELTRA_SANITIZERS see our code.
set(CMAKE_CXX_COMPILER wineg++)

# wineg++ turns a program into NAME.exe.so and a start script, which CMake's trial programs do not expect.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VELTRA_SANITIZERS)

# gcc misjudges the size of a std::fill under ThreadSanitizer, so two warnings are off here.
set(CMAKE_CXX_FLAGS_INIT "-Wno-stringop-overflow -Wno-array-bounds -D_WIN32_WINNT=0x0602 -DWINVER=0x0602 \
-fsanitize=${VELTRA_SANITIZERS} -fno-sanitize-recover=all -fno-omit-frame-pointer")
set(CMAKE_CXX_FLAGS_DEBUG_INIT "-O1")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fsanitize=${VELTRA_SANITIZERS}")

# wineg++ does not pass the option on to the linker's driver: the runtimes are named.
string(REPLACE "address" "-lasan" _runtimes "${VELTRA_SANITIZERS}")
string(REPLACE "undefined" "-lubsan" _runtimes "${_runtimes}")
string(REPLACE "thread" "-ltsan" _runtimes "${_runtimes}")
string(REPLACE "," " " _runtimes "${_runtimes}")
set(CMAKE_CXX_STANDARD_LIBRARIES "${_runtimes}" CACHE STRING "")
