# Common settings of every Velmora target.

function(velmora_target_defaults target)
    target_compile_options(${target} PRIVATE -Wall -Wextra)
    target_compile_definitions(${target} PRIVATE QT_NO_FOREACH)
endfunction()

# velmora_library(NAME SOURCES ...): a static library whose headers are included from src/.
function(velmora_library name)
    add_library(${name} STATIC ${ARGN})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src ${PROJECT_BINARY_DIR}/src)
    velmora_target_defaults(${name})
endfunction()

# velmora_test(NAME LIBRARIES ... SOURCES ...): one QtTest program, run by CTest.
function(velmora_test name)
    cmake_parse_arguments(ARG "" "" "LIBRARIES;SOURCES" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
    target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} Qt6::Test)
    velmora_target_defaults(${name})
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES
        ENVIRONMENT "QT_QPA_PLATFORM=offscreen;VELMORA_TEST_DATA=${PROJECT_SOURCE_DIR}/tests/data")
endfunction()

# velmora_benchmark(NAME LIBRARIES ... SOURCES ...): a Google Benchmark program under bench/.
function(velmora_benchmark name)
    cmake_parse_arguments(ARG "" "" "LIBRARIES;SOURCES" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} benchmark::benchmark)
    velmora_target_defaults(${name})
endfunction()
