# Warning flags shared by every target of the project. LUMETRY_WERROR turns
# them into errors (CI builds with it).
option(LUMETRY_WERROR "Treat compiler warnings as errors" OFF)
add_library(lumetry_warnings INTERFACE)
target_compile_options(lumetry_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
  $<$<BOOL:${LUMETRY_WERROR}>:-Werror>)
