# Compiles every file under a resources directory into the library, so that a
# host needs to ship nothing beside it. A Palomir.bundle directory can still
# override any of them at run time.
set(_PALOMIR_EMBED_SCRIPT "${CMAKE_CURRENT_LIST_DIR}/EmbedResources.cmake")

function(palomir_embed_resources out_var dir)
  file(GLOB_RECURSE files CONFIGURE_DEPENDS LIST_DIRECTORIES false "${dir}/*")
  list(FILTER files EXCLUDE REGEX "/\\.[^/]*$")
  set(out "${CMAKE_CURRENT_BINARY_DIR}/generated/palomir_resources.cpp")
  add_custom_command(
    OUTPUT "${out}"
    COMMAND ${CMAKE_COMMAND} -DRESOURCE_DIR=${dir} -DOUTPUT=${out} -P "${_PALOMIR_EMBED_SCRIPT}"
    DEPENDS ${files} "${_PALOMIR_EMBED_SCRIPT}"
    COMMENT "Embedding Palomir resources"
    VERBATIM)
  set(${out_var} "${out}" PARENT_SCOPE)
endfunction()
