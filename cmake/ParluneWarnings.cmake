# One place for the warning set every Parlune target uses.
function(parlune_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow=local -Wnon-virtual-dtor
                                           -Wno-missing-field-initializers)
  if(PARLUNE_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
