# What a developer chooses.

option(KEYFOLD_WITH_QT "Build what shows windows" ON)
option(KEYFOLD_FUZZ "Build the fuzz targets; needs clang" OFF)
set(KEYFOLD_SANITIZE "" CACHE STRING "Sanitizers, as -fsanitize takes them")

add_library(keyfold_settings INTERFACE)
target_compile_options(keyfold_settings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor -Wold-style-cast
  -Werror -fstack-protector-strong
  # g++ 12 warns of std::string's own code where it optimises (GCC bug 105651).
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)
target_compile_definitions(keyfold_settings INTERFACE $<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)
target_link_options(keyfold_settings INTERFACE -Wl,-z,relro,-z,now)
if(KEYFOLD_SANITIZE)
  target_compile_options(keyfold_settings INTERFACE -fsanitize=${KEYFOLD_SANITIZE} -fno-omit-frame-pointer
                         -fno-sanitize-recover=all
                         # With sanitizers g++ takes the standard library's own code for uninitialized.
                         $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  target_link_options(keyfold_settings INTERFACE -fsanitize=${KEYFOLD_SANITIZE})
endif()

find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${CCACHE}")
endif()

# One place for everything that is built to run, so that programs find libraries and the bundle.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
