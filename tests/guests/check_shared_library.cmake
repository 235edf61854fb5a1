# The shared library bears its versioned name and shows the public procedures and nothing else.
#   cmake -DLIBRARY=<libvelmar_2d.so> -DSONAME=<name> -DNM=<nm> -DREADELF=<readelf> -P <this file>
execute_process(COMMAND ${READELF} -d ${LIBRARY} OUTPUT_VARIABLE dynamic
                COMMAND_ERROR_IS_FATAL ANY)
if(NOT dynamic MATCHES "SONAME[^\n]*\\[${SONAME}\\]")
  message(FATAL_ERROR "no SONAME ${SONAME}:\n${dynamic}")
endif()

execute_process(COMMAND ${NM} -DC --defined-only ${LIBRARY} OUTPUT_VARIABLE symbols
                COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^\n]+" symbols "${symbols}")
list(LENGTH symbols nb_symbols)
# Beside procedures and variables: the objects, what they throw, how their state is deleted, and how
# velmar_2d::hdf5 comes to it. What belongs to the standard library is not ours to hide.
set(private ${symbols})
list(FILTER private EXCLUDE REGEX "^[0-9a-f]+ [A-Za-z] velmar_2d::([a-z0-9_]+(\\(|$)|Mesh::|MeshArrays::|Piece::)")
list(FILTER private EXCLUDE REGEX " (typeinfo|typeinfo name|vtable) for velmar_2d::Error$")
list(FILTER private EXCLUDE REGEX " velmar_2d::detail::(State|Arrays)Deleter::operator\\(\\)")
list(FILTER private EXCLUDE REGEX " velmar_2d::detail::(take_snapshot|restore|restore_default)\\(")
list(FILTER private EXCLUDE REGEX " ((typeinfo|typeinfo name|vtable) for )?std::")
if(private OR nb_symbols LESS 90)
  message(FATAL_ERROR "${nb_symbols} symbols, of these private: ${private}")
endif()
