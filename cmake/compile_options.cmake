# What our own targets are compiled with. Nothing here reaches a guest: all options are PRIVATE.

if(NOT EMSCRIPTEN)  # Debian's has no libraries for it; the page is one unit instead
  include(CheckIPOSupported)
  check_ipo_supported(RESULT VELMAR_2D_HAS_IPO LANGUAGES CXX)
endif()

# The same input gives the same mesh on every machine: each operation is rounded by itself, to double
# precision. A guest's own flags may say otherwise for its own files (-Ofast, -ffast-math,
# -march=native); these come after them.
if(NOT DEFINED VELMAR_2D_ARITHMETIC_OPTIONS)
  if(MSVC)
    set(options /fp:precise)
  elseif(CMAKE_CXX_COMPILER_ID MATCHES "^(GNU|Clang|AppleClang|IntelLLVM)$")
    set(options -fno-unsafe-math-optimizations -fno-finite-math-only -fno-associative-math
        -fno-reciprocal-math -fsigned-zeros -ffp-contract=off)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
      list(PREPEND options -fno-fast-math)  # clang would warn that it overrides a parent's option
    endif()
    try_compile(is_x86 SOURCE_FROM_CONTENT x86.cpp
      "#if !defined(__i386__) && !defined(__x86_64__)\n#error\n#endif\nint main() {}\n")
    if(is_x86)
      list(APPEND options -msse2 -mfpmath=sse)  # the older unit keeps more digits than a double has
    endif()
  else()
    message(FATAL_ERROR "velmar_2d: which options keep the compiler ${CMAKE_CXX_COMPILER_ID} from "
      "rearranging and contracting floating-point operations is not known. Name them in "
      "VELMAR_2D_ARITHMETIC_OPTIONS.")
  endif()
  set(VELMAR_2D_ARITHMETIC_OPTIONS ${options} CACHE STRING
      "Options that make the compiler round each operation by itself")
endif()

# base.hpp refuses what these options could not mend.
block()
  set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
  try_compile(VELMAR_2D_ARITHMETIC_IS_EXACT
    SOURCE_FROM_CONTENT arithmetic.cpp "#include \"velmar_2D/base/base.hpp\"\n"
    COMPILE_DEFINITIONS ${VELMAR_2D_ARITHMETIC_OPTIONS}
    CMAKE_FLAGS -DINCLUDE_DIRECTORIES=${PROJECT_SOURCE_DIR}
    CXX_STANDARD 20 CXX_STANDARD_REQUIRED ON
    OUTPUT_VARIABLE output)
  if(NOT VELMAR_2D_ARITHMETIC_IS_EXACT)
    unset(VELMAR_2D_ARITHMETIC_IS_EXACT CACHE)
    message(FATAL_ERROR "velmar_2d cannot be compiled for this machine with these flags:\n${output}")
  endif()
endblock()

# Everything but the sanitizers.
function(velmar_2d_plain_compile_options target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
  target_compile_options(${target} PRIVATE ${VELMAR_2D_ARITHMETIC_OPTIONS})
  if(VELMAR_2D_HAS_IPO)
    set_target_properties(${target} PROPERTIES INTERPROCEDURAL_OPTIMIZATION_RELEASE ON)
  endif()
  if(VELMAR_2D_DEVELOPER)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
                           -Wnon-virtual-dtor -Wold-style-cast -Werror)
  endif()
endfunction()

function(velmar_2d_compile_options target)
  velmar_2d_plain_compile_options(${target})
  if(VELMAR_2D_BUILD_FUZZERS AND target STREQUAL velmar_2d)
    # The fuzzer is led by the branches of the library, not by those of the checks around it. Its
    # bytes choose from tables, so that to trace comparisons is of no use and halves the speed.
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link
                                             -fno-sanitize-coverage=trace-cmp)
  endif()
  if(VELMAR_2D_BUILD_FUZZERS AND target MATCHES "^velmar_2d_(readers|io)$")
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
  endif()
  if(VELMAR_2D_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=address,undefined -fno-sanitize-recover=all
                           -fno-omit-frame-pointer)
    target_link_options(${target} PUBLIC -fsanitize=address,undefined)
  endif()
endfunction()

# A library that guests link: static, or shared with a versioned name that shows its public
# procedures only. `shared_macro` tells the public header which of the two it is used with.
function(velmar_2d_library_properties target shared_macro)
  set_target_properties(${target} PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    VERSION ${PROJECT_VERSION}
    # Before 1.0 every minor version may change the records.
    SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
  if(VELMAR_2D_BUILD_TESTS)
    # The unit tests of private procedures link them.
    set_target_properties(${target} PROPERTIES CXX_VISIBILITY_PRESET default)
  endif()
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "SHARED_LIBRARY")
    target_compile_definitions(${target} PUBLIC ${shared_macro})
  elseif(VELMAR_2D_HAS_IPO AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Objects that every compiler can link, not only the one that made them. Without types as hints
    # at what overlaps: a program that is linked without optimisation would have them understood by
    # halves (g++ 12).
    target_compile_options(${target} PRIVATE
      $<$<CONFIG:Release>:-ffat-lto-objects;-fno-strict-aliasing>)
  endif()
endfunction()

# A library beside the core, of the folder that calls: velmar_2d::NAME, with the public header
# velmar_2D/velmar_2D_NAME.hpp.
function(velmar_2d_add_library name)
  set(target velmar_2d_${name})
  add_library(${target} ${ARGN})
  add_library(velmar_2d::${name} ALIAS ${target})
  velmar_2d_compile_options(${target})
  target_include_directories(${target}
    PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}>
           $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  string(TOUPPER ${target}_SHARED shared_macro)
  velmar_2d_library_properties(${target} ${shared_macro})
  set_target_properties(${target} PROPERTIES
    EXPORT_NAME ${name}
    PUBLIC_HEADER ${CMAKE_CURRENT_SOURCE_DIR}/velmar_2D/velmar_2D_${name}.hpp)
  target_link_libraries(${target} PUBLIC velmar_2d::velmar_2d)
endfunction()
