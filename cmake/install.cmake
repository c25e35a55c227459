# What "cmake --install" lays out: the daemon and vxbrdctl (administration
# tools, so sbin), the manual pages, the sample configuration beside the
# configuration file (VXBRD_CONFIG_FILE, an absolute path: /etc on Linux,
# /usr/local/etc on FreeBSD, whatever the prefix), and the service files of
# the platform: an rc.d script and a cron line for the metrics on FreeBSD;
# the systemd unit and the metrics timer elsewhere.
include(GNUInstallDirs)

install(TARGETS vxbrd vxbrdctl RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES app/vxbrd.8 vxbrdctl/vxbrdctl.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES app/vxobrd.conf.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
# Never the live file: an upgrade must not overwrite the operator's configuration.
get_filename_component(vxbrd_config_dir "${VXBRD_CONFIG_FILE}" DIRECTORY)
get_filename_component(vxbrd_config_name "${VXBRD_CONFIG_FILE}" NAME)
install(FILES app/vxobrd.conf.sample DESTINATION ${vxbrd_config_dir}
        RENAME ${vxbrd_config_name}.sample)

# source|destination|mode of each service file.
if(VXBRD_PLATFORM STREQUAL "freebsd")
  set(service_files "dist/freebsd/rc.d/vxbrd|${CMAKE_INSTALL_SYSCONFDIR}/rc.d|755"
                    "dist/freebsd/cron.d/vxbrd-metrics|${CMAKE_INSTALL_DATAROOTDIR}/examples/vxbrd|644")
else()
  set(VXBRD_SYSTEMD_UNIT_DIR lib/systemd/system CACHE STRING
      "where the systemd units go (relative paths are under the prefix)")
  set(service_files "dist/linux/vxbrd.service|${VXBRD_SYSTEMD_UNIT_DIR}|644"
                    "dist/linux/vxbrd-metrics.service|${VXBRD_SYSTEMD_UNIT_DIR}|644"
                    "dist/linux/vxbrd-metrics.timer|${VXBRD_SYSTEMD_UNIT_DIR}|644")
endif()
# The service files name the installed programs and the configuration file,
# so their paths are filled in at install time, from the prefix actually
# installed to.
install(CODE "
  set(vxbrd_source_dir \"${PROJECT_SOURCE_DIR}\")
  set(vxbrd_service_files \"${service_files}\")
  set(vxbrd_sbindir \"${CMAKE_INSTALL_SBINDIR}\")
  set(VXBRD_CONFIG_FILE \"${VXBRD_CONFIG_FILE}\")
  set(vxbrd_work_dir \"${CMAKE_BINARY_DIR}/dist\")
  include(\"${PROJECT_SOURCE_DIR}/cmake/install-service.cmake\")
")
