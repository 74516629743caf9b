# Runs at install time with the final prefix: writes the systemd units and
# the log rotation rule with this installation's paths. Units go where
# systemd looks for them (PREFIX/lib/systemd/system: /usr/local/lib/... and
# /usr/lib/... are both on its path), the rule to PREFIX/etc, or /etc for
# the prefixes / and /usr.
set(prefix "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/+$" "" prefix "${prefix}")
if(prefix STREQUAL "" OR prefix STREQUAL "/usr")
  set(etc /etc)
else()
  set(etc "${prefix}/etc")
endif()
set(VS_BINDIR "${prefix}/bin")
set(VS_LIBEXECDIR "${prefix}/libexec/video-server")
set(VS_LOGROTATE_RULE "${etc}/logrotate.d/video-server")

set(units "")
foreach(unit video-server.service video-server-health.service video-server-health.timer
             video-server-logrotate.service video-server-logrotate.timer)
  if(EXISTS "${VS_DEPLOY_SOURCE}/${unit}.in")
    configure_file("${VS_DEPLOY_SOURCE}/${unit}.in" "${VS_DEPLOY_WORK}/${unit}" @ONLY)
  else()
    configure_file("${VS_DEPLOY_SOURCE}/${unit}" "${VS_DEPLOY_WORK}/${unit}" COPYONLY)
  endif()
  list(APPEND units "${VS_DEPLOY_WORK}/${unit}")
endforeach()
file(INSTALL ${units} DESTINATION "${prefix}/lib/systemd/system")
file(INSTALL "${VS_DEPLOY_SOURCE}/logrotate" DESTINATION "${etc}/logrotate.d" RENAME video-server)
