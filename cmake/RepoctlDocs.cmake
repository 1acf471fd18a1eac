# repoctl's manual page and bash completion. The page is written from `repoctl help` and
# `repoctl help COMMAND` after every link of repoctl, so it lists exactly the program's commands;
# the completion asks the installed repoctl the same questions when it runs.

set(RH_REPOCTL_MAN ${CMAKE_BINARY_DIR}/man/repoctl.1)
add_custom_command(
    OUTPUT ${RH_REPOCTL_MAN}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
    COMMAND ${CMAKE_SOURCE_DIR}/tools/repoctl-manpage.sh $<TARGET_FILE:repoctl> ${PROJECT_VERSION}
            ${RH_REPOCTL_MAN}
    DEPENDS repoctl ${CMAKE_SOURCE_DIR}/tools/repoctl-manpage.sh
    COMMENT "Writing the manual page repoctl(1) from repoctl's help"
    VERBATIM)
add_custom_target(repoctl_manpage ALL DEPENDS ${RH_REPOCTL_MAN})

install(FILES ${RH_REPOCTL_MAN} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_SOURCE_DIR}/tools/repoctl.bash-completion
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME repoctl)
