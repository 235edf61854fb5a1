# Debian packages, made by `cpack` from a build of shared libraries for the prefix /usr:
#
#   cmake --preset deb && cmake --build --preset deb && (cd build/deb && cpack)

# Who answers for the packages is who makes them, named as for Debian's own tools.
if(DEFINED ENV{DEBFULLNAME} AND DEFINED ENV{DEBEMAIL})
  set(maintainer "$ENV{DEBFULLNAME} <$ENV{DEBEMAIL}>")
else()
  set(maintainer "unknown builder <set-DEBFULLNAME-and-DEBEMAIL@localhost.invalid>")
endif()
set(VELMAR_2D_MAINTAINER ${maintainer} CACHE STRING "Maintainer of the Debian packages: Name <address>")

set(abi ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME velmar-2d)
set(CPACK_PACKAGE_VENDOR "velmar_2d")
set(CPACK_PACKAGE_CONTACT ${VELMAR_2D_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL library io dev tools doc)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/ldconfig_trigger.cmake)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  ${CMAKE_CURRENT_BINARY_DIR}/velmar_2D ${CMAKE_CURRENT_BINARY_DIR}/io
  ${CMAKE_CURRENT_BINARY_DIR}/hdf5 ${CMAKE_CURRENT_BINARY_DIR}/numerics
  ${CMAKE_CURRENT_BINARY_DIR}/mpi)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# The changelog as Debian wants it names who made the packages, and when: SOURCE_DATE_EPOCH, where it
# is set, so that the same sources give the same packages.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(cmake/changelog.in changelog @ONLY)
file(ARCHIVE_CREATE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz
     PATHS ${CMAKE_CURRENT_BINARY_DIR}/changelog
     FORMAT raw COMPRESSION GZip COMPRESSION_LEVEL 9 MTIME "2026-01-01")

# One package: its component, name, section, Debian dependencies beside the shared libraries that
# its files are linked with, and what it is. Each has its own copy of the copyright file
# and the changelog.
macro(velmar_2d_package component name section depends summary)
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${depends}")
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${summary}")
  install(FILES cmake/copyright ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz COMPONENT ${component}
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name})
endmacro()
set(library libvelmar-2d${abi})
set(io libvelmar-2d-io${abi})
set(same "(= ${PROJECT_VERSION})")
velmar_2d_package(library ${library} libs ""
  "This package holds the shared library.")
velmar_2d_package(io ${io} libs "${library} ${same}"
  "This package holds the shared library for pictures and ParaView files.")
set(libraries "${library} ${same}, ${io} ${same}")
if(TARGET velmar_2d_hdf5)
  set(hdf5 libvelmar-2d-hdf5-${abi})  # a number after a digit stands apart
  list(APPEND CPACK_COMPONENTS_ALL hdf5)
  velmar_2d_package(hdf5 ${hdf5} libs "${library} ${same}"
    "This package holds the shared library for saving and loading.")
  string(APPEND libraries ", ${hdf5} ${same}, libhdf5-dev, libdeflate-dev")
endif()
if(TARGET velmar_2d_numerics)
  set(numerics libvelmar-2d-numerics${abi})
  list(APPEND CPACK_COMPONENTS_ALL numerics)
  velmar_2d_package(numerics ${numerics} libs "${library} ${same}"
    "This package holds the shared library of parts for solvers.")
  string(APPEND libraries ", ${numerics} ${same}")
endif()
# cairo is what the .pc file of the pictures names.
velmar_2d_package(dev libvelmar-2d-dev libdevel "${libraries}, libcairo2-dev"
  "This package holds the headers and what CMake and pkg-config need.")
# Who keeps a mesh over many processes needs MPI, and nobody else: packages of their own.
if(velmar_2d_mpi_libraries)
  set(mpi libvelmar-2d-mpi${abi})
  set(mpi_libraries "libvelmar-2d-dev ${same}")
  foreach(name IN LISTS velmar_2d_mpi_libraries)
    string(REPLACE _ - package libvelmar-2d-${name})
    string(REGEX REPLACE "([0-9])$" "\\1-" package ${package})
    set(needed "${library} ${same}")
    if(NOT name STREQUAL "mpi")
      string(REPLACE "mpi_" "" files ${name})
      set(needed "${mpi} ${same}, ${${files}} ${same}")
    endif()
    list(APPEND CPACK_COMPONENTS_ALL ${name})
    velmar_2d_package(${name} ${package}${abi} libs "${needed}"
      "This package holds a shared library for one mesh over many processes.")
    string(APPEND mpi_libraries ", ${package}${abi} ${same}")
  endforeach()
  set(mpi_of_debian libopenmpi-dev)
  if(VELMAR_2D_MPI_LIBS MATCHES "mpich")
    set(mpi_of_debian libmpich-dev)
  endif()
  list(APPEND CPACK_COMPONENTS_ALL mpi_dev)
  velmar_2d_package(mpi_dev libvelmar-2d-mpi-dev libdevel "${mpi_libraries}, ${mpi_of_debian}"
    "This package holds the headers for one mesh over many processes.")
endif()
velmar_2d_package(tools velmar-2d-tools science "${library} ${same}, ${io} ${same}"
  "This package holds the program velmar_2d, to look at meshes.")
velmar_2d_package(doc velmar-2d-doc doc ""
  "This package holds the pages, pictures and examples.")
if(TARGET velmar_2d_python)
  list(APPEND CPACK_COMPONENTS_ALL python)
  # The extension module is made for one version of the interpreter.
  math(EXPR next_minor "${Python_VERSION_MINOR} + 1")
  set(interpreter "python3 (>= 3.${Python_VERSION_MINOR}), python3 (<< 3.${next_minor})")
  velmar_2d_package(python python3-velmar-2d python "${interpreter}, python3-numpy"
    "This package holds the module velmar_2d for Python, with the library in it.")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS "python3-matplotlib, python3-scipy")
  if(velmar_2d_mpi_libraries)
    list(APPEND CPACK_COMPONENTS_ALL python_mpi)
    velmar_2d_package(python_mpi python3-velmar-2d-mpi python
      "python3-velmar-2d ${same}, ${interpreter}, python3-mpi4py"
      "This package holds velmar_2d.mpi for Python: one mesh over many processes.")
    set(CPACK_DEBIAN_PYTHON_MPI_PACKAGE_SUGGESTS "python3-scipy, python3-petsc4py")
  endif()
endif()
set(CPACK_DEBIAN_DOC_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DOC_PACKAGE_SHLIBDEPS OFF)

install(FILES README.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/velmar-2d-doc
        COMPONENT doc)
install(DIRECTORY docs examples DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/velmar-2d-doc
        COMPONENT doc PATTERN CMakeLists.txt EXCLUDE PATTERN *.cmake EXCLUDE
        PATTERN reference EXCLUDE)

include(CPack)
