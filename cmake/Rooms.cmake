# A room is a folder, a static library and a list of the rooms that it may use.
#
#   ostrel_room(audit_rules USES audit_channels edr util LINKS PkgConfig::AUDIT)
#
# The floor of each room stands in one table. A room may use rooms of its own floor group below it only:
# the check runs when CMake configures, so that a wrong arrow never reaches a compiler.

# Floors from the ground up.
set(OSTREL_FLOORS
    util:0 config:1 tasks:1 storage:2 http:2 edr:3 health:3 process:4
    audit_channels:5 audit_events:5 audit_rules:6 audit_routing:6 audit_parser:6 fim:6 audit_engine:7
    ioc_config:4 ioc_process:5 ioc_rules:6 ioc_protobuf:6 ioc_engines:7 ioc:8
    manifest_check:9
    host:9)

function(_ostrel_floor room out)
  foreach(entry IN LISTS OSTREL_FLOORS)
    if(entry MATCHES "^${room}:([0-9]+)$")
      set(${out} ${CMAKE_MATCH_1} PARENT_SCOPE)
      return()
    endif()
  endforeach()
  message(FATAL_ERROR "Room '${room}' has no floor: add it to OSTREL_FLOORS in cmake/Rooms.cmake")
endfunction()

# The part of the program that a room belongs to when it keeps to itself: audit, fim or ioc; empty for all others.
function(_ostrel_part room out)
  string(REGEX MATCH "^(audit|fim|ioc)" part "${room}")
  set(${out} "${part}" PARENT_SCOPE)
endfunction()

function(_ostrel_check_arrow from to)
  _ostrel_floor(${from} from_floor)
  _ostrel_floor(${to} to_floor)
  if(NOT to_floor LESS from_floor)
    message(FATAL_ERROR "Room '${from}' may not use room '${to}': it does not stand below it")
  endif()
  _ostrel_part(${from} from_part)
  _ostrel_part(${to} to_part)
  if(from_part AND to_part AND NOT from_part STREQUAL to_part)
    message(FATAL_ERROR "Rooms '${from}' and '${to}' meet only through the abstract classes of src/edr")
  endif()
endfunction()

function(ostrel_room name)
  cmake_parse_arguments(ROOM "" "" "USES;LINKS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS *.cpp)
  list(FILTER sources EXCLUDE REGEX "/main\\.cpp$")
  add_library(ostrel_${name} STATIC ${sources})
  foreach(used IN LISTS ROOM_USES)
    _ostrel_check_arrow(${name} ${used})
    target_link_libraries(ostrel_${name} PUBLIC ostrel_${used})
  endforeach()
  target_link_libraries(ostrel_${name} PUBLIC ${ROOM_LINKS} Threads::Threads)
  set_property(TARGET ostrel_${name} PROPERTY OSTREL_USES "${ROOM_USES}")
  set_property(GLOBAL APPEND PROPERTY OSTREL_ROOMS "${name}")
  file(RELATIVE_PATH folder "${CMAKE_SOURCE_DIR}" "${CMAKE_CURRENT_SOURCE_DIR}")
  set_property(GLOBAL PROPERTY "OSTREL_ROOM_OF_${folder}" "${name}")
endfunction()

# The room of a folder: of the nearest folder at or above it that is a room's; empty for what belongs to none.
function(_ostrel_room_of folder out)
  set(room "")
  while(folder AND NOT folder STREQUAL "/" AND NOT room)
    get_property(room GLOBAL PROPERTY "OSTREL_ROOM_OF_${folder}")
    cmake_path(GET folder PARENT_PATH folder)
  endwhile()
  set(${out} "${room}" PARENT_SCOPE)
endfunction()

# A room itself and all that it may use, directly or through others.
function(_ostrel_reachable name out)
  set(reachable "${name}")
  set(queue "${name}")
  while(queue)
    list(POP_FRONT queue current)
    get_property(uses TARGET ostrel_${current} PROPERTY OSTREL_USES)
    foreach(used IN LISTS uses)
      if(NOT used IN_LIST reachable)
        list(APPEND reachable ${used})
        list(APPEND queue ${used})
      endif()
    endforeach()
  endwhile()
  set(${out} "${reachable}" PARENT_SCOPE)
endfunction()

function(_ostrel_check_includes name dir reachable)
  file(GLOB_RECURSE sources "${dir}/*.cpp" "${dir}/*.h")
  foreach(source IN LISTS sources)
    cmake_path(RELATIVE_PATH source BASE_DIRECTORY "${CMAKE_SOURCE_DIR}" OUTPUT_VARIABLE folder)
    cmake_path(GET folder PARENT_PATH folder)
    _ostrel_room_of("${folder}" owner)
    if(NOT owner STREQUAL name)
      continue()  # another room within this folder
    endif()
    file(STRINGS "${source}" includes REGEX "^[ \t]*#[ \t]*include[ \t]*(\"|<(common|src|tests|tools)/)")
    foreach(line IN LISTS includes)
      string(REGEX REPLACE "^[^\"<]*[\"<]([^\">]*)[\">].*" "\\1" header "${line}")
      cmake_path(GET header PARENT_PATH folder)
      _ostrel_room_of("${folder}" other)
      if(NOT other IN_LIST reachable OR line MATCHES "<")
        message(FATAL_ERROR "${source}: ${line}\nRoom '${name}' does not name the room of this header.")
      endif()
    endforeach()
  endforeach()
endfunction()

# A library of another room comes in through USES only, so that its arrow is checked.
function(_ostrel_check_links name)
  get_property(uses TARGET ostrel_${name} PROPERTY OSTREL_USES)
  foreach(property LINK_LIBRARIES INTERFACE_LINK_LIBRARIES)
    get_property(libraries TARGET ostrel_${name} PROPERTY ${property})
    foreach(library IN LISTS libraries)
      if(library MATCHES "ostrel_([a-z_]+)" AND NOT CMAKE_MATCH_1 IN_LIST uses)
        message(FATAL_ERROR "Room '${name}' links ${library}, which it does not name under USES")
      endif()
    endforeach()
  endforeach()
endfunction()

# Includes and links are arrows too: a room that includes or links what it does not name, directly or through a room
# that it uses, fails here.
function(ostrel_check_rooms)
  get_property(rooms GLOBAL PROPERTY OSTREL_ROOMS)
  foreach(name IN LISTS rooms)
    get_property(dir TARGET ostrel_${name} PROPERTY SOURCE_DIR)
    _ostrel_reachable(${name} reachable)
    _ostrel_check_includes(${name} "${dir}" "${reachable}")
    _ostrel_check_links(${name})
  endforeach()
endfunction()
