# What is installed where, and the kit for authors of hosts and other channels.
#
#   PREFIX/HOME/bin/abonent                              component host
#   PREFIX/HOME/bin/checkPlugins/libobserver.so          component host
#   PREFIX/HOME/bin/channelPlugins/libtransportIp.so     component plugin
#   PREFIX/HOME/settings, PREFIX/HOME/data               made by the programs, beside bin/
#   PREFIX/share/man, PREFIX/share/bash-completion       component host: made by the program
#   PREFIX/share/doc/abonent                             component runtime: what every installation has
#   PREFIX/include/ipChannel                             component development, as are the next
#   PREFIX/lib/libipchannel-*.a, lib/cmake/ipChannel, lib/pkgconfig
#   PREFIX/share/doc/ipchannel-dev                       documents and examples
#
# HOME is IPCHANNEL_HOME, mostly empty. The tree may be moved as a whole: nothing in it is absolute.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

option(IPCHANNEL_INSTALL "Make the rules for installing and packaging" ${PROJECT_IS_TOP_LEVEL})
set(IPCHANNEL_HOME "" CACHE STRING "Directory below the prefix that holds bin/, settings/ and data/; empty: the prefix")
set(IPCHANNEL_STATE_DIR "" CACHE STRING "Absolute directory that settings/ and data/ link to; empty: no links")
set(IPCHANNEL_UNIT_DIR /lib/systemd/system CACHE STRING "Where the packages have units of systemd")

set(headerDir include/ipChannel)
set(programDir bin)
if(IPCHANNEL_HOME)
  set(programDir ${IPCHANNEL_HOME}/bin)
endif()
set(pluginDir ${programDir}/channelPlugins)
set(configDir ${CMAKE_INSTALL_LIBDIR}/cmake/ipChannel)
set(developmentDocDir ${CMAKE_INSTALL_DATAROOTDIR}/doc/ipchannel-dev)

