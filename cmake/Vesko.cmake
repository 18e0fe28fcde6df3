# Flags and helper functions shared by every room.

add_library(vesko_flags INTERFACE)
target_compile_options(vesko_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Werror
  # Test bodies drive main-thread objects on the test's own thread; the run-time assertion checks it.
  $<$<NOT:$<BOOL:$<TARGET_PROPERTY:VESKO_TEST>>>:-Wthread-safety>
  -fno-omit-frame-pointer)
target_include_directories(vesko_flags INTERFACE ${PROJECT_SOURCE_DIR}/src)

# Sanitizers cover the libraries' inline code too, so they are global rather than per target.
if(VESKO_SANITIZE)
  add_compile_options(-fsanitize=${VESKO_SANITIZE} -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VESKO_SANITIZE})
endif()
if(VESKO_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# vesko_library(NAME SOURCES ... LIBS ...): one room, or one part of a room.
function(vesko_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;LIBS" ${ARGN})
  add_library(${name} STATIC ${arg_SOURCES})
  target_link_libraries(${name} PUBLIC vesko_flags ${arg_LIBS})
endfunction()

# vesko_test(NAME [DESKTOP] SOURCES ... LIBS ... [ARGS ...] [TIMEOUT seconds])
# DESKTOP runs the test inside a private X server, window manager, session bus and HOME.
function(vesko_test name)
  cmake_parse_arguments(arg "DESKTOP" "TIMEOUT" "SOURCES;LIBS;ARGS" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LIBS} vesko_fakes GTest::gtest GTest::gtest_main)
  set_target_properties(${name} PROPERTIES VESKO_TEST ON)
  set(command $<TARGET_FILE:${name}> ${arg_ARGS})
  if(arg_DESKTOP)
    set(command ${PROJECT_SOURCE_DIR}/scripts/with-desktop ${command})
  endif()
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 120)
  endif()
  add_test(NAME ${name} COMMAND ${command})
  set_tests_properties(${name} PROPERTIES TIMEOUT ${arg_TIMEOUT})
endfunction()

# vesko_fuzz_target(NAME SOURCES ... LIBS ... [CORPUS directory])
# The test is a short bounded run over the seed corpus; run the binary by hand for longer ones.
function(vesko_fuzz_target name)
  cmake_parse_arguments(arg "" "CORPUS" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LIBS})
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  # The first directory receives what the run finds, so the seeds stay as they are in the tree.
  set(found ${CMAKE_CURRENT_BINARY_DIR}/${name}.found)
  file(MAKE_DIRECTORY ${found})
  add_test(NAME ${name} COMMAND ${name} -runs=30000 -max_total_time=25 -rss_limit_mb=2048
           -timeout=10 ${found} ${arg_CORPUS})
  set_tests_properties(${name} PROPERTIES TIMEOUT 120)
endfunction()
