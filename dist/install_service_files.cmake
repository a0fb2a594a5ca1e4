# Runs at install time: fills the unit and tmpfiles templates with the paths
# of the prefix being installed to, then installs them.
set(prefix "${CMAKE_INSTALL_PREFIX}")
set(BINDIR "${prefix}/${MEND_INSTALL_BINDIR}")
# Configuration and state of a /usr install live in /etc and /var, as the
# system's own do; any other prefix keeps them below itself.
if(prefix STREQUAL "/usr")
  set(SYSCONFDIR "/etc")
  set(LOCALSTATEDIR "/var")
else()
  set(SYSCONFDIR "${prefix}/etc")
  set(LOCALSTATEDIR "${prefix}/var")
endif()

function(mend_install_template template destination)
  get_filename_component(name "${template}" NAME_WLE)
  configure_file("${MEND_DIST_SOURCE_DIR}/${template}" "${MEND_DIST_WORK_DIR}/${name}" @ONLY)
  file(INSTALL "${MEND_DIST_WORK_DIR}/${name}" DESTINATION "${prefix}/${destination}")
endfunction()

foreach(unit mend mend-async mend-boot-completed)
  mend_install_template(systemd/${unit}.service.in "${MEND_SYSTEMD_UNIT_DIR}")
endforeach()
mend_install_template(tmpfiles.d/mend.conf.in "${MEND_TMPFILES_DIR}")
