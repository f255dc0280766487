add_library(btn_warnings INTERFACE)
target_compile_options(btn_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor -Wold-style-cast
  -Woverloaded-virtual -Wcast-qual -Wformat=2 -Wundef)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(btn_warnings INTERFACE -Wthread-safety)
endif()
if(BTN_WERROR)
  target_compile_options(btn_warnings INTERFACE -Werror)
endif()
