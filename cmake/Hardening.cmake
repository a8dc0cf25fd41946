# What the shipped program has against bytes that should never have got in; scripts/check-hardening looks for each of these
# in the program itself. Only where the optimiser is on, since the checked calls stand on what it knows of sizes.
set(fortified 2)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12)
  set(fortified 3)
endif()
target_compile_options(ostler_settings INTERFACE
  $<$<CONFIG:Release>:-fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=${fortified}>)
if(NOT APPLE)
  # The Mac's linker makes programs that are loaded anywhere and have no executable stack unless told otherwise.
  target_compile_options(ostler_settings INTERFACE $<$<CONFIG:Release>:-fPIE>)
  target_link_options(ostler_settings INTERFACE
    $<$<CONFIG:Release>:-pie -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack>)
else()
  # Without the debugger's map, which has the paths of the folder that it was built in.
  target_link_options(ostler_settings INTERFACE $<$<CONFIG:Release>:-Wl,-S>)
endif()
