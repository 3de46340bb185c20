# How a channel plug-in is built: its symbols stay its own, whatever program loads it. Also part of the
# installed kit, where find_package(ipChannel) brings it.

# add_channel_kind(name SOURCES ... [LINK ...])
#
# Makes the plug-in lib<name>.so over the contract and the runtime. It shows the four entries and no more.
function(add_channel_kind name)
  cmake_parse_arguments(kind "" "" "SOURCES;LINK" ${ARGN})
  foreach(library IN LISTS kind_LINK) # Qt5::Network is in the package Qt5Network
    if(library MATCHES "^Qt5::(.+)$" AND NOT TARGET ${library})
      find_package(Qt5 5.15 REQUIRED COMPONENTS ${CMAKE_MATCH_1})
    elseif(library MATCHES "::" AND NOT TARGET ${library})
      message(FATAL_ERROR "add_channel_kind(${name} LINK ${library}): there is no such target yet. Call find_package() of "
        "the package that brings it before.")
    endif()
  endforeach()
  add_library(${name} MODULE ${kind_SOURCES})
  set_target_properties(${name} PROPERTIES
    AUTOMOC ON
    PREFIX lib
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  target_link_libraries(${name} PRIVATE ${kind_LINK} ipChannel::interfaces ipChannel::common)
  keep_symbols_apart(${name} ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/channel.map)
endfunction()

# Limits what a plug-in shows to a list, a version script.
function(keep_symbols_apart target exportList)
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${exportList})
  target_link_options(${target} PRIVATE
    LINKER:--version-script=${exportList}
    # Our calls and our state stay ours, also in a host that exports its symbols.
    LINKER:-Bsymbolic
    # A worker that could not be ended may still be executing our code when the host lets go of us.
    LINKER:-z,nodelete)
  if(NOT IPCHANNEL_SANITIZE AND NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
    target_link_options(${target} PRIVATE LINKER:--no-undefined)
  endif()
endfunction()
