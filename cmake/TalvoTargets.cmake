# Interface targets and functions that every folder's CMakeLists.txt uses.

# The same bits everywhere: no fused multiplication and addition, no assumption that changes a float result.
add_library(talvo_numeric INTERFACE)
target_compile_options(talvo_numeric INTERFACE -ffp-contract=off -fno-math-errno -fno-trapping-math)

add_library(talvo_warnings INTERFACE)
target_compile_options(talvo_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(TALVO_WERROR)
  target_compile_options(talvo_warnings INTERFACE -Werror)
endif()

# A program that links the library as any application does.
function(talvo_add_program name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE talvo::tln_core talvo_warnings)
endfunction()

# A test program over the library's objects, so that internal headers can be tested too.
function(talvo_add_test name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE tln_core_objects talvo_test_support talvo_numeric talvo_warnings GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
                       PROPERTIES TIMEOUT 300)
endfunction()

# A benchmark program; it links the objects as well, so that primitives can be measured alone.
function(talvo_add_bench name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE tln_core_objects talvo_numeric talvo_warnings benchmark::benchmark)
endfunction()

# A fuzz target. Without libFuzzer it gets a main that replays the seed corpus fuzz/corpus/<name>, as a test.
function(talvo_add_fuzz name)
  add_executable(fuzz_${name} ${name}.cpp)
  target_link_libraries(fuzz_${name} PRIVATE tln_core_objects talvo_numeric talvo_warnings)
  if(TALVO_LIBFUZZER)
    target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
  else()
    target_sources(fuzz_${name} PRIVATE replay_main.cpp)
    if(TALVO_BUILD_TESTS)
      add_test(NAME fuzz_${name}_corpus COMMAND fuzz_${name} ${CMAKE_CURRENT_SOURCE_DIR}/corpus/${name})
    endif()
  endif()
endfunction()
