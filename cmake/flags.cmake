# One set of flags for everything that is compiled here.
add_library(veksys_flags INTERFACE)
target_compile_options(veksys_flags INTERFACE
  -Wall -Wextra -Wpedantic -Werror -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wnon-virtual-dtor
  -Wcast-align -Woverloaded-virtual -Wnull-dereference -Wformat=2 -fno-strict-aliasing)
if(VEKSYS_SANITIZE)
  target_compile_options(veksys_flags INTERFACE -fsanitize=${VEKSYS_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(veksys_flags INTERFACE -fsanitize=${VEKSYS_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Instrumentation confuses the flow analysis of these two.
    target_compile_options(veksys_flags INTERFACE -Wno-null-dereference -Wno-maybe-uninitialized)
    if(VEKSYS_SANITIZE MATCHES "thread")
      target_compile_options(veksys_flags INTERFACE -Wno-tsan)
    endif()
  endif()
endif()
if(VEKSYS_COVERAGE)
  target_compile_options(veksys_flags INTERFACE --coverage -O0)
  target_link_options(veksys_flags INTERFACE --coverage)
endif()
find_package(Threads REQUIRED)
