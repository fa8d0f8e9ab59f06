# Common compile options for every Brindle target.
add_library(brindle_options INTERFACE)
target_compile_options(brindle_options INTERFACE
  -Wall -Wextra -Wno-unused-parameter -Wno-missing-field-initializers)
target_compile_definitions(brindle_options INTERFACE
  QT_NO_KEYWORDS)
