# Each library shows those that link it only its own folder of src/, through a directory of the
# build that holds a link to that folder alone. An include that crosses a layer the wrong way
# then finds no header and fails to compile: the core sees core/ only, the model port core/, llm/ and
# inference/, and only the application's own programs and tests see app/.
function(parlune_expose_folder target folder)
  set(root "${PROJECT_BINARY_DIR}/layers/${target}")
  get_filename_component(parent "${root}/${folder}" DIRECTORY)
  file(MAKE_DIRECTORY "${parent}")
  file(CREATE_LINK "${PROJECT_SOURCE_DIR}/src/${folder}" "${root}/${folder}" SYMBOLIC)
  target_include_directories(${target} PUBLIC "${root}")
endfunction()
