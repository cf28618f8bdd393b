# Warnings for our own targets; third-party headers come in as system includes.
function(vq_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
endfunction()
