# A room is a folder of the tree that is a library of its own. Its headers are included by their path from the top of
# the tree ("apps/recorder/base/Units.h"), and only those who link the room can: the include directory that it passes
# on holds a link to its folder and to nothing else, and no target has the top of the tree among its include
# directories. So an include against the arrows (docs/DESIGN.md, "Rooms") does not build.
function(room_headers target)
  set(view ${PROJECT_BINARY_DIR}/rooms/${target})
  foreach(path IN LISTS ARGN)  # folders or single headers, from the top of the tree
    cmake_path(GET path PARENT_PATH parent)
    file(MAKE_DIRECTORY ${view}/${parent})
    file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${path} ${view}/${path} SYMBOLIC)
  endforeach()
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${view}>)
endfunction()

# room(NAME STATIC|OBJECT SOURCES ... LINKS ...) makes the room of the folder in which it is called.
function(room name kind)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS" ${ARGN})
  add_library(${name} ${kind} ${ARG_SOURCES})
  target_link_libraries(${name} PUBLIC ${ARG_LINKS} PRIVATE fmgr_options)
  cmake_path(RELATIVE_PATH CMAKE_CURRENT_SOURCE_DIR BASE_DIRECTORY ${PROJECT_SOURCE_DIR} OUTPUT_VARIABLE folder)
  room_headers(${name} ${folder})
endfunction()
