# Warnings for everything the project compiles itself. They are errors with
# KELP_WERROR (on in the presets and in CI); a plain build only shows them,
# so that a newer or older compiler's new warning never stops a user's build.
option(KELP_WERROR "Treat compiler warnings as errors" OFF)
function(kelp_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  if(KELP_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
