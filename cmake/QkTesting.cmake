# qk_add_test(<name> SOURCES <files...> [LIBS <libs...>])
# Builds one GoogleTest executable and registers each of its tests with ctest,
# so that every test runs in a process of its own: the memory manager and the
# thread services keep process-wide state that a test must not inherit.
find_package(GTest REQUIRED)
include(GoogleTest)

# The tests' main(): the host's start-up before GoogleTest runs.
add_library(qk_test_main STATIC ${PROJECT_SOURCE_DIR}/tests/support/qk_test_main.cpp)
target_link_libraries(qk_test_main PUBLIC qkUtil GTest::gtest)

function(qk_add_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE qkUtil qk_internal qk_warnings GTest::gtest qk_test_main
                        ${ARG_LIBS})
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()
