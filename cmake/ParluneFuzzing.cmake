# libFuzzer targets (tests/fuzz), run by hand. They need clang; when enabled, the whole build
# dir is instrumented for coverage and built with AddressSanitizer and UndefinedBehaviorSanitizer,
# so use a build dir of its own (see README, "Fuzzing the model reader").
option(PARLUNE_BUILD_FUZZERS "Build the libFuzzer targets (clang only)" OFF)

if(PARLUNE_BUILD_FUZZERS AND NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  message(WARNING "PARLUNE_BUILD_FUZZERS needs clang (-DCMAKE_CXX_COMPILER=clang++); fuzzers not built")
  set(PARLUNE_BUILD_FUZZERS OFF)
endif()

if(PARLUNE_BUILD_FUZZERS)
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()
