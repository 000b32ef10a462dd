# Warning flags shared by every target of the project.
add_library(tarnlift_warnings INTERFACE)
target_compile_options(tarnlift_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
                       -Wno-missing-field-initializers)
if(TARNLIFT_WERROR)
  target_compile_options(tarnlift_warnings INTERFACE -Werror)
endif()
if(TARNLIFT_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()
