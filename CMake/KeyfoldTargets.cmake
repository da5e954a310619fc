# How this project's targets are made.

# keyfold_target(NAME): the settings that every target of ours shares.
function(keyfold_target name)
  target_link_libraries(${name} PRIVATE keyfold_settings)
endfunction()

# keyfold_test(NAME SOURCES ... LIBRARIES ... [LABELS ...] [PROPERTIES ...]): a GoogleTest program, each of its tests
# known to CTest by itself, so that a skipped one is told as skipped.
function(keyfold_test name)
  cmake_parse_arguments(TEST "" "" "SOURCES;LIBRARIES;LABELS;PROPERTIES" ${ARGN})
  add_executable(${name} ${TEST_SOURCES})
  keyfold_target(${name})
  target_include_directories(${name} PRIVATE "${CMAKE_SOURCE_DIR}")
  target_link_libraries(${name} PRIVATE ${TEST_LIBRARIES} GTest::gmock_main)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT 120 LABELS "${TEST_LABELS}" ${TEST_PROPERTIES})
endfunction()
