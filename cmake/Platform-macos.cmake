# What the macOS backends are linked with.
function(ostler_link_platform target)
  target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:OBJCXX>:-fobjc-arc>)
  foreach(framework CoreFoundation Foundation IOKit OpenDirectory Security SystemConfiguration)
    target_link_libraries(${target} PUBLIC "-framework ${framework}")
  endforeach()
  target_link_libraries(${target} PUBLIC objc)
endfunction()
