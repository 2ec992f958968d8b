# Helpers that give every test, benchmark and tool executable the same shape.

# A test executable of one subsystem, run under Wine by CTest.
function(zun_add_test name)
    add_executable(${name} ${ARGN})
    target_link_libraries(${name} PRIVATE zunobj GTest::gtest_main)
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES TIMEOUT 600)
endfunction()

# A benchmark executable: bench_<name>.exe, run by scripts/bench.
function(zun_add_bench name)
    add_executable(bench_${name} ${ARGN})
    target_link_libraries(bench_${name} PRIVATE zunobj)
    target_include_directories(bench_${name} PRIVATE ${PROJECT_SOURCE_DIR}/bench)
endfunction()
