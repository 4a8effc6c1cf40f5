# ASan + UBSan for the whole build when LUMETRY_SANITIZE is on.
if(LUMETRY_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()
# GCC's -Wmaybe-uninitialized reports false positives inside libstdc++'s
# <regex> once ASan instruments it; the plain build keeps the warning.
if(LUMETRY_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_compile_options(-Wno-maybe-uninitialized)
endif()
# The fuzz build (LUMETRY_FUZZ, clang only): every library is instrumented
# for libFuzzer's coverage and checked by ASan and UBSan; the targets of
# fuzz/ link libFuzzer's driver.
if(LUMETRY_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "LUMETRY_FUZZ needs clang: CC=clang CXX=clang++ cmake ...")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined -g)
  add_link_options(-fsanitize=address,undefined)
endif()
