# What "cmake --install" lays out under the prefix: the daemon and vxbrdctl
# (administration tools, so sbin), the manual pages, the sample configuration
# and the service file of the platform (an rc.d script on FreeBSD, a systemd
# unit elsewhere).
include(GNUInstallDirs)

install(TARGETS vxbrd vxbrdctl RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES app/vxbrd.8 vxbrdctl/vxbrdctl.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES app/vxobrd.conf.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
# Never the live file: an upgrade must not overwrite the operator's configuration.
install(FILES app/vxobrd.conf.sample DESTINATION ${CMAKE_INSTALL_SYSCONFDIR})

if(VXBRD_PLATFORM STREQUAL "freebsd")
  set(service_source dist/freebsd/rc.d/vxbrd)
  set(service_destination ${CMAKE_INSTALL_SYSCONFDIR}/rc.d)
  set(service_mode 755)
else()
  set(VXBRD_SYSTEMD_UNIT_DIR lib/systemd/system CACHE STRING
      "where the systemd unit goes (relative paths are under the prefix)")
  set(service_source dist/linux/vxbrd.service)
  set(service_destination ${VXBRD_SYSTEMD_UNIT_DIR})
  set(service_mode 644)
endif()
# The service file names the installed daemon and configuration, so its paths
# are filled in at install time, from the prefix actually installed to.
install(CODE "
  set(vxbrd_service_source \"${PROJECT_SOURCE_DIR}/${service_source}\")
  set(vxbrd_service_destination \"${service_destination}\")
  set(vxbrd_service_mode ${service_mode})
  set(vxbrd_sbindir \"${CMAKE_INSTALL_SBINDIR}\")
  set(vxbrd_sysconfdir \"${CMAKE_INSTALL_SYSCONFDIR}\")
  set(vxbrd_work_dir \"${CMAKE_BINARY_DIR}/dist\")
  include(\"${PROJECT_SOURCE_DIR}/cmake/install-service.cmake\")
")
