# One interface library that every target of ours links: warnings are errors.
add_library(veltra_warnings INTERFACE)
target_compile_options(veltra_warnings INTERFACE
    -Wall -Wextra -Wshadow -Wconversion -Wno-sign-conversion -Wnon-virtual-dtor -Wold-style-cast -Werror)
