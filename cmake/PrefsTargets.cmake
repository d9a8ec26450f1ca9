# Helpers shared by the layer, tool and test CMakeLists.

# prefs_layer(NAME SOURCES ... DEPS ...): a static, position-independent library of one layer of
# the service. Layers are combined into libpreferences.so; tests link the layers they exercise.
function(prefs_layer name)
    cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC "${PROJECT_SOURCE_DIR}/src")
    target_link_libraries(${name} PUBLIC ${ARG_DEPS} PRIVATE prefs_warnings)
endfunction()

# prefs_test(NAME SOURCES ... LIBS ... [LABELS ...]): one gtest executable; every test case becomes
# its own ctest entry, discovered when ctest runs (not at build time).
function(prefs_test name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS;LABELS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE ${ARG_LIBS} prefs_test_support GTest::gmock
                          GTest::gtest_main prefs_warnings)
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
                         PROPERTIES LABELS "${ARG_LABELS}")
endfunction()
