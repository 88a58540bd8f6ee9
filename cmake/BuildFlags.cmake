# The options of the build, and the flags that follow from them, in the target `build_flags`.

option(KESTRO_WERROR "Treat compiler warnings as errors" OFF)
option(KESTRO_LTO "Optimise across translation units" OFF)
option(KESTRO_COVERAGE "Count which lines the tests reach" OFF)
option(KESTRO_BENCH "Build the benchmark programs" OFF)
option(KESTRO_FUZZ "Build the fuzz targets (needs clang with libFuzzer)" OFF)
set(KESTRO_SANITIZE "" CACHE STRING "Sanitizers to build with, such as address,undefined")

# A sanitized or instrumented shared library serves nobody: its users would need the same flags.
if(KESTRO_SANITIZE OR KESTRO_COVERAGE OR KESTRO_FUZZ)
  set(plain_build OFF)
else()
  set(plain_build ON)
endif()
option(KESTRO_SHARED "Build and install the shared library" ${plain_build})

add_library(build_flags INTERFACE)

target_compile_options(
  build_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor
                        -Wold-style-cast)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  # Part of -Wconversion with clang only: both compilers are asked for the same.
  target_compile_options(build_flags INTERFACE -Wno-sign-conversion)
endif()
if(KESTRO_WERROR)
  target_compile_options(build_flags INTERFACE -Werror)
endif()

if(KESTRO_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "KESTRO_FUZZ needs clang: configure with -DCMAKE_CXX_COMPILER=clang++")
  endif()
  target_compile_options(build_flags INTERFACE -fsanitize=fuzzer-no-link)
  target_link_options(build_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()

if(KESTRO_SANITIZE)
  target_compile_options(
    build_flags INTERFACE -fsanitize=${KESTRO_SANITIZE} -fno-sanitize-recover=all
                          -fno-omit-frame-pointer)
  target_link_options(build_flags INTERFACE -fsanitize=${KESTRO_SANITIZE})
  if(KESTRO_SHARED)
    # A process has one runtime of the sanitizers: that of a program which loads the library, such as
    # Python, is loaded before it (sanitizer_preload).
    execute_process(
      COMMAND ${CMAKE_CXX_COMPILER}
              -print-file-name=libclang_rt.asan-${CMAKE_SYSTEM_PROCESSOR}.so
      OUTPUT_VARIABLE sanitizer_runtime OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    get_filename_component(sanitizer_folder ${sanitizer_runtime} DIRECTORY)
    if(NOT sanitizer_folder)
      message(FATAL_ERROR "a sanitized shared library needs clang and its runtime as a library")
    endif()
    target_link_options(build_flags INTERFACE -shared-libasan -Wl,-rpath,${sanitizer_folder})
    # It looks for what throws exceptions when it is loaded.
    set(sanitizer_preload "${sanitizer_runtime} libstdc++.so.6")
  endif()
else()
  # Hardening that costs no time worth measuring. Sanitized builds have sharper tools.
  target_compile_options(build_flags INTERFACE -fstack-protector-strong)
  target_compile_definitions(
    build_flags INTERFACE $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:_FORTIFY_SOURCE=2>)
  target_link_options(build_flags INTERFACE -Wl,-z,relro -Wl,-z,now)
endif()

# The standard library checks its own preconditions (index in a span, empty optional) here.
if(KESTRO_SANITIZE OR CMAKE_BUILD_TYPE STREQUAL "Debug")
  target_compile_definitions(build_flags INTERFACE _GLIBCXX_ASSERTIONS)
endif()

if(KESTRO_COVERAGE)
  target_compile_options(build_flags INTERFACE --coverage)
  target_link_options(build_flags INTERFACE --coverage)
endif()

if(KESTRO_LTO)
  include(CheckIPOSupported)
  check_ipo_supported()
  set(CMAKE_INTERPROCEDURAL_OPTIMIZATION ON)
endif()
