# Runs first in "cmake --install", before anything is copied.
# The programs have their installed paths compiled in (the web API module,
# the extraction worker): installing under another prefix than the one
# configured would start programs that look for them where they are not.
install(CODE "
  if(NOT \"\${CMAKE_INSTALL_PREFIX}\" STREQUAL \"${CMAKE_INSTALL_PREFIX}\")
    message(FATAL_ERROR \"KestOndri was configured for the prefix ${CMAKE_INSTALL_PREFIX}, \"
      \"its programs look for their module there; configure again with \"
      \"-DCMAKE_INSTALL_PREFIX=\${CMAKE_INSTALL_PREFIX} instead of installing with --prefix.\")
  endif()")

