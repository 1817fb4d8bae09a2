# Cross toolchain: 64-bit Windows programs from Debian, clang and lld over the mingw-w64 runtime.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(triple x86_64-w64-mingw32)
foreach(language C CXX)
  set(CMAKE_${language}_COMPILER clang-19)
  set(CMAKE_${language}_COMPILER_TARGET ${triple})
endforeach()
set(CMAKE_CXX_COMPILER clang++-19)
set(CMAKE_AR llvm-ar-19)
set(CMAKE_RANLIB llvm-ranlib-19)
set(CMAKE_RC_COMPILER ${triple}-windres)

set(CMAKE_EXE_LINKER_FLAGS_INIT "-fuse-ld=lld -static")

# libstdc++ is built by a compiler that emulates thread-local storage; std::call_once reaches into it.
add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-femulated-tls>)

# Programs run on the build machine; everything that is linked comes from the prefix of the cross-built dependencies or
# from the runtime's root. All of the first is searched before the second, where packages for other programs may be.
set(CMAKE_FIND_ROOT_PATH ${CMAKE_PREFIX_PATH} /usr/${triple})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
