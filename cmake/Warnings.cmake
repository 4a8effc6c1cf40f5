# Warning flags shared by every target of the project.
add_library(lumetry_warnings INTERFACE)
target_compile_options(lumetry_warnings INTERFACE -Wall -Wextra -Wpedantic)
