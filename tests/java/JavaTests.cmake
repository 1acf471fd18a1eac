# Java tests: JUnit 5 (Debian's junit5) run by its console launcher under a real JVM with
# -Xcheck:jni, against librepohandler.so from this build. One ctest test (label "java") per
# *Test.java class. Syslog messages of the JVM are captured by SyslogToFile.c, preloaded into it;
# any -Xcheck:jni report ("WARNING ...") fails the test.
if(NOT RH_BUILD_JAVA OR NOT RH_JAR)
  return()
endif()

set(RH_JAVA_LIBS /usr/share/java)
foreach(jar junit-platform-console-standalone junit-jupiter-api junit-jupiter-params
            junit-platform-commons apiguardian-api opentest4j)
  find_file(RH_JAR_${jar} ${jar}.jar PATHS ${RH_JAVA_LIBS} NO_DEFAULT_PATH REQUIRED)
endforeach()

add_library(rh_java_syslog_capture SHARED ${CMAKE_CURRENT_LIST_DIR}/SyslogToFile.c)
target_link_libraries(rh_java_syslog_capture PRIVATE Threads::Threads)

set(RH_JAVA_TEST_DIR ${CMAKE_CURRENT_BINARY_DIR}/java)
file(GLOB RH_JAVA_TEST_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*.java)
set(RH_JAVA_TEST_COMPILE_PATH
    ${RH_JAR} ${RH_JAR_junit-jupiter-api} ${RH_JAR_junit-jupiter-params}
    ${RH_JAR_junit-platform-commons} ${RH_JAR_apiguardian-api} ${RH_JAR_opentest4j})
string(REPLACE ";" ":" RH_JAVA_TEST_COMPILE_PATH "${RH_JAVA_TEST_COMPILE_PATH}")
add_custom_command(
    OUTPUT ${RH_JAVA_TEST_DIR}/classes.stamp
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${RH_JAVA_TEST_DIR}/classes
    COMMAND ${CMAKE_COMMAND} -E make_directory ${RH_JAVA_TEST_DIR}/classes
    COMMAND ${Java_JAVAC_EXECUTABLE} -encoding UTF-8 --release 17 -Xlint:all -Werror
            -cp ${RH_JAVA_TEST_COMPILE_PATH} -d ${RH_JAVA_TEST_DIR}/classes ${RH_JAVA_TEST_SOURCES}
    COMMAND ${CMAKE_COMMAND} -E touch ${RH_JAVA_TEST_DIR}/classes.stamp
    DEPENDS ${RH_JAVA_TEST_SOURCES} ${RH_JAR} repohandler_jni_headers
    COMMENT "Compiling the Java tests"
    VERBATIM)
add_custom_target(repohandler_java_tests ALL
                  DEPENDS ${RH_JAVA_TEST_DIR}/classes.stamp rh_java_syslog_capture repohandler)

file(MAKE_DIRECTORY ${RH_JAVA_TEST_DIR}/locks)
foreach(src ${RH_JAVA_TEST_SOURCES})
  get_filename_component(class ${src} NAME_WE)
  if(NOT class MATCHES "Test$")
    continue()
  endif()
  add_test(NAME java_${class}
           COMMAND ${Java_JAVA_EXECUTABLE} -Xcheck:jni
                   -Djava.library.path=$<TARGET_FILE_DIR:repohandler>
                   -cp ${RH_JAR_junit-platform-console-standalone}:${RH_JAVA_TEST_DIR}/classes:${RH_JAR}
                   org.junit.platform.console.ConsoleLauncher
                   --disable-banner --disable-ansi-colors --details=tree --fail-if-no-tests
                   --select-class=quorra.repohandler.${class})
  set_tests_properties(java_${class} PROPERTIES
      LABELS java
      FAIL_REGULAR_EXPRESSION "WARNING"
      ENVIRONMENT "LD_PRELOAD=$<TARGET_FILE:rh_java_syslog_capture>;RH_SYSLOG_FILE=${RH_JAVA_TEST_DIR}/${class}.syslog;LOCK_VAR=${RH_JAVA_TEST_DIR}/locks")
endforeach()
