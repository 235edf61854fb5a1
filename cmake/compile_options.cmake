# What our own targets are compiled with. Nothing here reaches a guest: all options are PRIVATE.

include(CheckIPOSupported)
check_ipo_supported(RESULT VELMAR_2D_HAS_IPO LANGUAGES CXX)

# Everything but the sanitizers.
function(velmar_2d_plain_compile_options target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
  # The same input gives the same mesh on every machine: no fused multiply-add.
  target_compile_options(${target} PRIVATE -ffp-contract=off)
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
    # Objects that every compiler can link, not only the one that made them.
    target_compile_options(${target} PRIVATE $<$<CONFIG:Release>:-ffat-lto-objects>)
  endif()
endfunction()
