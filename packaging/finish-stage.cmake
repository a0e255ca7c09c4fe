# CPack runs this between staging and packing. It signs the programs if signing is requested, and sets
# the time of every file to SOURCE_DATE_EPOCH, so that the same content gives the same package.
set(stage ${CPACK_TEMPORARY_DIRECTORY})
file(GLOB_RECURSE files ${stage}/*)
if(CPACK_QUILLMON_SIGN)
  foreach(file ${files})
    if(file MATCHES "\\.exe$")
      execute_process(COMMAND ${CPACK_QUILLMON_SIGN} ${file} COMMAND_ERROR_IS_FATAL ANY)
    endif()
  endforeach()
endif()
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  execute_process(COMMAND find ${stage} -exec touch -h -d @$ENV{SOURCE_DATE_EPOCH} {} +
    COMMAND_ERROR_IS_FATAL ANY)
endif()
