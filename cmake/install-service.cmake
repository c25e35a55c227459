# Runs at install time (from cmake/install.cmake): fills @VXBRD_SBINDIR@ and
# @VXBRD_CONFIG_FILE@ of each service file with full paths (the programs
# under the prefix being installed to, the configuration file where it always
# is), then installs it (DESTDIR applies as usual).
function(vxbrd_full_path variable directory)
  if(IS_ABSOLUTE "${directory}")
    set(${variable} "${directory}" PARENT_SCOPE)
  else()
    set(${variable} "${CMAKE_INSTALL_PREFIX}/${directory}" PARENT_SCOPE)
  endif()
endfunction()

vxbrd_full_path(VXBRD_SBINDIR "${vxbrd_sbindir}")

foreach(entry IN LISTS vxbrd_service_files)
  string(REPLACE "|" ";" fields "${entry}")
  list(GET fields 0 source)
  list(GET fields 1 destination)
  list(GET fields 2 mode)
  vxbrd_full_path(destination "${destination}")
  get_filename_component(name "${source}" NAME)
  configure_file("${vxbrd_source_dir}/${source}" "${vxbrd_work_dir}/${name}" @ONLY)
  if(mode EQUAL 755)
    set(permissions OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
                    WORLD_EXECUTE)
  else()
    set(permissions OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  endif()
  file(INSTALL "${vxbrd_work_dir}/${name}" DESTINATION "${destination}"
       FILE_PERMISSIONS ${permissions})
endforeach()
