# tamix_add_layer(NAME DIR dir SOURCES ... HEADERS ... [DEPS ...])
#
# One architectural layer as a static library. Its headers are reachable as
# "dir/Header.h" only through a private include root in the build tree that
# holds links to exactly the listed headers, so a layer that includes a
# header of a layer it does not depend on fails to compile, and a call into
# such a layer fails to link in that layer's own tests. The objects are
# position independent and hidden, ready to be assembled into the shared
# library, which exports only the flat interface.
function(tamix_add_layer name)
  cmake_parse_arguments(L "" "DIR" "SOURCES;HEADERS;DEPS" ${ARGN})
  add_library(${name} STATIC ${L_SOURCES} ${L_HEADERS})
  set(root ${PROJECT_BINARY_DIR}/layers/${name})
  file(REMOVE_RECURSE ${root})
  file(MAKE_DIRECTORY ${root}/${L_DIR})
  foreach(h IN LISTS L_HEADERS)
    file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR}/${h} ${root}/${L_DIR}/${h} SYMBOLIC)
  endforeach()
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${root}>)
  target_link_libraries(${name} PUBLIC ${L_DEPS})
  set_target_properties(${name} PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
endfunction()
