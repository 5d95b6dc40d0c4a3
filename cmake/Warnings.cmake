# Warnings on, and errors in our own code (not in third-party code built alongside).
function(qob_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror)
endfunction()
