# Debian's manual pages are compressed; those of an installation from here are left readable.
file(GLOB_RECURSE pages ${CPACK_TEMPORARY_DIRECTORY}/*.[0-9])
list(FILTER pages INCLUDE REGEX "/share/man/")
if(pages)
  execute_process(COMMAND gzip -9n ${pages} RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "gzip fails")
  endif()
endif()
