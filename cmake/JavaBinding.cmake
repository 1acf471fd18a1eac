# Java binding: compiles the quorra.repohandler classes into repohandler.jar and generates the
# JNI header of RepositoryHandlerBase from them (javac -h). The native sources include that
# header, so a native whose signature no longer matches its Java declaration fails to compile.
#
# Sets for the including scope:
#   RH_JNI_SOURCES      the native sources (binding/*.cpp), compiled into librepohandler.so
#   RH_JNI_HEADER_DIR   the folder of the generated header
#   RH_JAR              the jar holding the Java classes
# and defines the target repohandler_jni_headers, which produces the header and the jar.

file(GLOB RH_JNI_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/../binding/*.cpp)
file(GLOB RH_JAVA_SOURCES CONFIGURE_DEPENDS
     ${CMAKE_CURRENT_LIST_DIR}/../binding/java/quorra/repohandler/*.java)

set(RH_JNI_HEADER_DIR ${CMAKE_BINARY_DIR}/binding/jni)
set(RH_JAVA_CLASS_DIR ${CMAKE_BINARY_DIR}/binding/classes)
set(RH_JAR ${CMAKE_BINARY_DIR}/repohandler.jar)
set(RH_JNI_HEADER ${RH_JNI_HEADER_DIR}/quorra_repohandler_RepositoryHandlerBase.h)

# The class folder is emptied first so that a deleted Java source leaves no class behind.
add_custom_command(
    OUTPUT ${RH_JNI_HEADER} ${RH_JAR}
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${RH_JAVA_CLASS_DIR} ${RH_JNI_HEADER_DIR}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${RH_JAVA_CLASS_DIR} ${RH_JNI_HEADER_DIR}
    COMMAND ${Java_JAVAC_EXECUTABLE} -encoding UTF-8 --release 17 -Xlint:all -Werror
            -d ${RH_JAVA_CLASS_DIR} -h ${RH_JNI_HEADER_DIR} ${RH_JAVA_SOURCES}
    COMMAND ${Java_JAR_EXECUTABLE} cf ${RH_JAR} -C ${RH_JAVA_CLASS_DIR} .
    DEPENDS ${RH_JAVA_SOURCES}
    COMMENT "Compiling the Java binding classes and generating their JNI header"
    VERBATIM)
add_custom_target(repohandler_jni_headers DEPENDS ${RH_JNI_HEADER} ${RH_JAR})

install(FILES ${RH_JAR} DESTINATION ${CMAKE_INSTALL_DATADIR}/java)

# The binding's benchmark: getLocationNative from a Java loop against getLocation_ called from
# C++ on the same repository, both through the shared library (bench/java/run drives it).
if(RH_BUILD_BENCH)
  set(RH_JAVA_BENCH_DIR ${CMAKE_BINARY_DIR}/bench/java)
  add_executable(getlocation_direct ${CMAKE_CURRENT_LIST_DIR}/../bench/java/getlocation_direct.cpp)
  target_link_libraries(getlocation_direct PRIVATE repohandler)
  target_include_directories(getlocation_direct PRIVATE ${RH_INCLUDE_DIRS})
  set_target_properties(getlocation_direct PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${RH_JAVA_BENCH_DIR})
  file(GLOB RH_JAVA_BENCH_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/../bench/java/*.java)
  add_custom_command(
      OUTPUT ${RH_JAVA_BENCH_DIR}/classes.stamp
      COMMAND ${CMAKE_COMMAND} -E make_directory ${RH_JAVA_BENCH_DIR}/classes
      COMMAND ${Java_JAVAC_EXECUTABLE} -encoding UTF-8 --release 17 -cp ${RH_JAR}
              -d ${RH_JAVA_BENCH_DIR}/classes ${RH_JAVA_BENCH_SOURCES}
      COMMAND ${CMAKE_COMMAND} -E touch ${RH_JAVA_BENCH_DIR}/classes.stamp
      DEPENDS ${RH_JAVA_BENCH_SOURCES} ${RH_JAR}
      COMMENT "Compiling the Java binding benchmark"
      VERBATIM)
  add_custom_target(repohandler_java_bench ALL
                    DEPENDS ${RH_JAVA_BENCH_DIR}/classes.stamp getlocation_direct repohandler)
endif()
