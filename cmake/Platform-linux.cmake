# What the Linux backends are linked with.
function(ostler_link_platform target)
  find_package(Threads REQUIRED)
  find_package(OpenSSL REQUIRED)
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
  pkg_check_modules(CURL REQUIRED IMPORTED_TARGET libcurl)
  pkg_check_modules(LDAP REQUIRED IMPORTED_TARGET ldap)
  target_link_libraries(${target} PUBLIC Threads::Threads
    PRIVATE OpenSSL::SSL OpenSSL::Crypto PkgConfig::SYSTEMD PkgConfig::CURL PkgConfig::LDAP)
endfunction()

# Nothing but its main belongs to a program here.
function(ostler_finish_program target)
endfunction()
