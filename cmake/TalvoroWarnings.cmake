# Warning flags for the project's own targets, and the sanitizer flags for the library and its
# tests. The virtual camera is never sanitized: it is preloaded into arbitrary processes.
set(TALVORO_WARNING_FLAGS -Wall -Wextra)
if(TALVORO_WERROR)
  list(APPEND TALVORO_WARNING_FLAGS -Werror)
endif()

# The library itself also builds with these (GCC's meaning of them; clang's -Wconversion takes in
# sign conversions too, which the library does not aim at). Files that cannot are exempted one by
# one where they are listed, with the reason.
set(TALVORO_LIBRARY_WARNING_FLAGS
    "$<$<CXX_COMPILER_ID:GNU>:-Wshadow;-Wnon-virtual-dtor;-Wconversion>")

set(TALVORO_SANITIZER_FLAGS "")
if(TALVORO_ASAN AND TALVORO_TSAN)
  message(FATAL_ERROR "TALVORO_ASAN and TALVORO_TSAN cannot be combined")
elseif(TALVORO_ASAN)
  set(TALVORO_SANITIZER_FLAGS -fsanitize=address,undefined -fno-omit-frame-pointer
      -fno-sanitize-recover=undefined)
elseif(TALVORO_TSAN)
  set(TALVORO_SANITIZER_FLAGS -fsanitize=thread -fno-omit-frame-pointer)
endif()
if(TALVORO_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "TALVORO_FUZZ needs clang (CC=clang CXX=clang++)")
  endif()
  # The code under test is instrumented for coverage; only fuzz targets link the fuzzer's main.
  list(APPEND TALVORO_SANITIZER_FLAGS -fsanitize=fuzzer-no-link,address,undefined
       -fno-omit-frame-pointer)
endif()

# talvoro_target_defaults(<target> [SANITIZE])
function(talvoro_target_defaults target)
  cmake_parse_arguments(ARG "SANITIZE" "" "" ${ARGN})
  target_compile_options(${target} PRIVATE ${TALVORO_WARNING_FLAGS})
  if(ARG_SANITIZE AND TALVORO_SANITIZER_FLAGS)
    # GCC's maybe-uninitialized analysis misfires on instrumented libstdc++ code (std::regex,
    # std::function); the normal build keeps the warning.
    target_compile_options(${target} PRIVATE ${TALVORO_SANITIZER_FLAGS}
                           $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
    target_link_options(${target} PRIVATE ${TALVORO_SANITIZER_FLAGS})
  endif()
endfunction()
