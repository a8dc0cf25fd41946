# What the macOS backends are linked with.
function(ostler_link_platform target)
  target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:OBJCXX>:-fobjc-arc>)
  foreach(framework CoreFoundation Foundation IOKit OpenDirectory Security SystemConfiguration)
    target_link_libraries(${target} PUBLIC "-framework ${framework}")
  endforeach()
  target_link_libraries(${target} PUBLIC objc)
endfunction()

# What belongs to a program itself, beside its main.
function(ostler_finish_program target)
  set(folder "${PROJECT_SOURCE_DIR}/src/platform/macos/program")
  target_sources(${target} PRIVATE "${folder}/InformationList.cpp")
  set_source_files_properties("${folder}/InformationList.cpp" TARGET_DIRECTORY ${target} PROPERTIES
    COMPILE_DEFINITIONS "OSTLER_INFORMATION_LIST=\"${folder}/Info.plist\"" OBJECT_DEPENDS "${folder}/Info.plist")
endfunction()
