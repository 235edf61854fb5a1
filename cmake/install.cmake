# What `cmake --install` puts in place: the library, its public headers, a package for
# find_package(velmar_2d) and one for pkg-config. Private headers stay at home.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/velmar_2d)

# Installs one library with its public headers and its part of the CMake package.
function(velmar_2d_install_library target export runtime_component)
  install(TARGETS ${target} EXPORT ${export}
    RUNTIME COMPONENT ${runtime_component}
    LIBRARY COMPONENT ${runtime_component} NAMELINK_COMPONENT dev
    ARCHIVE COMPONENT dev
    PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/velmar_2D COMPONENT dev)
  install(EXPORT ${export} NAMESPACE velmar_2d:: DESTINATION ${package_dir} COMPONENT dev)
endfunction()

velmar_2d_install_library(velmar_2d velmar_2dTargets library)
if(TARGET velmar_2d_io)
  velmar_2d_install_library(velmar_2d_io velmar_2d_ioTargets io)
endif()
if(TARGET velmar_2d_hdf5)
  velmar_2d_install_library(velmar_2d_hdf5 velmar_2d_hdf5Targets hdf5)
endif()
if(TARGET velmar_2d_numerics)
  velmar_2d_install_library(velmar_2d_numerics velmar_2d_numericsTargets numerics)
endif()

if(VELMAR_2D_BUILD_MPI)
  velmar_2d_install_library(velmar_2d_mpi velmar_2d_mpiTargets mpi)
  if(TARGET velmar_2d_mpi_io)
    velmar_2d_install_library(velmar_2d_mpi_io velmar_2d_mpi_ioTargets mpi)
  endif()
  if(TARGET velmar_2d_mpi_hdf5)
    velmar_2d_install_library(velmar_2d_mpi_hdf5 velmar_2d_mpi_hdf5Targets mpi)
  endif()
endif()

configure_package_config_file(cmake/velmar_2dConfig.cmake.in velmar_2dConfig.cmake
  INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(velmar_2dConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/velmar_2dConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/velmar_2dConfigVersion.cmake
        DESTINATION ${package_dir} COMPONENT dev)

# pkg-config finds the prefix from where its file lies: the tree may be moved as a whole.
set(PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH PC_PREFIX ${CMAKE_INSTALL_PREFIX}/${PC_DIR} ${CMAKE_INSTALL_PREFIX})
file(RELATIVE_PATH PC_INCLUDEDIR ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
file(RELATIVE_PATH PC_LIBDIR ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
set(PC_DEFINITIONS "")
set(PC_IO_DEFINITIONS "")
set(PC_HDF5_DEFINITIONS "")
set(PC_NUMERICS_DEFINITIONS "")
if(BUILD_SHARED_LIBS)
  set(PC_DEFINITIONS " -DVELMAR_2D_SHARED")
  set(PC_IO_DEFINITIONS "-DVELMAR_2D_IO_SHARED")
  set(PC_HDF5_DEFINITIONS "-DVELMAR_2D_HDF5_SHARED")
  set(PC_NUMERICS_DEFINITIONS "-DVELMAR_2D_NUMERICS_SHARED")
endif()
list(JOIN VELMAR_2D_CAIRO ", " PC_CAIRO)
string(REPLACE ">=" " >= " PC_CAIRO "${PC_CAIRO}")
list(JOIN VELMAR_2D_HDF5 ", " PC_HDF5)
string(REPLACE ">=" " >= " PC_HDF5 "${PC_HDF5}")
foreach(library IN ITEMS velmar_2d velmar_2d_io velmar_2d_hdf5 velmar_2d_numerics)
  if(TARGET ${library})
    configure_file(cmake/${library}.pc.in ${library}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${library}.pc DESTINATION ${PC_DIR} COMPONENT dev)
  endif()
endforeach()

if(TARGET velmar_2d_program)
  install(TARGETS velmar_2d_program RUNTIME COMPONENT tools)
  # Packed as Debian wants manual pages; `man` reads them so everywhere. A fixed time of the file
  # keeps builds alike.
  set(manual ${CMAKE_CURRENT_BINARY_DIR}/velmar_2d.1.gz)
  file(ARCHIVE_CREATE OUTPUT ${manual} PATHS ${PROJECT_SOURCE_DIR}/tools/velmar_2d.1
       FORMAT raw COMPRESSION GZip COMPRESSION_LEVEL 9 MTIME "2026-01-01")
  install(FILES ${manual} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  # Where bash and zsh look for what packages bring; below other prefixes than /usr zsh looks elsewhere.
  set(zsh_folder site-functions)
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(zsh_folder vendor-completions)
  endif()
  install(FILES tools/completion/velmar_2d.bash RENAME velmar_2d COMPONENT tools
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  install(FILES tools/completion/_velmar_2d COMPONENT tools
          DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/${zsh_folder})
endif()
if(PROJECT_IS_TOP_LEVEL)
  include(cmake/packages.cmake)
endif()
