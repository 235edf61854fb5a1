# Builds the library and installs it under a prefix that it was not configured for. Of the headers the
# public ones are installed and no other.
#   cmake -DSOURCE=... -DBINARY=... -DPREFIX=... -DOPTIONS=... -DGENERATOR=... -P <this file>
file(REMOVE_RECURSE ${PREFIX})
foreach(step IN ITEMS
    "-G;${GENERATOR};-S;${SOURCE};-B;${BINARY};-DCMAKE_BUILD_TYPE=Release;-DCMAKE_CXX_COMPILER=${COMPILER};-DVELMAR_2D_BUILD_IO=ON;-DVELMAR_2D_BUILD_HDF5=ON;-DVELMAR_2D_BUILD_NUMERICS=ON;-DVELMAR_2D_BUILD_TESTS=OFF;-DVELMAR_2D_BUILD_EXAMPLES=OFF;${OPTIONS}"
    "--build;${BINARY}"
    "--install;${BINARY};--prefix;${PREFIX}")
  execute_process(COMMAND ${CMAKE_COMMAND} ${step} COMMAND_ERROR_IS_FATAL ANY)
endforeach()

file(GLOB_RECURSE headers RELATIVE ${PREFIX}/include ${PREFIX}/include/*)
set(public velmar_2D/arrays.hpp velmar_2D/mesh.hpp velmar_2D/piece.hpp velmar_2D/records.hpp
    velmar_2D/velmar_2D.hpp velmar_2D/velmar_2D_hdf5.hpp velmar_2D/velmar_2D_io.hpp
    velmar_2D/velmar_2D_mpi.hpp velmar_2D/velmar_2D_mpi_hdf5.hpp velmar_2D/velmar_2D_mpi_io.hpp
    velmar_2D/velmar_2D_numerics.hpp)
if(NOT headers STREQUAL public)
  message(FATAL_ERROR "installed headers: ${headers}")
endif()
