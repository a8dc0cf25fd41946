# The Debian package of the lab: `cpack -G DEB` in a release build, as scripts/package does it. The program and what one
# needs to try it.
include(GNUInstallDirs)
set(lab_data "${CMAKE_INSTALL_DATADIR}/fernhill-lab")
install(TARGETS fernhill-lab COMPONENT lab)
install(PROGRAMS tools/fernhill-doctor TYPE BIN COMPONENT lab)
install(DIRECTORY lab/policies DESTINATION "${lab_data}" COMPONENT lab FILES_MATCHING PATTERN "*.policy")
install(DIRECTORY tests/captures DESTINATION "${lab_data}" COMPONENT lab
  FILES_MATCHING PATTERN "*.pcap" PATTERN "*.pcapng" PATTERN "README.md")
install(FILES docs/lab.md DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/fernhill-lab" COMPONENT lab)
install(FILES docs/man/fernhill-lab.1 TYPE MAN COMPONENT lab RENAME man1/fernhill-lab.1)
install(FILES packaging/completions/fernhill-lab.bash COMPONENT lab
  DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" RENAME fernhill-lab)
install(FILES packaging/completions/_fernhill-lab COMPONENT lab
  DESTINATION "${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions")

# The packages of the libraries that are loaded when they are first used, which the program's own list does not have.
set(recommended iproute2 iptables)
foreach(library IN ITEMS "${OSTLER_CURL_FILE}" "${OSTLER_LDAP_FILE}")
  file(REAL_PATH "${library}" file)
  execute_process(COMMAND dpkg-query --search "${file}" OUTPUT_VARIABLE owner ERROR_QUIET)
  if(owner MATCHES "^([^:]+):")
    list(APPEND recommended "${CMAKE_MATCH_1}")
  endif()
endforeach()
list(REMOVE_DUPLICATES recommended)
list(JOIN recommended ", " CPACK_DEBIAN_LAB_PACKAGE_RECOMMENDS)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME fernhill-lab)
set(CPACK_PACKAGE_VENDOR "Tarnwick Systems")
set(CPACK_PACKAGE_CONTACT "Tarnwick Systems <lab@tarnwicksystems.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "The Ostler Interceptor on one Linux machine, between stand-ins")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL lab)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_LAB_PACKAGE_NAME fernhill-lab)
set(CPACK_DEBIAN_LAB_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_LAB_PACKAGE_SECTION net)
set(CPACK_DEBIAN_LAB_PACKAGE_SUGGESTS "nginx-light, dnsmasq-base, curl, tcpdump")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
include(CPack)
