# Warning flags shared by every target of the project.
add_library(qk_warnings INTERFACE)
target_compile_options(qk_warnings INTERFACE -Wall -Wextra)
