# find_package(Keyfold): the target Keyfold::KFWizard, which a page links, and keyfold_page().
include(CMakeFindDependencyMacro)
find_dependency(Qt6 COMPONENTS Widgets)
include("${CMAKE_CURRENT_LIST_DIR}/KeyfoldTargets.cmake")

# keyfold_page(NAME SOURCES ... RESOURCES ...): builds the bundle NAME.bundle, which `keyfold --bundle` takes, in the
# binary directory. The resources hold the page's interface file.
function(keyfold_page name)
  cmake_parse_arguments(PAGE "" "" "SOURCES;RESOURCES" ${ARGN})
  set(contents "${CMAKE_CURRENT_BINARY_DIR}/${name}.bundle/Contents")
  add_library(${name} MODULE ${PAGE_SOURCES})
  target_link_libraries(${name} PRIVATE Keyfold::KFWizard)
  target_compile_features(${name} PRIVATE cxx_std_20)
  # The wizard has loaded its libraries by then.
  set_target_properties(${name} PROPERTIES
    PREFIX "" SUFFIX "" LIBRARY_OUTPUT_DIRECTORY "${contents}/Linux" SKIP_BUILD_RPATH ON)
  foreach(resource IN LISTS PAGE_RESOURCES)
    get_filename_component(file "${resource}" NAME)
    configure_file("${resource}" "${contents}/Resources/${file}" COPYONLY)
  endforeach()
endfunction()
