# Runs at install time (from cmake/install.cmake): fills @VXBRD_SBINDIR@ and
# @VXBRD_SYSCONFDIR@ of the service file with full paths under the prefix
# being installed to, then installs it (DESTDIR applies as usual).
function(vxbrd_full_path variable directory)
  if(IS_ABSOLUTE "${directory}")
    set(${variable} "${directory}" PARENT_SCOPE)
  else()
    set(${variable} "${CMAKE_INSTALL_PREFIX}/${directory}" PARENT_SCOPE)
  endif()
endfunction()

vxbrd_full_path(VXBRD_SBINDIR "${vxbrd_sbindir}")
vxbrd_full_path(VXBRD_SYSCONFDIR "${vxbrd_sysconfdir}")
vxbrd_full_path(destination "${vxbrd_service_destination}")

get_filename_component(name "${vxbrd_service_source}" NAME)
configure_file("${vxbrd_service_source}" "${vxbrd_work_dir}/${name}" @ONLY)
if(vxbrd_service_mode EQUAL 755)
  set(permissions OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
                  WORLD_EXECUTE)
else()
  set(permissions OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endif()
file(INSTALL "${vxbrd_work_dir}/${name}" DESTINATION "${destination}"
     FILE_PERMISSIONS ${permissions})
