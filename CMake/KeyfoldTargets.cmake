# How this project's targets are made.

# keyfold_target(NAME): the settings that every target of ours shares.
function(keyfold_target name)
  target_link_libraries(${name} PRIVATE keyfold_settings)
endfunction()

# keyfold_shared_library(NAME): a library that programs and bundles share, in a folder of its own where it is installed.
function(keyfold_shared_library name)
  keyfold_target(${name})
  set_target_properties(${name} PROPERTIES INSTALL_RPATH "$ORIGIN")
  install(TARGETS ${name} LIBRARY DESTINATION lib/keyfold)
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
