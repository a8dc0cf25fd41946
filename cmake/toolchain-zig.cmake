# Cross-builds for x86-64 macOS 10.12 on Linux with zig and the declarations in cmake/macos-sdk.
# ZIG is the path of the zig program, from the cache or the environment.
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_VERSION 16)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(MACOS_MIN 10.12 CACHE STRING "The oldest macOS that the program runs on")

if(NOT ZIG)
  set(ZIG "$ENV{ZIG}")
endif()
set(ZIG "${ZIG}" CACHE FILEPATH "The zig program")
set(MACOS_SDK "${CMAKE_CURRENT_LIST_DIR}/macos-sdk")
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZIG MACOS_MIN)

# The wrappers carry the target, so CMake's own macOS settings stay empty.
set(CMAKE_OSX_SYSROOT "" CACHE PATH "" FORCE)
set(CMAKE_OSX_DEPLOYMENT_TARGET "" CACHE STRING "" FORCE)

set(wrappers "${CMAKE_BINARY_DIR}/zig-wrappers")
if(CMAKE_PROJECT_NAME STREQUAL "CMAKE_TRY_COMPILE" AND DEFINED ENV{ZIG_WRAPPERS})
  set(wrappers "$ENV{ZIG_WRAPPERS}")
else()
  set(ENV{ZIG_WRAPPERS} "${wrappers}")
  foreach(tool cc c++)
    file(WRITE "${wrappers}/zig-${tool}" "#!/bin/sh
unset LIBRARY_PATH CPATH SDKROOT
exec \"${ZIG}\" ${tool} -target x86_64-macos.${MACOS_MIN} -fno-sanitize=undefined \\
  -F\"${MACOS_SDK}/Frameworks\" -L\"${MACOS_SDK}/lib\" -isystem \"${MACOS_SDK}/include\" \"$@\"
")
  endforeach()
  foreach(tool ar ranlib)
    file(WRITE "${wrappers}/zig-${tool}" "#!/bin/sh\nexec \"${ZIG}\" ${tool} \"$@\"\n")
  endforeach()
  file(GLOB written "${wrappers}/zig-*")
  file(CHMOD ${written} PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
endif()

set(CMAKE_C_COMPILER "${wrappers}/zig-cc")
set(CMAKE_CXX_COMPILER "${wrappers}/zig-c++")
set(CMAKE_OBJC_COMPILER "${wrappers}/zig-cc")
set(CMAKE_OBJCXX_COMPILER "${wrappers}/zig-c++")
# zig links its own C++ library and switches off what that notes of Apple's. The notes are wanted: they refuse what
# a build on a Mac refuses, since the C++ library of 10.12 lacks it.
set(CMAKE_CXX_FLAGS_INIT "-U_LIBCPP_HAS_NO_VENDOR_AVAILABILITY_ANNOTATIONS")
# zig passes a word of its own on to the compiler, which does not need it.
set(CMAKE_OBJCXX_FLAGS_INIT
  "-U_LIBCPP_HAS_NO_VENDOR_AVAILABILITY_ANNOTATIONS -Wno-unused-command-line-argument")
set(CMAKE_AR "${wrappers}/zig-ar" CACHE FILEPATH "")
set(CMAKE_RANLIB "${wrappers}/zig-ranlib" CACHE FILEPATH "")
set(CMAKE_INSTALL_NAME_TOOL /bin/true CACHE FILEPATH "")
set(CMAKE_FIND_ROOT_PATH "${MACOS_SDK}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
