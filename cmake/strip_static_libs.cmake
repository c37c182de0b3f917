# Run by CPack between staging the install and packing it (CPACK_PRE_BUILD_SCRIPTS): removes
# the debug sections from the staged static libraries, which CPACK_STRIP_FILES leaves alone.
# The build tree's own libraries keep theirs.
file(GLOB_RECURSE archives "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*.a")
foreach(archive IN LISTS archives)
  execute_process(COMMAND ${CPACK_KORVALIN_STRIP} --strip-debug ${archive} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
