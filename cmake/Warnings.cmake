# Warnings on in our own code (not in third-party code built alongside); errors with QOB_WERROR,
# so that a new compiler's new warning does not break a user's build.
function(qob_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic $<$<BOOL:${QOB_WERROR}>:-Werror>)
endfunction()
