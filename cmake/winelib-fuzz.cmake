# The fuzz targets: as winelib-asan.cmake, but compiled by clang, whose libFuzzer and AddressSanitizer they use.
# wineg++ only links; what it would have told the compiler stands here.
set(CMAKE_CXX_COMPILER clang++-14)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

execute_process(COMMAND clang++-14 -print-resource-dir OUTPUT_VARIABLE _clang OUTPUT_STRIP_TRAILING_WHITESPACE)
set(_runtimes ${_clang}/lib/linux)

string(JOIN " " CMAKE_CXX_FLAGS_INIT
    -fshort-wchar -fPIC -D__WINE__ -DWINE_UNICODE_NATIVE -D_REENTRANT -D_WIN32_WINNT=0x0602 -DWINVER=0x0602
    -DWIN64 -D_WIN64 -DWIN32 -D_WIN32 -D__int64=long
    "\"-D__stdcall=__attribute__((ms_abi))\"" -D__cdecl=__stdcall -D__fastcall=__stdcall
    "\"-D__declspec(x)=__declspec_##x\"" "\"-D__declspec_align(x)=__attribute__((aligned(x)))\""
    "\"-D__declspec_dllimport=__attribute__((dllimport))\"" "\"-D__declspec_dllexport=__attribute__((dllexport))\""
    "\"-D__declspec_noreturn=__attribute__((noreturn))\"" "\"-D__declspec_nothrow=__attribute__((nothrow))\""
    -isystem /usr/include/wine/wine/windows
    -fsanitize=address,undefined,fuzzer-no-link -fno-sanitize=function,vptr -fno-sanitize-recover=all
    -fno-omit-frame-pointer -g)
set(CMAKE_CXX_FLAGS_RELEASE_INIT -O1)
set(CMAKE_CXX_LINK_EXECUTABLE
    "wineg++ <OBJECTS> -o <TARGET> <LINK_LIBRARIES> ${_runtimes}/libclang_rt.fuzzer_no_main-x86_64.a \
${_runtimes}/libclang_rt.asan-x86_64.so")
