# Manual pages made with help2man from each program's --help and --version
# output, so a page always says what its program says. Off in sanitizer builds:
# running their programs at build time would only add leak reports.
find_program(HELP2MAN_PROGRAM help2man)
if(HELP2MAN_PROGRAM AND NOT VQ_SANITIZE AND NOT VQ_TSAN)
  set(VQ_MANPAGES_DEFAULT ON)
else()
  set(VQ_MANPAGES_DEFAULT OFF)
endif()
option(VQ_BUILD_MANPAGES "Make and install manual pages with help2man" ${VQ_MANPAGES_DEFAULT})
if(VQ_BUILD_MANPAGES AND NOT HELP2MAN_PROGRAM)
  message(FATAL_ERROR "VQ_BUILD_MANPAGES needs help2man (Debian package help2man)")
endif()

# vq_add_manpage(<program> <what it does> [COMMAND <file>] [DEPENDS <target>...])
# Makes <program>.1 in section 1 from <program> --help. <program> is a target,
# or a script given by COMMAND, whose version is then the project's. A target
# that this configuration does not build gets no page.
function(vq_add_manpage program summary)
  cmake_parse_arguments(PARSE_ARGV 2 ARG "" "COMMAND" "DEPENDS")
  if(NOT VQ_BUILD_MANPAGES OR (NOT ARG_COMMAND AND NOT TARGET ${program}))
    return()
  endif()
  set(page ${CMAKE_BINARY_DIR}/man/${program}.1)
  if(ARG_COMMAND)
    set(command ${ARG_COMMAND})
    set(version_option --version-string=${PROJECT_VERSION})
  else()
    set(command $<TARGET_FILE:${program}>)
    set(version_option)
    list(APPEND ARG_DEPENDS ${program})
  endif()
  add_custom_command(
    OUTPUT ${page}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
    COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C.UTF-8 ${HELP2MAN_PROGRAM} --no-info --section=1 "--name=${summary}" ${version_option}
            --output=${page} ${command}
    DEPENDS ${ARG_DEPENDS} ${ARG_COMMAND}
    COMMENT "Manual page ${program}.1"
    VERBATIM)
  add_custom_target(man-${program} ALL DEPENDS ${page})
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endfunction()
