# Installs the "desktop" component into a staging DESTDIR and checks that
# every file lands where the desktop and systemd look for it, that the unit
# starts the installed daemon, and that desktop-file-validate (when present)
# accepts the entries.
file(REMOVE_RECURSE ${STAGE})
execute_process(
  COMMAND ${CMAKE_COMMAND} -E env DESTDIR=${STAGE}
          ${CMAKE_COMMAND} --install ${BUILD_DIR} --component desktop
  RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "cmake --install failed:\n${output}")
endif()

set(applications ${STAGE}${DATADIR}/applications)
set(expected
  ${applications}/halvark.desktop
  ${applications}/halvark-url-handler.desktop
  ${STAGE}${SYSCONFDIR}/xdg/autostart/halvark.desktop
  ${STAGE}${UNITDIR}/halvark.service
  ${STAGE}${DATADIR}/icons/hicolor/scalable/apps/halvark.svg
  ${STAGE}${DATADIR}/icons/hicolor/scalable/status/halvark-syncing.svg
  ${STAGE}${DATADIR}/icons/hicolor/scalable/status/halvark-error.svg)
foreach(file IN LISTS expected)
  if(NOT EXISTS ${file})
    message(FATAL_ERROR "not installed: ${file}\n${output}")
  endif()
endforeach()

file(READ ${STAGE}${UNITDIR}/halvark.service unit)
foreach(line "Type=notify" "ExecStart=${BINDIR}/halvark daemon" "Restart=on-failure")
  string(FIND "${unit}" "\n${line}\n" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "halvark.service lacks \"${line}\":\n${unit}")
  endif()
endforeach()

file(READ ${applications}/halvark-url-handler.desktop handler)
foreach(line "Exec=halvark open-url %u" "MimeType=x-scheme-handler/halvark;")
  string(FIND "${handler}" "\n${line}\n" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "halvark-url-handler.desktop lacks \"${line}\"")
  endif()
endforeach()

if(VALIDATE)
  foreach(entry ${applications}/halvark.desktop ${applications}/halvark-url-handler.desktop
                ${STAGE}${SYSCONFDIR}/xdg/autostart/halvark.desktop)
    execute_process(COMMAND ${VALIDATE} ${entry}
                    RESULT_VARIABLE status OUTPUT_VARIABLE report ERROR_VARIABLE report)
    if(NOT status EQUAL 0 OR NOT report STREQUAL "")
      message(FATAL_ERROR "desktop-file-validate ${entry}:\n${report}")
    endif()
  endforeach()
endif()
file(REMOVE_RECURSE ${STAGE})
