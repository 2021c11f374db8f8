# The JUnit suite of palomir-java, included from bindings/java/CMakeLists.txt
# once the jar and the JNI library are targets.
find_jar(_junit_console junit-platform-console-standalone PATHS /usr/share/java)
find_package(Python3 COMPONENTS Interpreter)
if(NOT _junit_console OR NOT Python3_Interpreter_FOUND)
  message(STATUS "palomir: JUnit 5 console launcher (Debian junit5) not found, the Java tests are not built")
  return()
endif()

file(GLOB _java_tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/io/palomir/*.java)
add_jar(palomir-java-tests SOURCES ${_java_tests} INCLUDE_JARS palomir-java-jar ${_junit_console}
        OUTPUT_NAME palomir-tests)
add_dependencies(palomir-java-tests palomir-sandbox)

# A JVM cannot load a sanitizer-instrumented library without LD_PRELOAD of
# the runtime, which then checks the whole JVM; the Java tests run in the
# plain debug build only.
if(CMAKE_CXX_FLAGS MATCHES "sanitize")
  return()
endif()

get_target_property(_jar palomir-java-jar JAR_FILE)
get_target_property(_tests_jar palomir-java-tests JAR_FILE)
set(_runner ${PROJECT_SOURCE_DIR}/tests/capi/run_against_sandbox.py)
# Each concern runs in a JVM and against a sandbox of its own: the client is
# one per process, and what one class leaves held (a configuration, user
# credentials) would change what the next one sees.
# The leak test wants answers from memory: the same scenario, whose
# configuration stays valid for an hour.
file(READ ${CMAKE_CURRENT_LIST_DIR}/scenario.json _scenario_text)
string(REPLACE "\"next_checkin_after_seconds\": 0" "\"next_checkin_after_seconds\": 3600" _held "${_scenario_text}")
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/scenario-held.json "${_held}")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/scenario.json)
foreach(concern CheckinTest ServicesTest FeedbackTest LeakTest)
  set(_scenario ${CMAKE_CURRENT_LIST_DIR}/scenario.json)
  if(concern STREQUAL "LeakTest")
    set(_scenario ${CMAKE_CURRENT_BINARY_DIR}/scenario-held.json)
  endif()
  add_test(NAME java.${concern}
           COMMAND ${Python3_EXECUTABLE} ${_runner} $<TARGET_FILE:palomir-sandbox> ${_scenario}
                   -- ${Java_JAVA_EXECUTABLE} -Xcheck:jni -Xmx256m -Djava.library.path=$<TARGET_FILE_DIR:palomir-java>
                      -Dpalomir.baseUrl={base_url} -Dpalomir.caFile={ca_file} -Dpalomir.bundleDir={bundle_dir}
                      -Djavax.net.ssl.trustStore={trust_store} -Djavax.net.ssl.trustStorePassword=sandbox
                      -cp ${_jar}:${_tests_jar}:${_junit_console} org.junit.platform.console.ConsoleLauncher
                      --disable-banner --fail-if-no-tests --details=summary --select-class io.palomir.${concern}
           WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
  set_tests_properties(java.${concern} PROPERTIES TIMEOUT 180 LABELS "java;sandbox")
endforeach()

# The Java example host, run from source against the soft-lockdown scenario.
add_test(NAME java.example_checkin
         COMMAND ${Python3_EXECUTABLE} ${_runner} $<TARGET_FILE:palomir-sandbox>
                 ${PROJECT_SOURCE_DIR}/examples/scenarios/soft-lockdown.json
                 --expect "lockdown: SOFT" --expect "version: 2024.05.2"
                 -- ${Java_JAVA_EXECUTABLE} -Xcheck:jni -Djava.library.path=$<TARGET_FILE_DIR:palomir-java> -cp ${_jar}
                    ${PROJECT_SOURCE_DIR}/examples/java/Checkin.java {base_url} {ca_file} {bundle_dir} {token} {secret})
set_tests_properties(java.example_checkin PROPERTIES TIMEOUT 120 LABELS "java;sandbox")
