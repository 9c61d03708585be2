# Given as CMAKE_PROJECT_INCLUDE: takes of each dependency its static library where there is one, and of that only what is
# used, as a firmware does.
set(CMAKE_FIND_LIBRARY_SUFFIXES .a .so)
set(PKG_CONFIG_ARGN --static)
add_compile_options(-ffunction-sections -fdata-sections)
add_link_options(-Wl,--gc-sections -static-libstdc++ -static-libgcc)
