# Cross build for macOS with Debian's clang and ld64.lld. tools/darwin-build gives the variables:
#   QM_DARWIN_SYSROOT  the folder that it has put together (required)
#   QM_DARWIN_ARCH     arm64 or x86_64
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QM_DARWIN_SYSROOT QM_DARWIN_ARCH)
if(NOT QM_DARWIN_SYSROOT OR NOT QM_DARWIN_ARCH)
  message(FATAL_ERROR "QM_DARWIN_SYSROOT and QM_DARWIN_ARCH must be set: use tools/darwin-build")
endif()

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR ${QM_DARWIN_ARCH})
# One architecture at a time: with two the compiler calls a program "lipo" that is not here.
set(CMAKE_OSX_ARCHITECTURES ${QM_DARWIN_ARCH} CACHE STRING "" FORCE)
include("${CMAKE_CURRENT_LIST_DIR}/darwin_minimum.cmake")
set(CMAKE_OSX_SYSROOT ${QM_DARWIN_SYSROOT} CACHE PATH "" FORCE)

foreach(tool IN ITEMS clang clang++ ld64.lld llvm-ar llvm-ranlib llvm-nm llvm-strip llvm-install-name-tool)
  string(MAKE_C_IDENTIFIER "QM_DARWIN_TOOL_${tool}" variable)
  find_program(${variable} NAMES ${tool}-19 REQUIRED)
endforeach()
foreach(language IN ITEMS C OBJC)
  set(CMAKE_${language}_COMPILER ${QM_DARWIN_TOOL_clang})
  set(CMAKE_${language}_COMPILER_TARGET ${QM_DARWIN_ARCH}-apple-macos)
endforeach()
foreach(language IN ITEMS CXX OBJCXX)
  set(CMAKE_${language}_COMPILER ${QM_DARWIN_TOOL_clang__})
  set(CMAKE_${language}_COMPILER_TARGET ${QM_DARWIN_ARCH}-apple-macos)
endforeach()
set(CMAKE_AR ${QM_DARWIN_TOOL_llvm_ar} CACHE FILEPATH "" FORCE)
set(CMAKE_RANLIB ${QM_DARWIN_TOOL_llvm_ranlib} CACHE FILEPATH "" FORCE)
set(CMAKE_NM ${QM_DARWIN_TOOL_llvm_nm} CACHE FILEPATH "" FORCE)
set(CMAKE_STRIP ${QM_DARWIN_TOOL_llvm_strip} CACHE FILEPATH "" FORCE)
set(CMAKE_INSTALL_NAME_TOOL ${QM_DARWIN_TOOL_llvm_install_name_tool} CACHE FILEPATH "" FORCE)
set(CMAKE_LINKER ${QM_DARWIN_TOOL_ld64_lld} CACHE FILEPATH "" FORCE)
# The version tells the compiler's driver in which language to speak to the linker.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fuse-ld=lld -mlinker-version=705 --ld-path=${QM_DARWIN_TOOL_ld64_lld}")

set(CMAKE_FIND_ROOT_PATH ${QM_DARWIN_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# There is no SDK of Apple's here: the hand-written declarations of platform/darwin/sdk-gap are used.
set(QM_SDK_GAP ON CACHE BOOL "" FORCE)
