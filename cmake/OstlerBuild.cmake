# Settings that every target of the project shares.
if(PROJECT_IS_TOP_LEVEL)
  find_program(OSTLER_CCACHE ccache)
  if(OSTLER_CCACHE)
    set(CMAKE_CXX_COMPILER_LAUNCHER "${OSTLER_CCACHE}")
  endif()
endif()

add_library(ostler_settings INTERFACE)
target_compile_features(ostler_settings INTERFACE cxx_std_17)
target_compile_options(ostler_settings INTERFACE
  -Wall -Wextra -Wshadow -Wformat=2 -Wnon-virtual-dtor -Woverloaded-virtual)
if(CMAKE_INTERPROCEDURAL_OPTIMIZATION AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # With all files before it, g++ follows arrays through branches that a null one never takes.
  target_link_options(ostler_settings INTERFACE -Wno-stringop-overflow)
endif()
if(OSTLER_WERROR)
  target_compile_options(ostler_settings INTERFACE -Werror)
endif()
if(OSTLER_SANITIZE)
  target_compile_options(ostler_settings INTERFACE
    -fsanitize=${OSTLER_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(ostler_settings INTERFACE -fsanitize=${OSTLER_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # With the checks compiled in, g++ takes the standard library's own moves for reads of unset memory.
    target_compile_options(ostler_settings INTERFACE -Wno-maybe-uninitialized)
  endif()
endif()
if(PROJECT_IS_TOP_LEVEL AND NOT OSTLER_SANITIZE)
  include(Hardening)
endif()

# What a program needs to fork under a checker.
if(OSTLER_SANITIZE MATCHES "address" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_library(ostler_checker OBJECT "${CMAKE_CURRENT_LIST_DIR}/checkers/LocksOverForks.cpp")
  target_link_libraries(ostler_checker PRIVATE ostler_settings)
  # Its functions are no part of what the shared form offers.
  target_link_options(ostler_settings INTERFACE -static-libasan)
endif()
function(ostler_let_fork target)
  if(TARGET ostler_checker)
    target_sources(${target} PRIVATE $<TARGET_OBJECTS:ostler_checker>)
  endif()
endfunction()
