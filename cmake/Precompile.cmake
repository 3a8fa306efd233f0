# kest_precompile(TARGET HEADER) or kest_precompile(TARGET REUSE_FROM OTHER): in builds with KEST_PCH the target's sources begin with
# the header, which is compiled once: for this target, or for the other one.
function(kest_precompile target)
  if(NOT KEST_PCH)
    return()
  endif()
  if(ARGV1 STREQUAL REUSE_FROM)
    target_precompile_headers(${target} REUSE_FROM ${ARGV2})
  else()
    target_precompile_headers(${target} PRIVATE ${ARGV1})
  endif()
  # without it ccache stands aside
  target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-fpch-preprocess>)
endfunction()
