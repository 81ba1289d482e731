# Sanitized builds (the sanitize and tsan presets): every target of the build dir is instrumented,
# and undefined behaviour stops the program instead of printing and going on.
set(PARLUNE_SANITIZERS "" CACHE STRING "Sanitizers to build with, e.g. address;undefined or thread")

if(PARLUNE_SANITIZERS)
  list(JOIN PARLUNE_SANITIZERS "," parlune_sanitizer_list)
  add_compile_options(-fsanitize=${parlune_sanitizer_list} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${parlune_sanitizer_list})
  if("undefined" IN_LIST PARLUNE_SANITIZERS)
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()
