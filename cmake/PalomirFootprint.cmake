# How small the shipped library is. Hosts embed it in applications where every
# hundred kilobytes count, so the optimised builds trade -O3's unrolling for
# size and let the linker drop and fold what nothing reaches. Debug and
# sanitizer builds keep their own flags.
include(CheckLinkerFlag)

function(palomir_footprint objects library)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
    return()
  endif()
  set(_optimised "$<CONFIG:Release,MinSizeRel>")
  # Every function and object in a section of its own, so that the linker can
  # leave out the ones no exported entry point reaches.
  target_compile_options(${objects} PRIVATE -ffunction-sections -fdata-sections
    "$<$<CONFIG:Release>:-O2>")
  if(NOT TARGET ${library})
    return()
  endif()
  get_target_property(_type ${library} TYPE)
  if(NOT _type STREQUAL "SHARED_LIBRARY")
    return()
  endif()
  target_link_options(${library} PRIVATE "LINKER:--gc-sections" "$<${_optimised}:LINKER:-O1>")

  # Hidden visibility leaves out our own internals, but the standard library
  # declares its namespace visible, so every std:: template instance that we
  # use would be exported too (and could be interposed by a host's copy).
  set(_exports "${CMAKE_CURRENT_FUNCTION_LIST_DIR}/palomir-exports.map")
  target_link_options(${library} PRIVATE "LINKER:--version-script=${_exports}")
  set_property(TARGET ${library} APPEND PROPERTY LINK_DEPENDS "${_exports}")

  # Identical code folding merges the many template instances that compile to
  # the same machine code. Only the "safe" kind, which keeps apart functions
  # whose address is taken; GNU gold offers it for both compilers.
  check_linker_flag(CXX "-fuse-ld=gold;LINKER:--icf=safe" PALOMIR_HAVE_GOLD_ICF)
  if(PALOMIR_HAVE_GOLD_ICF)
    target_link_options(${library} PRIVATE "$<${_optimised}:-fuse-ld=gold>" "$<${_optimised}:LINKER:--icf=safe>")
  endif()
endfunction()
