# What saving needs: HDF5, and libdeflate, which compresses several times as fast as HDF5's own filter
# and is readable by it. Where several builds of HDF5 are installed it is the one without MPI.
#
#   VELMAR_2D_HDF5                   the names for pkg-config: a static library's guests need them too
#   VELMAR_2D_HDF5_LIBRARIES_FOUND   then there is the target PkgConfig::VELMAR_2D_HDF5_LIBRARIES
find_package(PkgConfig QUIET)
if(PkgConfig_FOUND)
  pkg_search_module(VELMAR_2D_HDF5_BUILD QUIET hdf5-serial>=1.10.3 hdf5>=1.10.3)
endif()
if(VELMAR_2D_HDF5_BUILD_FOUND)
  set(VELMAR_2D_HDF5 ${VELMAR_2D_HDF5_BUILD_MODULE_NAME}>=1.10.3 libdeflate)
  pkg_check_modules(VELMAR_2D_HDF5_LIBRARIES QUIET IMPORTED_TARGET GLOBAL ${VELMAR_2D_HDF5})
endif()
