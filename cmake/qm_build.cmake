# What every target of the project is built with, and how its programs are made.

option(QM_SDK_GAP "Build for macOS without Apple's SDK, with the declarations of platform/darwin/sdk-gap" OFF)

set(QM_SANITIZE "" CACHE STRING "Sanitizers for everything, as -fsanitize= takes them")

add_library(qm_options INTERFACE)
target_include_directories(qm_options INTERFACE "${CMAKE_SOURCE_DIR}")
target_compile_options(qm_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wcast-align -Wdouble-promotion -Wformat=2
  -Wimplicit-fallthrough -Werror -fno-omit-frame-pointer -fvisibility=hidden
  "$<$<COMPILE_LANGUAGE:CXX,OBJCXX>:-Wnon-virtual-dtor;-Wold-style-cast;-Woverloaded-virtual>"
  "$<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wthread-safety>"
  "$<$<COMPILE_LANGUAGE:OBJCXX>:-fobjc-arc>")
target_compile_options(qm_options INTERFACE $<$<CONFIG:RelWithDebInfo>:-O2>)
target_compile_definitions(qm_options INTERFACE QM_PRODUCT_VERSION="${PROJECT_VERSION}")
if(QM_SANITIZE)
  target_compile_options(qm_options INTERFACE -fsanitize=${QM_SANITIZE} -fno-sanitize-recover=all -O1)
  target_link_options(qm_options INTERFACE -fsanitize=${QM_SANITIZE})
  # The instrumentation hides from GCC what a std::optional guards: false alarms only.
  target_compile_options(qm_options INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
endif()
if(QM_FUZZ)
  # Coverage for libFuzzer in every file; its main only comes in with the fuzz programs.
  target_compile_options(qm_options INTERFACE -fsanitize=fuzzer-no-link)
  target_link_options(qm_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(APPLE)
  # After every system folder, so that a real SDK's header always wins.
  if(QM_SDK_GAP)
    target_compile_options(qm_options INTERFACE "SHELL:-idirafter ${CMAKE_SOURCE_DIR}/platform/darwin/sdk-gap/include")
  endif()
else()
  target_compile_definitions(qm_options INTERFACE $<$<CONFIG:RelWithDebInfo>:_FORTIFY_SOURCE=2>)
  target_link_options(qm_options INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)
endif()

find_program(QM_CCACHE ccache)
if(QM_CCACHE)
  set(CMAKE_C_COMPILER_LAUNCHER "${QM_CCACHE}")
  set(CMAKE_CXX_COMPILER_LAUNCHER "${QM_CCACHE}")
  set(CMAKE_OBJCXX_COMPILER_LAUNCHER "${QM_CCACHE}")
endif()

# qm_library(NAME SOURCES... LIBS...): a static library of one floor.
function(qm_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;LIBS;PRIVATE_LIBS" ${ARGN})
  add_library(${name} STATIC ${arg_SOURCES})
  target_link_libraries(${name} PUBLIC qm_options ${arg_LIBS} PRIVATE ${arg_PRIVATE_LIBS})
endfunction()

# qm_program(NAME IDENTIFIER id SOURCES... LIBS...): a program with its Info.plist (identifier, product
# version) in the section where the main bundle and the signature verifier look for it: on macOS __TEXT,__info_plist,
# elsewhere ".info_plist".
# VERSION overrides the product version (tests of peers with another version).
function(qm_program name)
  cmake_parse_arguments(arg "" "IDENTIFIER;VERSION" "SOURCES;LIBS" ${ARGN})
  if(NOT arg_VERSION)
    set(arg_VERSION "${PROJECT_VERSION}")
  endif()
  set(QM_BUNDLE_IDENTIFIER "${arg_IDENTIFIER}")
  set(QM_BUNDLE_NAME "${name}")
  set(QM_BUNDLE_VERSION "${arg_VERSION}")
  set(plist "${CMAKE_CURRENT_BINARY_DIR}/${name}.Info.plist")
  configure_file("${CMAKE_SOURCE_DIR}/cmake/Info.plist.in" "${plist}" @ONLY)
  if(APPLE)
    add_executable(${name} ${arg_SOURCES})
    target_link_libraries(${name} PRIVATE qm_options ${arg_LIBS})
    target_link_options(${name} PRIVATE "LINKER:-sectcreate,__TEXT,__info_plist,${plist}" "LINKER:-dead_strip")
    set_target_properties(${name} PROPERTIES LINK_DEPENDS "${plist}")
    return()
  endif()
  set(QM_INFO_PLIST "${plist}")
  set(section "${CMAKE_CURRENT_BINARY_DIR}/${name}.info_plist.c")
  configure_file("${CMAKE_SOURCE_DIR}/cmake/info_plist.c.in" "${section}" @ONLY)
  set_source_files_properties("${section}" PROPERTIES OBJECT_DEPENDS "${plist}")
  add_executable(${name} ${arg_SOURCES} "${section}")
  target_link_libraries(${name} PRIVATE qm_options ${arg_LIBS})
endfunction()
