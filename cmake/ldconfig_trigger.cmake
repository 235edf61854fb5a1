# Run by cpack after the packages are made. It lets a package of shared libraries call ldconfig itself;
# in Debian a trigger does so, once for all packages of an installation.
foreach(package IN LISTS CPACK_PACKAGE_FILES)
  set(folder ${CPACK_TOPLEVEL_DIRECTORY}/with_trigger)
  file(REMOVE_RECURSE ${folder})
  execute_process(COMMAND dpkg-deb --raw-extract ${package} ${folder} COMMAND_ERROR_IS_FATAL ANY)
  if(EXISTS ${folder}/DEBIAN/shlibs)
    file(REMOVE ${folder}/DEBIAN/postinst ${folder}/DEBIAN/postrm)
    file(WRITE ${folder}/DEBIAN/triggers "activate-noawait ldconfig\n")
    execute_process(COMMAND dpkg-deb --root-owner-group --build ${folder} ${package} OUTPUT_QUIET
                    COMMAND_ERROR_IS_FATAL ANY)
  endif()
  file(REMOVE_RECURSE ${folder})
endforeach()
