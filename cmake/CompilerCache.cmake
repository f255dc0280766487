# A compiler cache makes the many presets cheap; the build works the same without one.
find_program(BTN_CCACHE ccache)
if(BTN_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${BTN_CCACHE})
endif()
