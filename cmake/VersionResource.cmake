# version_resource(TARGET DESCRIPTION): what the file's properties say, with the project's version.
function(version_resource target description)
  set(RC_NAME ${target})
  set(RC_DESCRIPTION ${description})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/version.rc.in
    ${CMAKE_CURRENT_BINARY_DIR}/${target}.rc @ONLY)
  target_sources(${target} PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/${target}.rc)
endfunction()
