# Debian packages, made by packaging/build.sh (which configures the layout they need):
#
#   ipchannel-plugin   the IP channel        /usr/lib/ipchannel/bin/channelPlugins/libtransportIp.so
#   abonent            the messenger         /usr/lib/ipchannel/bin/abonent, /usr/bin/abonent links to it
#   ipchannel-dev      the kit for authors   headers, archives, package descriptions, documents, examples
#
# The programs look for settings/ and data/ beside the directory of the executable; both lead to
# /var/lib/ipchannel, which belongs to root and the members of the group ipchannel. abonent.service is the resident
# of that installation; abonent@NAME.service has one of its own in /var/lib/abonent/NAME, into which the unit mounts
# the program.

set(packagingDir ${PROJECT_SOURCE_DIR}/packaging)
set(packages plugin ipchannel-plugin host abonent development ipchannel-dev)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ipchannel)
set(CPACK_PACKAGE_CONTACT "IP channel maintainers <maintainers@ipchannel.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL plugin host runtime development)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_RUNTIME_GROUP host)
set(CPACK_COMPONENT_HOST_GROUP host)
set(CPACK_COMPONENT_PLUGIN_GROUP plugin)
set(CPACK_COMPONENT_DEVELOPMENT_GROUP development)

set(CPACK_DEBIAN_PLUGIN_PACKAGE_NAME ipchannel-plugin)
set(CPACK_DEBIAN_PLUGIN_PACKAGE_SECTION net)
set(CPACK_COMPONENT_PLUGIN_DESCRIPTION "IP channel of the messaging family
A channel plug-in that connects abonents over TCP. A host program, such as
abonent, loads it at run time.")

set(CPACK_DEBIAN_HOST_PACKAGE_NAME abonent)
set(CPACK_DEBIAN_HOST_PACKAGE_SECTION net)
set(CPACK_DEBIAN_HOST_PACKAGE_DEPENDS "ipchannel-plugin (= ${PROJECT_VERSION}-1), \
systemd | systemd-standalone-sysusers | systemd-sysusers, systemd | systemd-standalone-tmpfiles | systemd-tmpfiles")
set(CPACK_DEBIAN_HOST_PACKAGE_SUGGESTS "logrotate, lnav, prometheus-node-exporter")
set(CPACK_DEBIAN_HOST_PACKAGE_CONTROL_EXTRA ${packagingDir}/postinst ${packagingDir}/prerm ${packagingDir}/postrm
  ${packagingDir}/conffiles)
set(CPACK_COMPONENT_HOST_DESCRIPTION "exchange messages and files between abonents
A console messenger that talks through channel plug-ins. Whoever is to use it
has to be a member of the group ipchannel.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ipchannel-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "qtbase5-dev")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_RECOMMENDS "abonent, cmake, pkg-config, ipchannel-plugin")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "kit for authors of hosts and channel plug-ins
The contract between hosts and channel plug-ins, the runtime that every module
links, the documents, and examples: two channels (loop-back, UNIX sockets) and
a small host.")

# What a package says about itself, and the link by which people call the program.
set(docs ${CMAKE_INSTALL_DATAROOTDIR}/doc)
find_program(GZIP gzip)
if(IPCHANNEL_STATE_DIR AND GZIP)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/packaging)
  execute_process(COMMAND ${GZIP} -9nc ${packagingDir}/changelog.Debian
    OUTPUT_FILE ${PROJECT_BINARY_DIR}/packaging/changelog.Debian.gz)
  set(remaining ${packages})
  while(remaining)
    list(POP_FRONT remaining component package)
    install(FILES packaging/copyright ${PROJECT_BINARY_DIR}/packaging/changelog.Debian.gz
      DESTINATION ${docs}/${package} COMPONENT ${component})
    install(FILES packaging/lintian-overrides DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides
      COMPONENT ${component} RENAME ${package})
  endwhile()

  # The service. One text makes both units: the installation of the machine, and one for each name.
  set(serviceDir ${packagingDir}/service)
  set(built ${PROJECT_BINARY_DIR}/packaging)
  function(configure_unit unit description origin home metrics options installation)
    configure_file(${serviceDir}/abonent.service.in ${built}/${unit} @ONLY)
    install(FILES ${built}/${unit} DESTINATION ${IPCHANNEL_UNIT_DIR} COMPONENT host)
  endfunction()
  set(packagedHome ${CMAKE_INSTALL_PREFIX}/${IPCHANNEL_HOME})
  configure_unit(abonent.service "Абонент" "" ${packagedHome} abonent abonent "ReadWritePaths=${IPCHANNEL_STATE_DIR}")
  string(CONCAT ownInstallation
    "StateDirectory=abonent/%i\nStateDirectoryMode=0750\n"
    "# The program finds settings and data beside the directory that it was started from.\n"
    "BindReadOnlyPaths=${packagedHome}/bin:/var/lib/abonent/%i/bin\n"
    "# Other installations are none of its business.\n"
    "TemporaryFileSystem=/var/lib:ro\nBindPaths=/var/lib/abonent/%i")
  configure_unit(abonent@.service "Абонент %i" ", в установке /var/lib/abonent/%i" /var/lib/abonent/%i %i abonent-%i
    "${ownInstallation}")
  install(FILES ${serviceDir}/abonent.sysusers DESTINATION lib/sysusers.d COMPONENT host RENAME abonent.conf)
  install(FILES ${serviceDir}/abonent.tmpfiles DESTINATION lib/tmpfiles.d COMPONENT host RENAME abonent.conf)
  install(FILES ${serviceDir}/abonent.logrotate DESTINATION /etc/logrotate.d COMPONENT host RENAME abonent)
  install(FILES ${serviceDir}/abonent.lnav.json DESTINATION /etc/lnav/formats/abonent COMPONENT host RENAME abonent.json)
  install(FILES ${serviceDir}/retention.conf DESTINATION ${docs}/abonent/examples COMPONENT host)
  install(PROGRAMS ${serviceDir}/abonent-instance DESTINATION sbin COMPONENT host)
  install(FILES ${serviceDir}/abonent-instance.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT host)
  install(FILES ${serviceDir}/abonent-instance.ru.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/ru/man8 COMPONENT host
    RENAME abonent-instance.8)

  install(CODE "
    set(root \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}\")
    file(GLOB_RECURSE pages \${root}/${CMAKE_INSTALL_MANDIR}/*.[18])
    execute_process(COMMAND ${GZIP} -9nf \${pages} COMMAND_ERROR_IS_FATAL ANY)
    file(MAKE_DIRECTORY \${root}/bin)
    file(CREATE_LINK ../${programDir}/abonent \${root}/bin/abonent SYMBOLIC)
    foreach(name data settings)
      file(CREATE_LINK ${IPCHANNEL_STATE_DIR}/\${name} \${root}/${IPCHANNEL_HOME}/\${name} SYMBOLIC)
    endforeach()" COMPONENT host)
endif()

include(CPack)
