# What our own targets are compiled with. Nothing here reaches a guest: all options are PRIVATE.

include(CheckIPOSupported)
check_ipo_supported(RESULT VELMAR_2D_HAS_IPO LANGUAGES CXX)

function(velmar_2d_compile_options target)
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
  if(VELMAR_2D_BUILD_FUZZERS)
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
  endif()
  if(VELMAR_2D_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=address,undefined -fno-sanitize-recover=all
                           -fno-omit-frame-pointer)
    target_link_options(${target} PUBLIC -fsanitize=address,undefined)
  endif()
endfunction()
