# cmake [-DNAME=VALUE...] -DOUTPUT=FILE -P deployment.cmake: takes a deployment's values as the build does, and makes the
# AppStream metadata with them.
cmake_minimum_required(VERSION 3.25)
set(sources "${CMAKE_CURRENT_LIST_DIR}/../..")
include("${sources}/CMake/KeyfoldDeployment.cmake")
configure_file("${sources}/Packaging/desktop/example.orvane.keyfold.metainfo.xml.in" "${OUTPUT}" @ONLY)
