# Compiler flags that hold for every target of the house.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")

include(CheckPIESupported)
check_pie_supported()

add_compile_options(
  -Wall -Wextra -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Werror
  -fstack-protector-strong -fno-omit-frame-pointer)
add_link_options(-Wl,-z,relro -Wl,-z,now -Wl,--as-needed)

if(OSTREL_SANITIZE)
  add_compile_options(-fsanitize=${OSTREL_SANITIZE} -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=${OSTREL_SANITIZE})
  # RapidJSON adds to the null pointer of its empty stack, in every room that parses or writes JSON.
  add_compile_options($<$<CXX_COMPILER_ID:Clang>:-fno-sanitize=pointer-overflow>)
  # GCC reports uninitialised members inside instrumented standard headers.
  add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
elseif(CMAKE_BUILD_TYPE MATCHES "Rel")
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()

# Includes are written from the repository root, so that a reader always knows the room.
include_directories("${CMAKE_SOURCE_DIR}")

find_program(OSTREL_CCACHE ccache)
if(OSTREL_CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER
      ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime
      ${OSTREL_CCACHE})
  add_compile_options($<$<CXX_COMPILER_ID:GNU>:-fpch-preprocess>)
endif()

find_program(OSTREL_MOLD mold)
if(OSTREL_MOLD AND NOT CMAKE_CXX_FLAGS MATCHES "-fuse-ld")
  add_link_options(-fuse-ld=mold)
endif()
