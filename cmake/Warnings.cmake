add_library(btn_warnings INTERFACE)
target_compile_options(btn_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor -Wold-style-cast
  -Woverloaded-virtual -Wcast-qual -Wformat=2 -Wundef)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(btn_warnings INTERFACE -Wthread-safety)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # GCC 12 warns of overlapping copies wherever a literal is put before a std::string (its bug 105651).
  target_compile_options(btn_warnings INTERFACE -Wno-restrict)
endif()
if(BTN_WERROR)
  target_compile_options(btn_warnings INTERFACE -Werror)
endif()