# The headers that strangers include: the contract, the runtime behind its doors, the records.
file(GLOB IPCHANNEL_PUBLIC_HEADERS RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/interfaces/*.h)
foreach(room
    csettings csysteminfo debugdata devicewrite directorylayout emergencylog entrynaming environment exports
    filepermissions functiontrace global initext logger logwriter namefilter processwide safesaving secrecy
    settingsimage settingskeys terminationguard textformat)
  list(APPEND IPCHANNEL_PUBLIC_HEADERS common/${room}.h)
endforeach()
list(APPEND IPCHANNEL_PUBLIC_HEADERS transportIp/ipsettings.h)

# Our own modules link objects, all of them; strangers link archives, which give what is used.
find_package(Threads REQUIRED)
function(add_kit_archive kit)
  add_library(ipChannel_${kit} STATIC $<TARGET_OBJECTS:${kit}Objects>)
  add_library(ipChannel::${kit} ALIAS ipChannel_${kit})
  set_target_properties(ipChannel_${kit} PROPERTIES
    LINKER_LANGUAGE CXX
    EXPORT_NAME ${kit}
    OUTPUT_NAME ipchannel-${kit})
  target_compile_features(ipChannel_${kit} INTERFACE cxx_std_11)
  target_include_directories(ipChannel_${kit} INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<INSTALL_INTERFACE:${headerDir}>)
  target_link_libraries(ipChannel_${kit} INTERFACE ${ARGN})
endfunction()
add_kit_archive(interfaces Qt5::Core)
add_kit_archive(common Qt5::Core Threads::Threads)
add_kit_archive(ipsettings ipChannel_common)

if(NOT IPCHANNEL_INSTALL)
  return()
endif()

# Programs.
install(TARGETS abonent RUNTIME DESTINATION ${programDir} COMPONENT host)
# The observer of `abonent check --host`. Not among the channels: it is none to talk through.
install(TARGETS observer LIBRARY DESTINATION ${programDir}/checkPlugins COMPONENT host)
install(TARGETS transportIp LIBRARY DESTINATION ${pluginDir} COMPONENT plugin)
set(hostDocuments ${PROJECT_BINARY_DIR}/host)
install(FILES ${hostDocuments}/abonent.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT host)
install(FILES ${hostDocuments}/abonent.ru.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/ru/man1 COMPONENT host RENAME abonent.1)
install(FILES ${hostDocuments}/abonent.bash DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions
  COMPONENT host RENAME abonent)
install(DIRECTORY docs/ru/ DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/abonent COMPONENT runtime FILES_MATCHING PATTERN *.md)

# The kit.
foreach(header IN LISTS IPCHANNEL_PUBLIC_HEADERS)
  cmake_path(GET header PARENT_PATH folder)
  install(FILES ${header} DESTINATION ${headerDir}/${folder} COMPONENT development)
endforeach()
install(TARGETS ipChannel_interfaces ipChannel_common ipChannel_ipsettings EXPORT ipChannelTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
# Debug information would name the place of the build, and make ten times the size.
if(CMAKE_STRIP)
  install(CODE "
    file(GLOB archives \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/libipchannel-*.a\")
    execute_process(COMMAND ${CMAKE_STRIP} --strip-debug --enable-deterministic-archives \${archives} COMMAND_ERROR_IS_FATAL ANY)"
    COMPONENT development)
endif()
install(EXPORT ipChannelTargets NAMESPACE ipChannel:: DESTINATION ${configDir} COMPONENT development)
install(DIRECTORY examples DESTINATION ${developmentDocDir} COMPONENT development)
install(DIRECTORY docs/ DESTINATION ${developmentDocDir} COMPONENT development FILES_MATCHING PATTERN *.md PATTERN *.svg PATTERN *.csv)

# The package's description, once for the installed tree and once for the build tree, where -DipChannel_DIR=BUILD/cmake
# finds it.
set(built ${PROJECT_BINARY_DIR}/cmake)
configure_package_config_file(cmake/ipChannelConfig.cmake.in ${built}/installed/ipChannelConfig.cmake
  INSTALL_DESTINATION ${configDir} PATH_VARS pluginDir)
write_basic_package_version_file(${built}/ipChannelConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${built}/installed/ipChannelConfig.cmake ${built}/ipChannelConfigVersion.cmake
  cmake/ChannelKind.cmake cmake/channel.map
  DESTINATION ${configDir} COMPONENT development)

block()
  set(pluginDir bin/channelPlugins)
  configure_package_config_file(cmake/ipChannelConfig.cmake.in ${built}/ipChannelConfig.cmake
    INSTALL_DESTINATION ${built} INSTALL_PREFIX ${PROJECT_BINARY_DIR} PATH_VARS pluginDir)
endblock()
configure_file(cmake/ChannelKind.cmake ${built}/ChannelKind.cmake COPYONLY)
configure_file(cmake/channel.map ${built}/channel.map COPYONLY)
export(EXPORT ipChannelTargets NAMESPACE ipChannel:: FILE ${built}/ipChannelTargets.cmake)

# The same for pkg-config. ipchannel-kind is for plug-ins: it adds the flags of add_channel_kind().
file(RELATIVE_PATH up /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" up ${up})
set(pcPrefix "\${pcfiledir}/${up}")
function(install_pc pcName pcDescription pcRequires pcFlags pcLibraries)
  configure_file(cmake/ipchannel.pc.in ${built}/ipchannel-${pcName}.pc @ONLY)
  install(FILES ${built}/ipchannel-${pcName}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endfunction()
install_pc(interfaces "Contract between hosts and channel plug-ins" Qt5Core "-I\${includedir} -fPIC" "-L\${libdir} -lipchannel-interfaces")
install_pc(common "Runtime of hosts and channel plug-ins: log, settings, files" Qt5Core "-I\${includedir} -fPIC -pthread"
  "-L\${libdir} -lipchannel-common -pthread")
install_pc(ipsettings "Byte records of the IP channel" ipchannel-common "" "-L\${libdir} -lipchannel-ipsettings")
install_pc(kind "What a channel plug-in is built with" "ipchannel-interfaces ipchannel-common" ""
  "-shared -Wl,--version-script=\${libdir}/cmake/ipChannel/channel.map -Wl,-Bsymbolic -Wl,-z,nodelete -Wl,--no-undefined")

include(${CMAKE_CURRENT_LIST_DIR}/Packages.cmake)
