# What the Linux backends are linked with.
function(ostler_link_platform target)
  find_package(Threads REQUIRED)
  find_package(OpenSSL REQUIRED)
  target_link_libraries(${target} PUBLIC Threads::Threads PRIVATE OpenSSL::SSL OpenSSL::Crypto)
endfunction()
