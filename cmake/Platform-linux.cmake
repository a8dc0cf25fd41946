# The name under which programs find a shared library when they run, into `name`.
function(ostler_library_name library name)
  execute_process(COMMAND "${CMAKE_OBJDUMP}" -p "${library}" OUTPUT_VARIABLE headers COMMAND_ERROR_IS_FATAL ANY)
  if(NOT headers MATCHES "SONAME +([^ \n]+)")
    message(FATAL_ERROR "${library} is no shared library with a name")
  endif()
  set(${name} "${CMAKE_MATCH_1}" PARENT_SCOPE)
endfunction()

# What the Linux backends are linked with. Only headers and names of the libraries that they load when first used.
function(ostler_link_platform target)
  find_package(Threads REQUIRED)
  find_package(OpenSSL REQUIRED)
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
  pkg_check_modules(CURL REQUIRED libcurl)
  pkg_check_modules(LDAP REQUIRED ldap)
  find_library(OSTLER_CURL_FILE curl HINTS ${CURL_LIBRARY_DIRS} REQUIRED)
  find_library(OSTLER_LDAP_FILE ldap HINTS ${LDAP_LIBRARY_DIRS} REQUIRED)
  ostler_library_name("${OSTLER_CURL_FILE}" curl)
  ostler_library_name("${OSTLER_LDAP_FILE}" ldap)
  target_include_directories(${target} SYSTEM PRIVATE ${CURL_INCLUDE_DIRS} ${LDAP_INCLUDE_DIRS})
  target_compile_definitions(${target} PRIVATE OSTLER_CURL_LIBRARY="${curl}" OSTLER_LDAP_LIBRARY="${ldap}")
  target_link_libraries(${target} PUBLIC Threads::Threads
    PRIVATE OpenSSL::SSL OpenSSL::Crypto PkgConfig::SYSTEMD ${CMAKE_DL_LIBS})
endfunction()

# Nothing but its main belongs to a program here.
function(ostler_finish_program target)
endfunction()
