# Fuzz build (QKUTIL_FUZZ=ON, with CC=clang CXX=clang++): every target is
# compiled with libFuzzer's coverage, AddressSanitizer and UBSan, so that the
# library under the fuzz targets is instrumented as they are. The targets
# themselves link libFuzzer (-fsanitize=fuzzer).
if(QKUTIL_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "QKUTIL_FUZZ needs clang: configure with CC=clang CXX=clang++")
  endif()
  if(NOT QKUTIL_SANITIZE STREQUAL "")
    message(FATAL_ERROR "QKUTIL_FUZZ brings its own sanitizers: leave QKUTIL_SANITIZE empty")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()
