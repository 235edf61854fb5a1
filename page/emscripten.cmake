# Toolchain of the page: Debian's emscripten.
find_program(VELMAR_2D_EM_CONFIG em-config)
if(NOT VELMAR_2D_EM_CONFIG)
  message(FATAL_ERROR "The page is built with emscripten, which is not there: apt install emscripten")
endif()
execute_process(COMMAND ${VELMAR_2D_EM_CONFIG} EMSCRIPTEN_ROOT OUTPUT_VARIABLE root
                OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
include(${root}/cmake/Modules/Platform/Emscripten.cmake)

set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(CMAKE_CXX_FLAGS_INIT
    "-fwasm-exceptions -Wno-unsupported-floating-point-opt -include ${CMAKE_CURRENT_LIST_DIR}/before_cxx20.hpp")
