# CPack gives every package that holds a shared library maintainer scripts
# whose only job is to call ldconfig. The packages' ldconfig trigger does that
# job, so each package is rebuilt without such scripts.
foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  set(tree "${deb}.tree")
  file(REMOVE_RECURSE "${tree}")
  execute_process(COMMAND dpkg-deb -R "${deb}" "${tree}" COMMAND_ERROR_IS_FATAL ANY)
  foreach(script postinst postrm)
    set(path "${tree}/DEBIAN/${script}")
    if(EXISTS "${path}")
      file(READ "${path}" text)
      string(REGEX REPLACE "#!/bin/sh\n|set -e\n|if \\[ \"\\$1\" = \"(configure|remove)\" \\]; then\n|\tldconfig\n|fi\n|\n"
             "" rest "${text}")
      if(NOT rest STREQUAL "")
        message(FATAL_ERROR "${deb}: ${script} does more than call ldconfig:\n${text}")
      endif()
      file(REMOVE "${path}")
    endif()
  endforeach()
  execute_process(COMMAND dpkg-deb --root-owner-group -b "${tree}" "${deb}" OUTPUT_QUIET
                  COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE "${tree}")
endforeach()
