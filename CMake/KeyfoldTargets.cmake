# How this project's targets are made.

# keyfold_target(NAME): the settings that every target of ours shares.
function(keyfold_target name)
  target_link_libraries(${name} PRIVATE keyfold_settings)
endfunction()

# The libraries are the system's own, not the machine's: a folder that the dynamic linker does not search. Whoever links
# them finds them by their own place.
set(KEYFOLD_LIBRARY_FOLDER "lib/${CMAKE_LIBRARY_ARCHITECTURE}/keyfold")

# The build folder is laid out as what is installed, so that programs find libraries there in the same way. CMake would
# else keep room for the installed place in each program with colons, and an empty entry means the current folder.
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/${KEYFOLD_LIBRARY_FOLDER}")
set(CMAKE_BUILD_WITH_INSTALL_RPATH ON)
set(CMAKE_INSTALL_RPATH "$ORIGIN/../${KEYFOLD_LIBRARY_FOLDER}") # of programs

# keyfold_shared_library(NAME COMPONENT HEADERS): a library that programs and bundles share, installed by the package
# COMPONENT. HEADERS is the folder above the one that its headers are included from.
function(keyfold_shared_library name component headers)
  keyfold_target(${name})
  set_target_properties(${name} PROPERTIES INSTALL_RPATH "$ORIGIN")
  target_include_directories(${name} PUBLIC "$<BUILD_INTERFACE:${headers}>" $<INSTALL_INTERFACE:include/keyfold>)
  install(TARGETS ${name} EXPORT Keyfold LIBRARY DESTINATION ${KEYFOLD_LIBRARY_FOLDER} COMPONENT ${component})
endfunction()

# keyfold_manual(FILE COMPONENT): a page of the manual, compressed as it is installed.
find_program(GZIP gzip REQUIRED)
function(keyfold_manual file component)
  set(made "${CMAKE_CURRENT_BINARY_DIR}/${file}.gz")
  add_custom_command(
    OUTPUT "${made}"
    COMMAND "${GZIP}" -9nc "${CMAKE_CURRENT_SOURCE_DIR}/${file}" > "${made}"
    DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/${file}"
    VERBATIM)
  add_custom_target(${file} ALL DEPENDS "${made}")
  install(FILES "${made}" DESTINATION share/man/man1 COMPONENT ${component})
endfunction()

# keyfold_test(NAME SOURCES ... LIBRARIES ... [LABELS ...] [PROPERTIES ...]): a GoogleTest program, each of its tests
# known to CTest by itself, so that a skipped one is told as skipped. Whoever runs them, they get no administrator rights
# but in the sandbox.
function(keyfold_test name)
  cmake_parse_arguments(TEST "" "" "SOURCES;LIBRARIES;LABELS;PROPERTIES" ${ARGN})
  add_executable(${name} ${TEST_SOURCES} "${CMAKE_SOURCE_DIR}/Tests/Support/WithoutRights.cpp")
  keyfold_target(${name})
  target_include_directories(${name} PRIVATE "${CMAKE_SOURCE_DIR}")
  target_link_libraries(${name} PRIVATE ${TEST_LIBRARIES} GTest::gmock_main)
  set(labels)
  if(TEST_LABELS)
    set(labels LABELS ${TEST_LABELS})
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 NO_PRETTY_VALUES
    PROPERTIES TIMEOUT 120 ${labels} ${TEST_PROPERTIES})
endfunction()
