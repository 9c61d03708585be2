# What every target of ours is compiled with. An integrator's own build only warns.
add_library(signalconn_warnings INTERFACE)
target_compile_options(signalconn_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(PROJECT_IS_TOP_LEVEL)
  target_compile_options(signalconn_warnings INTERFACE -Werror)
endif()
